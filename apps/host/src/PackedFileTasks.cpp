#include "PackedFileTasks.h"

#include "ErrorText.h"

#include <AtomicFile.h>
#include <FilePlace.h>
#include <FileTime.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QScopeGuard>
#include <QSet>

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace halvane::host {

using orx::AtomicFile;
using orx::Error;
using orx::ErrorCode;
using orx::FilePlace;
using orx::vonk::Vonk;
using orx::vonk::WorkWatch;

namespace {

QString absolute(const QString& path) {
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

bool isThere(const QString& path) {
    struct stat info = {};
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0;
}

QString temporaryBeside(const QString& path) {
    return QFile::decodeName(FilePlace::temporaryBeside(QFile::encodeName(path)));
}

Error writeFailure(int error, const QString& path) {
    if (error == EEXIST || error == ENOTEMPTY)
        return Error(ErrorCode::AlreadyExists,
                     QStringLiteral("\"%1\" exists already; it was not touched.").arg(path));
    if (error == ENOSPC || error == EDQUOT)
        return Error(ErrorCode::StorageFull,
                     QStringLiteral("There is no room for \"%1\"; free some space.").arg(path));
    return Error(ErrorCode::FileNotWritable,
                 QStringLiteral("Could not write \"%1\": %2").arg(path, qt_error_string(error)));
}

Error take(const QString& temporary, const QString& target) {
    const int error = FilePlace::take(QFile::encodeName(temporary), QFile::encodeName(target));
    return error == 0 ? Error() : writeFailure(error, target);
}

//! Of \a path, which was made or renamed in \a directory.
Error flushNamesIn(const QString& directory, const QString& path) {
    const Error error = AtomicFile::syncDirectory(directory);
    return error.hasError() ? writeFailure(error.code(), path) : error;
}

Error checkParent(const QString& path) {
    const QString parent = QFileInfo(path).absolutePath();
    return QFileInfo(parent).isDir()
               ? Error()
               : Error(ErrorCode::FileNotWritable,
                       QStringLiteral("The directory \"%1\" does not exist; make it first.").arg(parent));
}

//! Messages of the library name the hidden place; people asked for another one.
Error naming(const Error& error, const QString& hidden, const QString& asked) {
    if (!error.hasError() || !error.errorMessage().contains(hidden))
        return error;
    return withMessage(error, QString(error.errorMessage()).replace(hidden, asked));
}

//! What lies directly in the archive's "content"; the acquisition itself last, so that whoever sees it sees
//! its companions too.
QStringList topNamesOf(const orx::vonk::VonkMetadata& metadata) {
    QStringList names;
    QSet<QString> known;
    for (const orx::vonk::VonkEntry& entry : metadata.entries) {
        const QString name = entry.path.section(u'/', 1, 1);
        if (!known.contains(name))
            names.append(name);
        known.insert(name);
    }
    if (names.removeOne(metadata.name))
        names.append(metadata.name);
    return names;
}

void removeAt(const QString& path) {
    const QFileInfo info(path);
    if (info.isDir() && !info.isSymLink())
        QDir(path).removeRecursively();
    else
        QFile::remove(path);
}

//! Tells a file from another one that took its name, and from itself after a change.
struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    qint64 changed = 0;
    mode_t mode = 0;
    uid_t owner = 0;
    gid_t group = 0;

    static Identity of(const QString& path) {
        struct stat info = {};
        if (::stat(QFile::encodeName(path).constData(), &info) != 0)
            return {};
        return {info.st_dev,  info.st_ino, info.st_size, orx::nanosecondsOf(info.st_ctim),
                info.st_mode, info.st_uid, info.st_gid};
    }
    friend bool operator==(const Identity&, const Identity&) = default;
};

//! Reads back what it wrote: what takes the place of the only copy has been seen to be right.
Error makeUpgraded(const Vonk& old, const QString& target, const WorkWatch& watch) {
    ORX_RETURN_ON_ERROR(old.upgrade(target, watch));
    Vonk written(target);
    ORX_RETURN_ON_ERROR(written.open());
    return written.validate(Vonk::Check::Full, {{}, watch.isCanceled});
}

Error copyAccess(const Identity& from, const QString& to) {
    const QByteArray name = QFile::encodeName(to);
    const Identity made = Identity::of(to);
    const bool isSameOwner = made.owner == from.owner && made.group == from.group;
    if (!isSameOwner && ::chown(name.constData(), from.owner, from.group) != 0)
        return writeFailure(errno, to);
    return ::chmod(name.constData(), from.mode & 07777) == 0 ? Error() : writeFailure(errno, to);
}

} // namespace

UnpackIntoTask::UnpackIntoTask(const QString& path, const QString& directory, QObject* parent)
    : VonkTask(QStringLiteral("UnpackInto(%1)").arg(path), parent)
    , m_path(path)
    , m_directory(absolute(directory)) {
    setExecutionMode(ExecutionMode::Worker);
}

UnpackIntoTask::~UnpackIntoTask() {
    stopForGood();
}

Error UnpackIntoTask::work(const WorkWatch& watch) {
    Vonk vonk(m_path);
    ORX_RETURN_ON_ERROR(vonk.open());
    m_metadata = vonk.metadata();
    const QStringList names = topNamesOf(m_metadata);
    m_isInto = isThere(m_directory);
    ORX_RETURN_ON_ERROR(checkDirectory());
    ORX_RETURN_ON_ERROR(checkNamesAreFree(names));
    const QString staging =
        temporaryBeside(m_isInto ? QDir(m_directory).filePath(names.last()) : m_directory);
    const auto removal = qScopeGuard([&staging] { removeAt(staging); });
    ORX_RETURN_ON_ERROR(naming(vonk.unpack(staging, watch), staging, m_directory));
    ORX_RETURN_ON_ERROR(watch.check());
    return m_isInto ? takeEntries(staging, names) : takeDirectory(staging, names);
}

Error UnpackIntoTask::checkDirectory() const {
    if (m_isInto && !QFileInfo(m_directory).isDir())
        return Error(ErrorCode::AlreadyExists,
                     QStringLiteral("\"%1\" is not a directory; choose another place.").arg(m_directory));
    return m_isInto ? Error() : checkParent(m_directory);
}

Error UnpackIntoTask::checkNamesAreFree(const QStringList& names) const {
    for (const QString& name : names) {
        const QString path = QDir(m_directory).filePath(name);
        if (isThere(path))
            return Error(ErrorCode::AlreadyExists,
                         QStringLiteral("\"%1\" exists already and stays as it is; unpack into another "
                                        "directory, or move it away.")
                             .arg(path));
    }
    return {};
}

Error UnpackIntoTask::takeDirectory(const QString& staging, const QStringList& names) {
    ORX_RETURN_ON_ERROR(take(staging + QStringLiteral("/content"), m_directory));
    for (const QString& name : names)
        m_paths.append(QDir(m_directory).filePath(name));
    const Error error = flushNamesIn(QFileInfo(m_directory).absolutePath(), m_directory);
    if (error.hasError())
        discard();
    return error;
}

Error UnpackIntoTask::takeEntries(const QString& staging, const QStringList& names) {
    for (const QString& name : names) {
        const QString path = QDir(m_directory).filePath(name);
        if (const Error error = take(staging + QStringLiteral("/content/") + name, path); error.hasError()) {
            removePaths();
            return error;
        }
        m_paths.append(path);
    }
    const Error error = flushNamesIn(m_directory, m_paths.last());
    if (error.hasError())
        removePaths();
    return error;
}

void UnpackIntoTask::removePaths() {
    while (!m_paths.isEmpty())
        removeAt(m_paths.takeLast());
}

void UnpackIntoTask::discard() {
    removePaths();
    if (!m_isInto)
        QDir().rmdir(m_directory);
}

UpgradeInPlaceTask::UpgradeInPlaceTask(const QString& path, QObject* parent)
    : VonkTask(QStringLiteral("UpgradeInPlace(%1)").arg(path), parent), m_path(path) {
    setExecutionMode(ExecutionMode::Worker);
}

UpgradeInPlaceTask::~UpgradeInPlaceTask() {
    stopForGood();
}

Error UpgradeInPlaceTask::work(const WorkWatch& watch) {
    const QString canonical = QFileInfo(m_path).canonicalFilePath();
    const QString file = canonical.isEmpty() ? m_path : canonical;
    const Identity before = Identity::of(file);
    Vonk vonk(file);
    ORX_RETURN_ON_ERROR(vonk.open());
    m_before = vonk.metadata().formatVersion;
    if (m_before.majorVersion() == orx::vonk::vonkVersion().majorVersion())
        return {};
    const QString upgraded = temporaryBeside(file);
    const auto removal = qScopeGuard([&upgraded] { QFile::remove(upgraded); });
    ORX_RETURN_ON_ERROR(naming(makeUpgraded(vonk, upgraded, watch), upgraded, file));
    ORX_RETURN_ON_ERROR(naming(copyAccess(before, upgraded), upgraded, file));
    if (Identity::of(file) != before)
        return Error(
            ErrorCode::FileChanged,
            QStringLiteral("\"%1\" changed while it was upgraded, and stays as it is; try again when "
                           "nothing writes to it.")
                .arg(file));
    ORX_RETURN_ON_ERROR(watch.check());
    if (::rename(QFile::encodeName(upgraded).constData(), QFile::encodeName(file).constData()) != 0)
        return writeFailure(errno, file);
    m_isUpgraded = true;
    if (const Error error = AtomicFile::syncDirectory(QFileInfo(file).path()); error.hasError())
        return Error(
            ErrorCode::FileNotWritable,
            QStringLiteral("\"%1\" is upgraded and complete, but a power cut might bring the old file "
                           "back: %2. Look after the disk.")
                .arg(file, error.errorMessage()));
    return {};
}

Error writeNewFile(const QString& path, const QByteArray& content) {
    const QString target = absolute(path);
    if (isThere(target))
        return writeFailure(EEXIST, path);
    ORX_RETURN_ON_ERROR(checkParent(target));
    const QString temporary = temporaryBeside(target);
    const auto removal = qScopeGuard([&temporary] { QFile::remove(temporary); });
    ORX_RETURN_ON_ERROR(naming(AtomicFile::write(temporary, content), temporary, path));
    ORX_RETURN_ON_ERROR(take(temporary, target));
    const Error error = flushNamesIn(QFileInfo(target).path(), path);
    if (error.hasError())
        QFile::remove(target);
    return error;
}

} // namespace halvane::host
