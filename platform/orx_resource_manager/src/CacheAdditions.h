#pragma once

#include "CacheSource.h"
#include "CacheStore.h"
#include "ResourceCache.h"

#include <OwnerInbox.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

namespace orx {

//! What is on its way into a cache after ResourceCache::add() returned: copies and contents of writers. A
//! worker takes one at a time, first come, first served. Thread: any.
class CacheAdditions : public std::enable_shared_from_this<CacheAdditions> {
public:
    //! What is known about a content beforehand.
    struct Expected {
        //! As in CacheStore::compare().
        QString sha256;
        ResourceCache::Limits limits;
    };
    class Writing;

    explicit CacheAdditions(std::shared_ptr<CacheStore> store) : m_store(std::move(store)) {}

    void addCopy(const CacheSubPath& place, const std::shared_ptr<CacheSource>& source,
                 const Expected& expected);
    Error addWritten(const CacheSubPath& place, const std::function<Error()>& writer,
                     const Expected& expected);
    //! One part more of the writing of \a subPath, ended by endPart(); null when no writer of it runs.
    std::shared_ptr<Writing> beginPart(const QString& subPath);
    void endPart(const std::shared_ptr<Writing>& writing, const Error& error);
    //! Where the writer of \a place that runs on this thread makes the content; none without one.
    std::optional<QString> writersPath(const CacheSubPath& place);
    //! See CacheStore::compare().
    static QString acknowledged(const Writing& writing);
    //! Whether drop() was called since the writing began.
    static bool isDropped(const Writing& writing);

    QStringList wait();
    void drop();

private:
    using Cancel = std::shared_ptr<CacheFiles::CancelFlag>;
    struct Job {
        QString subPath;
        std::function<Error(const CacheFiles::CancelFlag&)> work;
        Cancel cancel;
    };

    void enqueue(Job job);
    void serve();
    void ended(const QString& subPath, const Error& error);
    Error copy(const CacheSubPath& place, CacheSource& source, const Expected& expected,
               const CacheFiles::CancelFlag& cancel);
    Error copyInto(const CacheRoot& root, const QByteArray& staging, const CacheSubPath& place,
                   CacheSource& source, const Expected& expected, const CacheFiles::CancelFlag& cancel);
    Error sealWritten(Writing& writing, const CacheFiles::CancelFlag& cancel);
    Error sealFrom(int staging, const Writing& writing, const CacheFiles::CancelFlag& cancel);
    Error beginWriting(Writing& writing);

    std::shared_ptr<CacheStore> m_store;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Job> m_jobs;
    bool m_isServed = false;
    bool m_isWorking = false;
    Cancel m_cancel = std::make_shared<CacheFiles::CancelFlag>(false);
    //! Jobs, the one at work, and writings whose parts go on.
    int m_pending = 0;
    QStringList m_failures;
    std::vector<std::shared_ptr<OwnerInbox>> m_waiting;
    //! By sub-path, while the writer runs.
    QHash<QString, std::shared_ptr<Writing>> m_writers;
};

} // namespace orx
