#pragma once

#include "HalvaneDownloadFolderTask.h"
#include "HalvaneTaskFixture.h"

#include <RealServer.h>

#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>

namespace orx::testing {

//! Folders of a scripted server, and a directory for them.
class DownloadFolderTaskTest : public ::testing::Test {
protected:
    void SetUp() override {
        server.connectClient();
        ASSERT_TRUE(target.isValid());
    }

    static HalvaneFolderResourceReferenceSPtr reference(int id, const QString& name) {
        return *HalvaneFolderResourceReference::create(id, name);
    }
    std::unique_ptr<HalvaneDownloadFolderTask> download(int id, const QString& name = QStringLiteral("raw"),
                                                        bool contentOnly = false) const {
        return std::make_unique<HalvaneDownloadFolderTask>(reference(id, name), target.path(), contentOnly);
    }
    static Error run(BaseTask& task) {
        task.exec();
        return task.waitForFinished();
    }
    //! Everything below the target: files with their content, directories with a trailing slash.
    QStringList tree() const {
        QStringList entries;
        QDirIterator it(target.path(), QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            const QString relative = QDir(target.path()).relativeFilePath(path);
            QFile file(path);
            if (it.fileInfo().isDir())
                entries.append(relative + u'/');
            else if (file.open(QIODevice::ReadOnly))
                entries.append(relative + u'=' + QString::fromUtf8(file.readAll()));
        }
        entries.sort();
        return entries;
    }
    QString at(const QString& relative) const { return target.filePath(relative); }
    int folder(const QString& name, int parent = 1) { return server.service().addFolder(name, parent); }
    int file(const QString& name, const QByteArray& content, int parent) {
        return server.service().addFile(name, content, parent);
    }

    ClientEnvironment client{QUrl(QStringLiteral("http://scripted.invalid"))};
    ScriptedHalvaneServer server;
    QTemporaryDir target;
};

} // namespace orx::testing
