#pragma once

#include <QString>
#include <QTemporaryDir>

#include <memory>

namespace orx::testing {

//! A file system of its own for one test: mounted at path(), unmounted and removed at the end. Needs root.
//! Failures are fatal test failures with the command's own words.
class MountedVolume {
public:
    //! A memory file system of \a megabytes, to be filled up.
    static std::unique_ptr<MountedVolume> tmpfs(int megabytes);
    //! An ext4 file system in an image file that stands for a disk.
    static std::unique_ptr<MountedVolume> ext4(int megabytes);
    //! The file or directory \a source at \a place, too, where one of its kind is.
    static std::unique_ptr<MountedVolume> bind(const QString& source, const QString& place);
    ~MountedVolume();

    QString path() const { return m_place.isEmpty() ? m_dir.filePath(QStringLiteral("mnt")) : m_place; }
    //! What the disk would hold if the power went off now: the image is copied as it is, without telling the
    //! file system, and the copy is mounted, which replays its journal.
    std::unique_ptr<MountedVolume> afterPowerCut() const;

private:
    MountedVolume();
    bool mount(const QStringList& arguments);
    QString image() const { return m_dir.filePath(QStringLiteral("disk.img")); }
    QTemporaryDir m_dir;
    //! Empty: one of its own.
    QString m_place;
    bool m_mounted = false;
};

} // namespace orx::testing
