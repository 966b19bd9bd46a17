#include "CacheDownloads.h"

#include <HalvaneAcknowledgedContents.h>
#include <HalvaneConnection.h>
#include <HalvaneListingStore.h>
#include <HalvaneResourceHandler.h>
#include <ResourceManager.h>

#include <QDirIterator>
#include <QFile>

namespace orx::testing {

CacheDownloads::CacheDownloads()
    : m_cache(std::make_unique<ResourceCache>(m_cacheDir.filePath(QStringLiteral("cache")))) {
    HalvaneResourceHandler::registerType();
    ResourceManager::setCache(m_cache.get());
}

CacheDownloads::~CacheDownloads() {
    ResourceManager::setCache(nullptr);
    HalvaneResourceHandler::unregisterType();
    HalvaneListingStore::instance().clear();
    HalvaneAcknowledgedContents::clear(); // the next server has other files under the same ids
}

std::unique_ptr<HalvaneDownloadFolderCacheTask> CacheDownloads::download(int folder, bool contentOnly) const {
    return std::make_unique<HalvaneDownloadFolderCacheTask>(
        *HalvaneFolderResourceReference::create(folder, QStringLiteral("raw")), m_target.path(), contentOnly,
        nullptr);
}

std::unique_ptr<HalvaneDownloadFolderCacheTask> CacheDownloads::downloadInto(int folder,
                                                                             const QString& directory) const {
    return std::make_unique<HalvaneDownloadFolderCacheTask>(
        *HalvaneFolderResourceReference::create(folder, QStringLiteral("raw")), at(directory), true, nullptr);
}

std::unique_ptr<HalvaneDownloadFileCacheTask>
CacheDownloads::downloadFile(int file, int version, const QString& name, const QString& as) const {
    return std::make_unique<HalvaneDownloadFileCacheTask>(
        *HalvaneFileResourceReference::create(file, version, name), DirPath(m_target.path()), as, nullptr);
}

Error CacheDownloads::run(BaseTask& task) {
    task.exec();
    Error error = task.waitForFinished();
    EXPECT_TRUE(waitUntil([&task] { return task.isIdle(); }));
    return error;
}

QStringList CacheDownloads::tree() const {
    QStringList entries;
    QDirIterator it(m_target.path(), QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QFile file(it.next());
        const QString relative = QDir(m_target.path()).relativeFilePath(file.fileName());
        if (it.fileInfo().isDir())
            entries.append(relative + u'/');
        else if (file.open(QIODevice::ReadOnly))
            entries.append(relative + u'=' + QString::fromUtf8(file.readAll()));
    }
    entries.sort();
    return entries;
}

void CacheDownloads::put(const QString& relative, const QByteArray& content) const {
    QFile file(at(relative));
    ASSERT_TRUE(QDir().mkpath(QFileInfo(file).path()));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    ASSERT_EQ(file.write(content), content.size());
}

QString CacheDownloads::cachedPath(int file, int version, const QString& name) const {
    const auto handler =
        ResourceManager::getHandler(*HalvaneFileResourceReference::create(file, version, name));
    EXPECT_TRUE(handler) << qPrintable(handler.errorMessage());
    return (*handler)->expectedPath()->toString();
}

int CacheDownloads::contentCalls() const {
    return scripted() ? scripted()->count(QStringLiteral("GET /files/*/content"))
                      : real()->countRequests(QStringLiteral("GET"), QStringLiteral("/content"));
}

int CacheDownloads::versionCalls() const {
    const int all = scripted() ? scripted()->count(QStringLiteral("GET /files/*/versions*"))
                               : real()->countRequests(QStringLiteral("GET"), QStringLiteral("/versions"));
    return all - contentCalls();
}

void CacheDownloads::forgetCalls() const {
    if (scripted())
        scripted()->clearLog();
    else
        real()->clearRequests();
}

void CacheDownloads::forgetCallsGivenUp() const {
    if (real()) {
        ASSERT_TRUE(real()->stop());
        ASSERT_TRUE(real()->start());
    }
    forgetCalls();
}

void CacheDownloads::connectOver(const QUrl& url) {
    HalvaneConnection::instance().setSettings(
        HalvaneSettings(HalvaneMachineSettings(url), HalvaneUserSettings()));
}

} // namespace orx::testing
