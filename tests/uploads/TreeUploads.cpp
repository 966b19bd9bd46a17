#include "TreeUploads.h"

#include <HalvaneAcknowledgedContents.h>
#include <HalvaneConnection.h>
#include <HalvaneListingStore.h>
#include <HalvaneResourceHandler.h>
#include <ResourceManager.h>
#include <Transport.h>

#include <QCryptographicHash>
#include <QDirIterator>
#include <QFile>

namespace orx::testing {
namespace {

constexpr HalvaneUploadPolicyOptions options =
    HalvaneUploadPolicyOptions(HalvaneUploadPolicyOption::ReplaceWithoutVersionCheck) |
    HalvaneUploadPolicyOption::KeepGoing;

QString sha256Of(const QByteArray& content) {
    return QString::fromLatin1(QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex());
}

void collect(const HalvaneUploadedFolderInfo& folder, QMap<QString, HalvaneUploadedFileInfo>& files) {
    for (const HalvaneUploadedFileInfo& file : folder.files()) {
        EXPECT_FALSE(files.contains(file.localPath())) << qPrintable(file.localPath());
        files.insert(file.localPath(), file);
    }
    for (const HalvaneUploadedFolderInfo& subFolder : folder.folders())
        collect(subFolder, files);
}

} // namespace

TreeUploads::TreeUploads() : cache(std::make_unique<ResourceCache>(cacheDir.filePath(text("cache")))) {
    server.setArguments({text("--chunk-size"), QString::number(ChunkSize)});
    EXPECT_TRUE(server.start());
    proxy = std::make_unique<FaultProxy>("127.0.0.1", server.port());
    client = std::make_unique<ClientEnvironment>(QUrl(QString::fromStdString(proxy->url())));
    EXPECT_TRUE(client->login());
    EXPECT_TRUE(QDir().mkpath(local()));
    HalvaneResourceHandler::registerType();
    ResourceManager::setCache(cache.get());
}

TreeUploads::~TreeUploads() {
    cache->waitForPending();
    ResourceManager::setCache(nullptr);
    HalvaneResourceHandler::unregisterType();
    HalvaneListingStore::instance().clear();
    HalvaneAcknowledgedContents::clear(); // the next server has other files under the same ids
}

QString TreeUploads::local(const QString& below) const {
    const QString directory = QDir(client->workDir()).filePath(text("raw"));
    return below.isEmpty() ? directory : directory + u'/' + below;
}

QString TreeUploads::put(const QString& below, const QByteArray& content) const {
    QFile file(local(below));
    EXPECT_TRUE(QDir().mkpath(QFileInfo(file).path()));
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    EXPECT_EQ(file.write(content), content.size());
    return file.fileName();
}

QString TreeUploads::put(const QString& below, int size) const {
    QByteArray content = below.toUtf8();
    while (content.size() < size)
        content += QCryptographicHash::hash(content.right(64), QCryptographicHash::Sha256);
    return put(below, content.left(size));
}

QByteArray TreeUploads::contentOf(const QString& path) {
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(path);
    return file.readAll();
}

std::unique_ptr<HalvaneFolderUploadTask> TreeUploads::upload(DuplicateUploadAnswer answer) {
    auto task = std::make_unique<HalvaneFolderUploadTask>(local(), Root, QList<int>(), options, nullptr);
    task->setDuplicateUploadPolicy(std::make_shared<FixedDuplicateUploadPolicy>(answer));
    using Task = HalvaneFolderUploadTask;
    QObject::connect(task.get(), &Task::uploadStarted, task.get(),
                     [this](HalvaneFileUploadTaskBase* file) { started.append(file->path()); });
    QObject::connect(task.get(), &Task::fileUploadFailed, task.get(),
                     [this](const HalvaneFileUploadTaskBase* file) {
                         EXPECT_FALSE(failed.contains(file->path())) << qPrintable(file->path());
                         failed.insert(file->path(), file->error());
                     });
    QObject::connect(task.get(), &Task::fileUploadCanceled, task.get(),
                     [this](const HalvaneFileUploadTaskBase* file) { canceled.append(file->path()); });
    return task;
}

Error TreeUploads::run(BaseTask& task) {
    task.exec();
    Error error = task.waitForFinished();
    awaitIdle(task);
    return error;
}

void TreeUploads::awaitIdle(BaseTask& task) {
    EXPECT_TRUE(waitUntil([&task] { return task.isIdle(); }));
}

QMap<QString, Uploaded> TreeUploads::onServer(int folder) const {
    QMap<QString, Uploaded> tree;
    const auto add = [&tree](const QString& path, const Uploaded& item) {
        EXPECT_FALSE(tree.contains(path)) << qPrintable(path) << " is there twice";
        tree.insert(path, item);
    };
    HalvaneGetFilesTask files(folder);
    EXPECT_FALSE(run(files).hasError()) << qPrintable(files.error().traceText());
    for (const HalvaneFileItemSPtr& file : files.files())
        add(file->name(), {file->id(), file->lastVersion(), file->sha256()});
    HalvaneGetFoldersTask folders(folder);
    EXPECT_FALSE(run(folders).hasError()) << qPrintable(folders.error().traceText());
    for (const HalvaneFolderTreeNodeSPtr& below : folders.foldersTree()) {
        add(below->name() + u'/', {below->id(), 0, {}});
        const auto inner = onServer(below->id());
        for (auto it = inner.begin(); it != inner.end(); ++it)
            add(below->name() + u'/' + it.key(), *it);
    }
    return tree;
}

int TreeUploads::folderId(const QString& path) const {
    return onServer().value(path + u'/').id;
}

QMap<QString, QString> TreeUploads::expected() const {
    QMap<QString, QString> tree{{text("raw/"), QString()}};
    QDirIterator it(local(), QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString below = text("raw/") + QDir(local()).relativeFilePath(path);
        if (it.fileInfo().isDir())
            tree.insert(below + u'/', QString());
        else
            tree.insert(below, sha256Of(contentOf(path)));
    }
    return tree;
}

QMap<QString, QString> TreeUploads::contents(const QMap<QString, Uploaded>& tree) {
    QMap<QString, QString> found;
    for (auto it = tree.begin(); it != tree.end(); ++it)
        found.insert(it.key(), it->sha256);
    return found;
}

QByteArray TreeUploads::download(const Uploaded& file) const {
    NetworkRequest request;
    request.url = HalvaneConnection::instance().apiUrl();
    request.url.setPath(request.url.path() +
                        text("/files/%1/versions/%2/content").arg(file.id).arg(file.version));
    request.setHeader("Authorization", "Bearer " + HalvaneConnection::instance().token());
    std::optional<NetworkReply> reply;
    const auto sent = Transport::ofThisThread().send(request, [&](const NetworkReply& r) { reply = r; });
    EXPECT_TRUE(waitUntil([&] { return reply.has_value(); }));
    EXPECT_EQ(reply->status, 200);
    return reply->body;
}

int TreeUploads::makeFolder(const QString& name, int parent) const {
    HalvaneCreateFolderTask task({name, {}, parent});
    EXPECT_FALSE(run(task).hasError()) << qPrintable(task.error().traceText());
    return task.createdFolderId();
}

QMap<QString, HalvaneUploadedFileInfo> TreeUploads::uploadedBy(const HalvaneFolderUploadTask& task) {
    QMap<QString, HalvaneUploadedFileInfo> files;
    if (const auto folder = task.uploadedFolder())
        collect(*folder, files);
    return files;
}

void TreeUploads::expectAllAccountedFor(const HalvaneFolderUploadTask& task) const {
    const auto uploaded = uploadedBy(task);
    const auto there = onServer();
    QDirIterator it(local(), QDir::Files, QDirIterator::Subdirectories);
    int files = 0;
    for (; it.hasNext(); ++files) {
        const QString path = it.next();
        const QString below = text("raw/") + QDir(local()).relativeFilePath(path);
        const int told = int(failed.contains(path)) + int(canceled.count(path));
        if (uploaded.contains(path)) {
            EXPECT_EQ(told, 0) << qPrintable(below);
            EXPECT_EQ(there.value(below).sha256, sha256Of(contentOf(path))) << qPrintable(below);
            EXPECT_EQ(there.value(below).version, uploaded.find(path)->reference().version);
            EXPECT_EQ(there.value(below).id, uploaded.find(path)->reference().fileId);
        } else {
            EXPECT_EQ(told, 1) << qPrintable(below);
        }
    }
    for (const Error& error : failed)
        EXPECT_FALSE(error.errorMessage().isEmpty());
    const FinishedTaskCounts counts = task.finishedTaskCounts();
    EXPECT_EQ(counts, (FinishedTaskCounts{int(uploaded.size()), int(failed.size()), int(canceled.size())}));
    EXPECT_EQ(counts.successful + counts.failed + counts.canceled, files);
}

void TreeUploads::expectCompletedByAnotherRun() {
    failed.clear();
    canceled.clear();
    const auto again = upload(DuplicateUploadAnswer::Skip);
    const Error error = run(*again);
    EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
    EXPECT_TRUE(failed.isEmpty() && canceled.isEmpty());
    const auto tree = onServer();
    EXPECT_EQ(contents(tree), expected());
    for (auto it = tree.begin(); it != tree.end(); ++it)
        EXPECT_LE(it->version, 1) << qPrintable(it.key());
}

} // namespace orx::testing
