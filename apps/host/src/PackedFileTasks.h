#pragma once

#include "halvane_host_export.h"

#include <VonkMetadata.h>
#include <VonkTask.h>

#include <QStringList>

namespace halvane::host {

//! Unpacks a packed acquisition into a directory, so that the file or directory that was packed, and what
//! belongs to it, lie there under their own names, every byte checked. A directory that does not exist is
//! made, but none above it. Nothing that is there is replaced or merged: ErrorCode::AlreadyExists. Failed or
//! cancelled, it leaves nothing; killed, at most a hidden directory ".NAME.….part".
class HALVANE_HOST_EXPORT UnpackIntoTask final : public orx::vonk::VonkTask {
    Q_OBJECT
public:
    UnpackIntoTask(const QString& path, const QString& directory, QObject* parent = nullptr);
    ~UnpackIntoTask() override;

    //! What was unpacked, as absolute paths, the acquisition itself last; empty unless it succeeded.
    QStringList paths() const { return m_paths; }
    const orx::vonk::VonkMetadata& metadata() const { return m_metadata; }

protected:
    orx::Error work(const orx::vonk::WorkWatch& watch) override;
    void discard() override;

private:
    orx::Error checkDirectory() const;
    orx::Error checkNamesAreFree(const QStringList& names) const;
    orx::Error takeDirectory(const QString& staging, const QStringList& names);
    orx::Error takeEntries(const QString& staging, const QStringList& names);
    void removePaths();

    QString m_path;
    QString m_directory;
    //! Whether the directory was there before.
    bool m_isInto = false;
    QStringList m_paths;
    orx::vonk::VonkMetadata m_metadata;
};

//! Brings a packed acquisition to the current format. The new file takes the place of the old one in one
//! step, with its access rights, after it was read back and found right; until then, and after any failure,
//! the old one is untouched. A link is followed. What has the current major version already stays as it is.
class HALVANE_HOST_EXPORT UpgradeInPlaceTask final : public orx::vonk::VonkTask {
    Q_OBJECT
public:
    explicit UpgradeInPlaceTask(const QString& path, QObject* parent = nullptr);
    ~UpgradeInPlaceTask() override;

    QVersionNumber versionBefore() const { return m_before; }
    //! Also true when a cancellation came too late.
    bool isUpgraded() const { return m_isUpgraded; }

protected:
    orx::Error work(const orx::vonk::WorkWatch& watch) override;

private:
    QString m_path;
    QVersionNumber m_before;
    bool m_isUpgraded = false;
};

//! Writes the new file \a path, which appears complete or not at all. ErrorCode::AlreadyExists when something
//! is there, FileNotWritable.
HALVANE_HOST_EXPORT orx::Error writeNewFile(const QString& path, const QByteArray& content);

} // namespace halvane::host
