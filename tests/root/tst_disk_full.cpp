// Full disks on either side: a clear error, nothing half-made, and work goes on when there is room.
#include "MountedVolume.h"
#include "RealServer.h"
#include "Uploads.h"

#include <HalvaneDownloadFileTask.h>
#include <HalvaneError.h>
#include <HalvaneItemTasks.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <cerrno>

using namespace orx;
using namespace orx::testing;

namespace {

int filesInRoot() {
    HalvaneGetFilesTask task(1);
    task.exec();
    const Error error = task.waitForFinished();
    EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
    return int(task.files().size());
}

} // namespace

TEST(DiskFull, OfTheServerFailsTheUploadAndNothingElse) {
    const auto disk = MountedVolume::tmpfs(24);
    ASSERT_TRUE(disk);
    RealServer server(disk->path() + QStringLiteral("/data"));
    ASSERT_TRUE(server.start());
    ClientEnvironment client(server.url());
    ASSERT_TRUE(client.login());
    ASSERT_FALSE(upload(client.makeFile(QStringLiteral("before"), 1'000'000)).hasError());

    const Result<Acknowledged> large = upload(client.makeFile(QStringLiteral("large"), 40'000'000));
    ASSERT_TRUE(large.hasError());
    EXPECT_TRUE(isHalvaneError(large.error(), HalvaneServerErrorCode::StorageFull))
        << qPrintable(large.error().traceText());
    EXPECT_FALSE(large.errorMessage().isEmpty());
    EXPECT_EQ(filesInRoot(), 1);
    EXPECT_TRUE(server.isRunning());
}

TEST(DiskFull, OfTheServerLeavesRoomForOthersAfterTheUploadIsAbandoned) {
    const auto disk = MountedVolume::tmpfs(24);
    ASSERT_TRUE(disk);
    const QString filler = disk->path() + QStringLiteral("/filler");
    RealServer server(disk->path() + QStringLiteral("/data"));
    ASSERT_TRUE(server.start());
    ClientEnvironment client(server.url());
    ASSERT_TRUE(client.login());
    {
        QFile file(filler);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_GT(file.write(QByteArray(20 * 1024 * 1024, 'x')), 0);
    }
    const QString path = client.makeFile(QStringLiteral("measurement"), 10'000'000);
    ASSERT_TRUE(upload(path).hasError());
    ASSERT_TRUE(QFile::remove(filler));
    const Result<Acknowledged> second = upload(path);
    EXPECT_FALSE(second.hasError()) << qPrintable(second.errorMessage());
    EXPECT_EQ(filesInRoot(), 1);
}

TEST(DiskFull, OfTheClientFailsTheDownloadAndKeepsTheOldFile) {
    RealServer server;
    ASSERT_TRUE(server.start());
    ClientEnvironment client(server.url());
    ASSERT_TRUE(client.login());
    const Result<Acknowledged> sent = upload(client.makeFile(QStringLiteral("measurement"), 10'000'000));
    ASSERT_FALSE(sent.hasError()) << qPrintable(sent.errorMessage());

    const auto disk = MountedVolume::tmpfs(4);
    ASSERT_TRUE(disk);
    const QString target = disk->path() + QStringLiteral("/measurement");
    {
        QFile old(target);
        ASSERT_TRUE(old.open(QIODevice::WriteOnly));
        old.write("old content");
    }
    auto reference = HalvaneFileResourceReference::create(sent->reference.fileId, sent->reference.version,
                                                          QStringLiteral("measurement"));
    HalvaneDownloadFileTask download({.reference = *reference,
                                      .targetDir = QDir(disk->path()),
                                      .targetName = QString(),
                                      .overwrite = true});
    download.exec();
    const Error error = download.waitForFinished();
    EXPECT_TRUE(error.is(ErrorDomain::OperatingSystem, ENOSPC) || error.is(ErrorCode::StorageFull))
        << qPrintable(error.traceText());
    EXPECT_TRUE(error.errorMessage().contains(disk->path())) << qPrintable(error.errorMessage());
    QFile old(target);
    ASSERT_TRUE(old.open(QIODevice::ReadOnly));
    EXPECT_EQ(old.readAll(), "old content");
}
