// The server's disk is full in the middle of a tree: what does not fit is told, and goes up when there is
// room.
#include "MountedVolume.h"
#include "RealServer.h"

#include <HalvaneError.h>
#include <HalvaneFolderUploadTask.h>
#include <HalvaneItemTasks.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QMap>

using namespace orx;
using namespace orx::testing;

namespace {

//! The names and sizes of the files in a folder; two of one name are a test failure.
QMap<QString, qint64> filesIn(int folder) {
    HalvaneGetFilesTask task(folder);
    task.exec();
    const Error error = task.waitForFinished();
    EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
    QMap<QString, qint64> files;
    for (const HalvaneFileItemSPtr& file : task.files()) {
        EXPECT_FALSE(files.contains(file->name())) << qPrintable(file->name());
        files.insert(file->name(), file->size());
    }
    return files;
}

} // namespace

TEST(DiskFull, OfTheServerInTheMiddleOfATreeFailsWhatDoesNotFitAndNothingElse) {
    constexpr int megabyte = 1'000'000;
    const auto disk = MountedVolume::tmpfs(32);
    ASSERT_TRUE(disk);
    RealServer server(disk->path() + QStringLiteral("/data"));
    ASSERT_TRUE(server.start());
    ClientEnvironment client(server.url());
    ASSERT_TRUE(client.login());
    const QString filler = disk->path() + QStringLiteral("/filler");
    {
        QFile file(filler);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_GT(file.write(QByteArray(24 * megabyte, 'x')), 0);
    }
    ASSERT_TRUE(QDir(client.workDir()).mkpath(QStringLiteral("raw")));
    QMap<QString, qint64> all;
    for (quint32 i = 0; i < 12; ++i) {
        const QString name = QStringLiteral("run %1.bin").arg(i);
        (void)client.makeFile(QStringLiteral("raw/") + name, megabyte, i + 1);
        all.insert(name, megabyte);
    }
    HalvaneFolderUploadTask task(QDir(client.workDir()).filePath(QStringLiteral("raw")), 1, {},
                                 HalvaneUploadTask::DEFAULT_UPLOAD_POLICY_OPTIONS |
                                     HalvaneUploadPolicyOptions(HalvaneUploadPolicyOption::KeepGoing),
                                 nullptr);
    QStringList failed;
    QObject::connect(&task, &HalvaneFolderUploadTask::fileUploadFailed, &task,
                     [&failed](const HalvaneFileUploadTaskBase* file) {
                         EXPECT_TRUE(isHalvaneError(file->error(), HalvaneServerErrorCode::StorageFull))
                             << qPrintable(file->error().traceText());
                         failed.append(file->path());
                     });
    task.exec();
    EXPECT_TRUE(isHalvaneError(task.waitForFinished(), HalvaneServerErrorCode::StorageFull));
    EXPECT_FALSE(failed.isEmpty());
    EXPECT_EQ(task.finishedTaskCounts(),
              (FinishedTaskCounts{12 - int(failed.size()), int(failed.size()), 0}));
    EXPECT_TRUE(server.isRunning());
    const int folder = task.uploadedFolder()->folderId();
    EXPECT_EQ(filesIn(folder).size(), 12 - failed.size());

    ASSERT_TRUE(QFile::remove(filler));
    for (const QString& path : QStringList(failed))
        ASSERT_FALSE(task.retry(path).hasError());
    const Error error = task.waitForFinished();
    EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
    EXPECT_EQ(filesIn(folder), all);
    EXPECT_EQ(task.finishedTaskCounts(), (FinishedTaskCounts{12, 0, 0}));
}
