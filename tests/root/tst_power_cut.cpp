// Cuts the power under a server that acknowledges uploads and looks whether everything acknowledged is on the
// disk. The server's data lies on a file system in an image file; what a disk would hold after a power cut is
// a copy of that image, taken right after the last acknowledgement. Killing the process alone would prove
// nothing: the kernel keeps what was written.
#include "MountedVolume.h"
#include "RealServer.h"
#include "Uploads.h"

#include <HalvaneDownloadFileTask.h>

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QRandomGenerator>

using namespace orx;
using namespace orx::testing;

namespace {

QByteArray contentOf(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("unreadable");
}

//! A size that goes into the database, through the page cache, or in two chunks to the disk directly.
qint64 sizeOf(int i) {
    if (i % 10 == 7)
        return 9'000'001;
    return i % 3 == 0 ? 3'000 + i : 100'000 + 70'000 * (i % 5);
}

//! Uploads files of all these sizes until \a count are acknowledged.
QList<Acknowledged> uploadMany(const ClientEnvironment& client, int count) {
    QList<Acknowledged> acknowledged;
    for (int i = 0; i < count; ++i) {
        const Result<Acknowledged> one =
            upload(client.makeFile(QStringLiteral("f%1").arg(i), sizeOf(i), quint32(i)));
        EXPECT_FALSE(one.hasError()) << qPrintable(one.errorMessage());
        if (!one.hasError())
            acknowledged.append(*one);
    }
    return acknowledged;
}

//! How many of the acknowledged files cannot be read back whole from \a server.
int countLost(const ClientEnvironment& client, const QList<Acknowledged>& acknowledged) {
    int lost = 0;
    for (const Acknowledged& file : acknowledged) {
        auto reference = HalvaneFileResourceReference::create(file.reference.fileId, file.reference.version,
                                                              QStringLiteral("f"));
        HalvaneDownloadFileTask download({.reference = *reference,
                                          .targetDir = QDir(client.workDir()),
                                          .targetName = QStringLiteral("back"),
                                          .overwrite = true});
        download.exec();
        const bool whole = !download.waitForFinished().hasError() &&
                           contentOf(download.targetPath()) == contentOf(file.localPath);
        lost += whole ? 0 : 1;
    }
    return lost;
}

//! One power cut after \a count acknowledgements; how many of them are gone: all when the server does not
//! even start from what is left. With \a preload in the server process.
int lostAfterPowerCut(int count, const QString& preload = QString()) {
    const auto disk = MountedVolume::ext4(192);
    if (!disk)
        return -1;
    RealServer server(disk->path() + QStringLiteral("/data"));
    if (!preload.isEmpty()) {
        server.setEnvironment(QStringLiteral("LD_PRELOAD"), preload);
        server.setEnvironment(QStringLiteral("ASAN_OPTIONS"), QStringLiteral("verify_asan_link_order=0"));
    }
    if (!server.start())
        return -1;
    ClientEnvironment client(server.url());
    client.login();
    const QList<Acknowledged> acknowledged = uploadMany(client, count);
    server.kill();
    const auto after = disk->afterPowerCut();
    if (!after)
        return -1;
    RealServer again(after->path() + QStringLiteral("/data"));
    if (!again.tryStart())
        return count;
    ClientEnvironment reader(again.url());
    return reader.tryLogin().hasError() ? count : countLost(reader, acknowledged);
}

} // namespace

TEST(PowerCut, LosesNothingThatWasAcknowledged) {
    for (int round = 0; round < 3; ++round) {
        const int count = 6 + int(QRandomGenerator::global()->bounded(12));
        EXPECT_EQ(lostAfterPowerCut(count), 0) << "after " << count << " uploads";
    }
}

TEST(PowerCut, IsNoticedWhenTheServerDoesNotFlush) {
    EXPECT_GT(lostAfterPowerCut(10, QStringLiteral(ORX_NO_FLUSH_LIBRARY)), 0);
}
