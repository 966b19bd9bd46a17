#pragma once

#include "RemoteItem.h"

#include <ComplexTask.h>
#include <FileCopy.h>
#include <ResourceHandler.h>

#include <atomic>
#include <memory>
#include <optional>

namespace halvane::host {

//! Brings one version of a file into the cache, unless it is there, and copies it to a path in one durable
//! step. A content that is in the cache already is compared with the server's SHA-256 first, and fetched anew
//! when it differs. Records the version in the local history. What was at the path stays as it is until the
//! copy is complete. Errors: those of the retrieval and of orx::FileCopy. Thread: that of the object.
class HALVANE_HOST_EXPORT CachedDownloadTask : public orx::ComplexTask {
    Q_OBJECT
public:
    //! \a item: a file with version and checksum. \a targetPath: absolute.
    CachedDownloadTask(const RemoteItem& item, const QString& targetPath, orx::FileCopy::IfExists ifExists,
                       QObject* parent = nullptr);
    ~CachedDownloadTask() override;

    //! After success: no content was fetched for it by this task.
    bool wasInCache() const { return m_wasInCache; }
    //! After a failure: the cache failed and neither the server nor the target, so that a download without it
    //! may succeed.
    bool cacheFailed() const { return m_cacheFailed; }

protected:
    orx::Error initialize() override;
    void doCancel() override;

private:
    void retrieve();
    void verify();
    void hashMore();
    void onHashed();
    void copy();
    void fail(const orx::Error& error, bool cacheFailed);

    struct Hashing;
    RemoteItem m_item;
    QString m_targetPath;
    orx::FileCopy::IfExists m_ifExists;
    QSharedPointer<orx::ResourceHandler> m_handler;
    QString m_cachePath;
    std::shared_ptr<Hashing> m_hashing;
    //! The entry as it was when its bytes were found right; none when they were just fetched.
    std::optional<orx::FileCopy::Stamp> m_hashed;
    //! Asked by the copy, on a worker.
    std::shared_ptr<std::atomic<bool>> m_givesUp = std::make_shared<std::atomic<bool>>(false);
    bool m_wasInCache = false;
    bool m_cacheFailed = false;
};

} // namespace halvane::host
