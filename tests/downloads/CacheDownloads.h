#pragma once

#include "ContractFixture.h"

#include <ResourceCache.h>
#include <tasks/HalvaneDownloadFolderCacheTask.h>

#include <QTemporaryDir>

namespace orx::testing {

//! Downloads as a host makes them: the registered handlers, a cache of its own, and a directory they go to.
class CacheDownloads : public ContractTest {
protected:
    CacheDownloads();
    ~CacheDownloads() override;

    static QString text(const char* utf8) { return QString::fromUtf8(utf8); }
    QString at(const QString& relative) const { return m_target.filePath(relative); }
    std::unique_ptr<HalvaneDownloadFolderCacheTask> download(int folder, bool contentOnly = true) const;
    //! The content of the folder, into a directory below the target.
    std::unique_ptr<HalvaneDownloadFolderCacheTask> downloadInto(int folder, const QString& directory) const;
    std::unique_ptr<HalvaneDownloadFileCacheTask> downloadFile(int file, int version, const QString& name,
                                                               const QString& as = QString()) const;
    //! Runs \a task to its end, until nothing below it works any more.
    static Error run(BaseTask& task);
    //! Everything in the target: files with their content, directories with a trailing slash.
    QStringList tree() const;
    void put(const QString& relative, const QByteArray& content) const;
    QString cachedPath(int file, int version, const QString& name) const;
    //! Requests of the client for contents, and those that ask what versions there are.
    int contentCalls() const;
    int versionCalls() const;
    void forgetCalls() const;
    //! The same when calls were given up, which may still be on their way to a real server: it is stopped and
    //! started again.
    void forgetCallsGivenUp() const;
    //! Leads the client over \a url from now on, logged in as before.
    static void connectOver(const QUrl& url);

    ResourceCache& cache() const { return *m_cache; }

private:
    QTemporaryDir m_cacheDir;
    QTemporaryDir m_target;
    std::unique_ptr<ResourceCache> m_cache;
};

} // namespace orx::testing
