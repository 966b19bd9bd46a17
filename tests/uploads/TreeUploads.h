#pragma once

#include <FaultProxy.h>
#include <RealServer.h>

#include <DuplicateUploadPolicy.h>
#include <HalvaneFolderUploadTask.h>
#include <HalvaneItemTasks.h>
#include <ResourceCache.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QMap>

namespace orx::testing {

//! What is on the server at one path.
struct Uploaded {
    int id = -1;
    int version = 0;
    QString sha256;
};

//! Uploads of one local directory, "raw", into the root folder of a real server behind a proxy that may break
//! things. Chunks are 1,000 bytes long.
class TreeUploads : public ::testing::Test {
protected:
    static constexpr int ChunkSize = 1'000;
    static constexpr int Root = 1;

    TreeUploads();
    ~TreeUploads() override;

    static QString text(const char* utf8) { return QString::fromUtf8(utf8); }
    //! The local directory, or what is below it.
    QString local(const QString& below = QString()) const;
    //! Makes a file below it with the directories on its way; its path.
    QString put(const QString& below, const QByteArray& content) const;
    //! The same with \a size bytes that are like those of no other name.
    QString put(const QString& below, int size) const;
    static QByteArray contentOf(const QString& path);

    //! Failures of single files do not stop it; names that are taken get \a answer.
    std::unique_ptr<HalvaneFolderUploadTask>
    upload(DuplicateUploadAnswer answer = DuplicateUploadAnswer::Skip);
    //! Runs \a task to its end, until nothing below it works any more.
    static Error run(BaseTask& task);
    static void awaitIdle(BaseTask& task);

    //! Everything below a folder by its path: files, and folders with a trailing slash. Two of one path are a
    //! test failure.
    QMap<QString, Uploaded> onServer(int folder = Root) const;
    //! The id of the folder at that path, which exists.
    int folderId(const QString& path) const;
    //! What onServer() would be if all plain files of the local directory were there: path and checksum.
    QMap<QString, QString> expected() const;
    //! Without ids and versions.
    static QMap<QString, QString> contents(const QMap<QString, Uploaded>& tree);
    QByteArray download(const Uploaded& file) const;
    int makeFolder(const QString& name, int parent = Root) const;

    //! The files that \a task says it uploaded, by their local path.
    static QMap<QString, HalvaneUploadedFileInfo> uploadedBy(const HalvaneFolderUploadTask& task);
    //! Each file of the local directory is either described as uploaded, and then on the server with the
    //! content that it has here, or was told as failed or cancelled; none is both, and none is on the server
    //! twice.
    void expectAllAccountedFor(const HalvaneFolderUploadTask& task) const;
    //! A further run, which leaves alone what is there, completes the tree: the local files are there, each
    //! in one version.
    void expectCompletedByAnotherRun();

    FaultProxy::Match chunk(int index) const { return {"PUT", ".*/chunks/" + std::to_string(index), 0, 1}; }
    int requests(const std::string& method, const std::string& path) const {
        return proxy->traffic(method, path).requests;
    }

    RealServer server;
    std::unique_ptr<FaultProxy> proxy;
    std::unique_ptr<ClientEnvironment> client;
    QTemporaryDir cacheDir;
    std::unique_ptr<ResourceCache> cache;
    //! Told by the tasks of upload(): paths, and of the failed ones why.
    QStringList started;
    QMap<QString, Error> failed;
    QStringList canceled;
};

} // namespace orx::testing
