#include "MountedVolume.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QProcess>

namespace orx::testing {
namespace {

bool runProgram(const QString& program, const QStringList& arguments) {
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    const bool ended = process.waitForFinished(60'000);
    const bool good = ended && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    EXPECT_TRUE(good) << qPrintable(program) << ' ' << qPrintable(arguments.join(u' ')) << ": "
                      << process.readAll().constData();
    return good;
}

} // namespace

MountedVolume::MountedVolume() {
    EXPECT_TRUE(m_dir.isValid());
    EXPECT_TRUE(QDir().mkpath(path()));
}

MountedVolume::~MountedVolume() {
    if (m_mounted)
        runProgram(QStringLiteral("umount"), {path()});
}

bool MountedVolume::mount(const QStringList& arguments) {
    m_mounted = runProgram(QStringLiteral("mount"), arguments + QStringList{path()});
    return m_mounted;
}

std::unique_ptr<MountedVolume> MountedVolume::tmpfs(int megabytes) {
    std::unique_ptr<MountedVolume> volume(new MountedVolume);
    const QString size = QStringLiteral("size=%1m").arg(megabytes);
    return volume->mount({QStringLiteral("-t"), QStringLiteral("tmpfs"), QStringLiteral("-o"), size,
                          QStringLiteral("tmpfs")})
               ? std::move(volume)
               : nullptr;
}

std::unique_ptr<MountedVolume> MountedVolume::ext4(int megabytes) {
    std::unique_ptr<MountedVolume> volume(new MountedVolume);
    const QString size = QStringLiteral("%1M").arg(megabytes);
    const bool good = runProgram(QStringLiteral("truncate"), {QStringLiteral("-s"), size, volume->image()}) &&
                      runProgram(QStringLiteral("mkfs.ext4"),
                                 {QStringLiteral("-q"), QStringLiteral("-F"), volume->image()}) &&
                      volume->mount({QStringLiteral("-o"), QStringLiteral("loop"), volume->image()});
    return good ? std::move(volume) : nullptr;
}

std::unique_ptr<MountedVolume> MountedVolume::bind(const QString& source, const QString& place) {
    std::unique_ptr<MountedVolume> volume(new MountedVolume);
    volume->m_place = place;
    return volume->mount({QStringLiteral("--bind"), source}) ? std::move(volume) : nullptr;
}

std::unique_ptr<MountedVolume> MountedVolume::afterPowerCut() const {
    std::unique_ptr<MountedVolume> volume(new MountedVolume);
    const bool good =
        runProgram(QStringLiteral("cp"), {QStringLiteral("--sparse=always"), image(), volume->image()}) &&
        volume->mount({QStringLiteral("-o"), QStringLiteral("loop"), volume->image()});
    return good ? std::move(volume) : nullptr;
}

} // namespace orx::testing
