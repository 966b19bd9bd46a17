#include "DirectoryMerge.h"

#include "DirectoryExchange.h"
#include "FilePlace.h"
#include "FileTime.h"
#include "MountPoints.h"
#include "ReplaceGuard.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>

#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <memory>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

namespace orx {

namespace {

using Entries = std::map<QByteArray, struct stat>;

QString translated(const char* text) {
    return QCoreApplication::translate("orx::DirectoryMerge", text);
}

Error failure(const char* text, const QByteArray& path) {
    return Error::fromErrno(errno, translated(text).arg(QFile::decodeName(path)));
}

Error refused(ErrorCode code, const char* text, const QByteArray& path) {
    return Error(code, translated(text).arg(QFile::decodeName(path)));
}

Result<QList<QByteArray>> namesIn(const QByteArray& directory) {
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(directory.constData()), &::closedir);
    if (!listing)
        return failure("Could not read \"%1\"", directory);
    QList<QByteArray> names;
    for (errno = 0; const dirent* const entry = ::readdir(listing.get()); errno = 0) {
        const QByteArray name(entry->d_name);
        if (name != "." && name != "..")
            names << name;
    }
    if (errno != 0)
        return failure("Could not read \"%1\"", directory);
    return names;
}

Result<Entries> entriesOf(const QByteArray& directory) {
    const Result<QList<QByteArray>> names = namesIn(directory);
    if (names.hasError())
        return names.error();
    Entries entries;
    for (const QByteArray& name : *names) {
        struct stat info = {};
        if (::lstat((directory + '/' + name).constData(), &info) != 0)
            return failure("Could not look at \"%1\"", directory + '/' + name);
        entries.emplace(name, info);
    }
    return entries;
}

bool isSameTime(const timespec& one, const timespec& other) {
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

//! As far as this user may, but for those that say who has access: \a to has them as \a from has, and none
//! that it inherited.
Error copyAttributes(const QByteArray& from, const QByteArray& to) {
    for (const char* const acl : {"system.posix_acl_access", "system.posix_acl_default"}) {
        const bool isThere = ::getxattr(to.constData(), acl, nullptr, 0) >= 0;
        if (isThere && ::removexattr(to.constData(), acl) != 0)
            return failure("Could not set the access rights of a copy of \"%1\"", from);
    }
    QByteArray names(64 * 1024, Qt::Uninitialized);
    const ssize_t length = ::listxattr(from.constData(), names.data(), size_t(names.size()));
    names.resize(qMax<qsizetype>(0, length));
    for (const QByteArray& name : names.split('\0')) {
        QByteArray value(64 * 1024, Qt::Uninitialized);
        const ssize_t size = name.isEmpty() ? -1
                                            : ::getxattr(from.constData(), name.constData(), value.data(),
                                                         size_t(value.size()));
        if (size >= 0 &&
            ::setxattr(to.constData(), name.constData(), value.constData(), size_t(size), 0) != 0 &&
            name.startsWith("system.posix_acl_"))
            return failure("Could not set the access rights of a copy of \"%1\"", from);
    }
    return {};
}

bool hasOwners(const QByteArray& path, const struct stat& model) {
    struct stat info = {};
    return ::lstat(path.constData(), &info) == 0 && info.st_uid == model.st_uid &&
           info.st_gid == model.st_gid;
}

class Merging {
public:
    Merging(const QByteArray& source, const QByteArray& target, const DirectoryMerge::Options& options)
        : m_source(source), m_target(target), m_options(options) {}

    Error run() {
        struct stat info = {};
        if (::lstat(m_target.constData(), &info) != 0)
            return failure("Could not look at \"%1\"", m_target);
        if (!S_ISDIR(info.st_mode))
            return refused(ErrorCode::AlreadyExists, "\"%1\" exists already and stays as it is.", m_target);
        if (!ReplaceGuard::mayReplace(QFile::decodeName(m_target)))
            return changed();
        ORX_RETURN_ON_ERROR(checkNoMounts());
        ORX_RETURN_ON_ERROR(checkMayChange(m_target, info, true));
        QByteArray successor;
        if (const int reason = FilePlace::makeDirectoryBeside(m_target, successor, 0700); reason != 0) {
            errno = reason;
            return failure("Could not make a directory beside \"%1\"", m_target);
        }
        Error error = fill(QByteArray(), true, &info, successor);
        if (!error.hasError())
            error = checkAsSeen();
        if (!error.hasError())
            return replace(successor);
        FilePlace::removeTree(successor);
        return error;
    }

private:
    //! What was in the target when it was looked at.
    struct Seen {
        ino_t inode;
        //! The successor has the same file.
        bool isLinked;
        off_t size;
        timespec modified;
    };

    static QByteArray below(const QByteArray& directory, const QByteArray& name) {
        return directory.isEmpty() ? name : directory + '/' + name;
    }
    static QByteArray within(const QByteArray& directory, const QByteArray& relative) {
        return relative.isEmpty() ? directory : directory + '/' + relative;
    }
    QByteArray sourceOf(const QByteArray& relative) const { return within(m_source, relative); }
    QByteArray targetOf(const QByteArray& relative) const { return within(m_target, relative); }
    void note(const QByteArray& relative, const struct stat& info, bool isLinked) {
        m_seen.insert(relative, {info.st_ino, isLinked, info.st_size, info.st_mtim});
    }

    //! Makes the directory \a into of what source and target hold at \a relative: the source where
    //! \a isInSource, the target where there is \a old.
    Error make(const QByteArray& relative, bool isInSource, const struct stat* old, const QByteArray& into) {
        if (old)
            ORX_RETURN_ON_ERROR(checkMayChange(targetOf(relative), *old, isInSource));
        if (::mkdir(into.constData(), old ? 0700 : 0777) != 0)
            return failure("Could not make \"%1\"", targetOf(relative));
        return fill(relative, isInSource, old, into);
    }

    Error fill(const QByteArray& relative, bool isInSource, const struct stat* old, const QByteArray& into) {
        if (old)
            ORX_RETURN_ON_ERROR(inherit(targetOf(relative), *old, into));
        Entries fromSource;
        Entries fromTarget;
        if (isInSource)
            ORX_RETURN_ON_ERROR(list(sourceOf(relative), fromSource, true));
        if (old)
            ORX_RETURN_ON_ERROR(list(targetOf(relative), fromTarget, false));
        for (const auto& [name, info] : fromSource) {
            const auto there = fromTarget.find(name);
            ORX_RETURN_ON_ERROR(bring(below(relative, name), info,
                                      there == fromTarget.end() ? nullptr : &there->second,
                                      into + '/' + name));
        }
        for (const auto& [name, info] : fromTarget) {
            if (!fromSource.contains(name))
                ORX_RETURN_ON_ERROR(keep(below(relative, name), info, into + '/' + name));
        }
        return finish(relative, isInSource, old, into);
    }

    Error list(const QByteArray& directory, Entries& entries, bool isSource) const {
        Result<Entries> found = entriesOf(directory);
        if (found.hasError())
            return found.error();
        entries = std::move(found).value();
        if (isSource && m_options.filter)
            std::erase_if(entries, [&](const auto& entry) {
                return !m_options.filter(QFile::decodeName(directory + '/' + entry.first));
            });
        return {};
    }

    // What is mounted in the target goes with the old one, and the originals would be removed through it.
    Error checkNoMounts() {
        const QByteArray parent = QFile::encodeName(QFileInfo(QFile::decodeName(m_target)).path());
        struct stat info = {};
        // The parent may well be named by a link to another volume.
        if (::stat(parent.constData(), &info) != 0)
            return failure("Could not look at \"%1\"", parent);
        return checkNoMounts(m_target, info.st_dev);
    }

    Error checkNoMounts(const QByteArray& path, dev_t device) {
        struct statx info = {};
        if (::statx(AT_FDCWD, path.constData(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE, &info) !=
            0)
            return failure("Could not look at \"%1\"", path);
        if ((info.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) == 0)
            ORX_RETURN_ON_ERROR(checkMountPoints());
        // A file need not have the number of its directory (overlayfs), but another file system has its own.
        const bool isElsewhere =
            S_ISDIR(info.stx_mode) && makedev(info.stx_dev_major, info.stx_dev_minor) != device;
        if (isElsewhere || (info.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0)
            return mounted(path);
        if (!S_ISDIR(info.stx_mode))
            return {};
        const Result<QList<QByteArray>> names = namesIn(path);
        if (names.hasError())
            return names.error();
        for (const QByteArray& name : *names)
            ORX_RETURN_ON_ERROR(checkNoMounts(path + '/' + name, device));
        return {};
    }

    //! For a kernel that does not tell it of each entry.
    Error checkMountPoints() {
        if (std::exchange(m_knowsMountPoints, true))
            return {};
        const QString list = QStringLiteral("/proc/self/mountinfo");
        QFile file(list);
        if (!file.open(QIODevice::ReadOnly))
            return refused(ErrorCode::FileNotWritable,
                           "\"%1\" cannot be replaced: nothing tells whether anything is mounted in it.",
                           m_target);
        const QByteArray target =
            QFile::encodeName(QFileInfo(QFile::decodeName(m_target)).canonicalFilePath());
        const QByteArray point = MountPoints(file.readAll()).within(target);
        return point.isEmpty() ? Error() : mounted(point);
    }

    static Error mounted(const QByteArray& path) {
        return refused(ErrorCode::FileNotWritable,
                       "\"%1\" is a mount point or another volume, which cannot be replaced together with "
                       "the directory that it is in.",
                       path);
    }

    // Nothing here asks for permission once more when the names are exchanged.
    Error checkMayChange(const QByteArray& directory, const struct stat& info, bool isMerged) const {
        const bool isOpen = ::faccessat(AT_FDCWD, directory.constData(), W_OK | X_OK, AT_EACCESS) == 0;
        if (isOpen || (!isMerged && info.st_uid == ::geteuid()))
            return {};
        return refused(ErrorCode::FileNotWritable,
                       "\"%1\" is protected: nothing can be changed in that directory.", directory);
    }

    //! An entry of the source; \a there: what the target has of that name.
    Error bring(const QByteArray& relative, const struct stat& info, const struct stat* there,
                const QByteArray& into) {
        const bool isDirectory = S_ISDIR(info.st_mode);
        if (there && isDirectory != bool(S_ISDIR(there->st_mode)))
            return refused(ErrorCode::AlreadyExists, "\"%1\" exists already and stays as it is.",
                           targetOf(relative));
        if (isDirectory) {
            if (there)
                note(relative, *there, false);
            return make(relative, true, there, into);
        }
        if (there && m_options.onlyNewer && !isNewer(info, relative))
            return keep(relative, *there, into);
        if (there)
            note(relative, *there, false);
        const QByteArray source = sourceOf(relative);
        if (m_options.mayLinkSource && S_ISREG(info.st_mode) &&
            ::link(source.constData(), into.constData()) == 0)
            return {};
        return FileCopy::content(source, into, targetOf(relative));
    }

    bool isNewer(const struct stat& info, const QByteArray& relative) const {
        struct stat there = {};
        return ::stat(targetOf(relative).constData(), &there) != 0 || isLater(info.st_mtim, there.st_mtim);
    }

    //! An entry that the target alone has.
    Error keep(const QByteArray& relative, const struct stat& info, const QByteArray& into) {
        if (S_ISDIR(info.st_mode)) {
            note(relative, info, false);
            return make(relative, false, &info, into);
        }
        const QByteArray old = targetOf(relative);
        if (::link(old.constData(), into.constData()) == 0)
            return noteLinked(relative);
        note(relative, info, false);
        if (S_ISLNK(info.st_mode))
            return keepLink(old, into);
        ORX_RETURN_ON_ERROR(FileCopy::content(old, into, old, FileCopy::Access::OwnerOnly));
        // Who could read the original, which goes, is to be able to read the copy, and nobody else.
        if (!hasOwners(into, info) && ::chown(into.constData(), info.st_uid, info.st_gid) != 0)
            return refused(
                ErrorCode::FileNotWritable,
                "\"%1\" belongs to somebody else and would not any more when the directory that it is "
                "in is replaced; that stays as it is.",
                old);
        ORX_RETURN_ON_ERROR(copyAttributes(old, into));
        return setMode(old, into, info.st_mode & 07777);
    }

    //! Where file systems lie on top of each other a link can give the original another number.
    Error noteLinked(const QByteArray& relative) {
        struct stat info = {};
        if (::lstat(targetOf(relative).constData(), &info) != 0)
            return failure("Could not look at \"%1\"", targetOf(relative));
        note(relative, info, true);
        return {};
    }

    static Error keepLink(const QByteArray& old, const QByteArray& into) {
        QByteArray text(PATH_MAX, Qt::Uninitialized);
        const ssize_t length = ::readlink(old.constData(), text.data(), size_t(text.size()));
        text.resize(qMax<qsizetype>(0, length));
        if (length <= 0 || ::symlink(text.constData(), into.constData()) != 0)
            return failure("Could not make the link \"%1\" again", old);
        return {};
    }

    Error finish(const QByteArray& relative, bool isInSource, const struct stat* old,
                 const QByteArray& into) {
        // Its access rights may be such that it cannot be opened afterwards.
        const int directory = ::open(into.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (directory < 0)
            return failure("Could not open a copy of \"%1\"", targetOf(relative));
        Error error = setAttributes(relative, isInSource, old, into);
        if (!error.hasError() && ::fsync(directory) != 0 && errno != EINVAL && errno != ENOTSUP)
            error = failure("Could not flush a copy of \"%1\"", targetOf(relative));
        ::close(directory);
        return error;
    }

    //! What is made in \a into gets group and access as in what it takes the place of; the owner may fill it.
    static Error inherit(const QByteArray& from, const struct stat& old, const QByteArray& into) {
        // Who replaces the directory of somebody else owns the new one; what is said of a group is to be said
        // of the same one.
        if (!hasOwners(into, old) && ::chown(into.constData(), old.st_uid, old.st_gid) != 0 &&
            ::chown(into.constData(), uid_t(-1), old.st_gid) != 0)
            return refused(
                ErrorCode::FileNotWritable,
                "\"%1\" belongs to a group that you do not belong to, and would not any more when it is "
                "replaced; it stays as it is.",
                from);
        ORX_RETURN_ON_ERROR(copyAttributes(from, into));
        return setMode(from, into, (old.st_mode & 07777) | 0700);
    }

    static Error setMode(const QByteArray& shown, const QByteArray& path, mode_t mode) {
        return ::chmod(path.constData(), mode) == 0
                   ? Error()
                   : failure("Could not set the access rights of a copy of \"%1\"", shown);
    }

    Error setAttributes(const QByteArray& relative, bool isInSource, const struct stat* old,
                        const QByteArray& into) const {
        if (old)
            ORX_RETURN_ON_ERROR(setMode(targetOf(relative), into, old->st_mode & 07777));
        const QByteArray model = old && !isInSource ? targetOf(relative) : sourceOf(relative);
        struct stat from = {};
        if (::lstat(model.constData(), &from) != 0)
            return failure("Could not look at \"%1\"", model);
        const timespec times[] = {from.st_atim, from.st_mtim};
        if (::utimensat(AT_FDCWD, into.constData(), times, 0) != 0)
            return failure("Could not set the time of a copy of \"%1\"", model);
        return {};
    }

    Error checkAsSeen() const {
        qsizetype count = 0;
        Result<bool> same = isAsSeen(QByteArray(), count);
        if (same.hasError())
            return same.error();
        if (*same && count == m_seen.size())
            return {};
        return changed();
    }

    Error changed() const {
        return refused(ErrorCode::FileChanged,
                       "\"%1\" changed while it was to be replaced and stays as it is; try again when nobody "
                       "else works in it.",
                       m_target);
    }

    Result<bool> isAsSeen(const QByteArray& relative, qsizetype& count) const {
        Result<Entries> entries = entriesOf(targetOf(relative));
        if (entries.hasError())
            return entries.error();
        for (const auto& [name, info] : *entries) {
            const QByteArray path = below(relative, name);
            if (!isKnown(path, info))
                return false;
            ++count;
            if (S_ISDIR(info.st_mode)) {
                Result<bool> inner = isAsSeen(path, count);
                if (inner.hasError() || !*inner)
                    return inner;
            }
        }
        return true;
    }

    //! The same entry, and whatever was written to it is in the successor, too.
    bool isKnown(const QByteArray& relative, const struct stat& info) const {
        const auto seen = m_seen.find(relative);
        return seen != m_seen.end() && seen->inode == info.st_ino &&
               (seen->isLinked || S_ISDIR(info.st_mode) ||
                (seen->size == info.st_size && isSameTime(seen->modified, info.st_mtim)));
    }

    Error replace(const QByteArray& successor) const {
        QByteArray old;
        ORX_RETURN_ON_ERROR(DirectoryExchange::run(successor, m_target, old));
        // What is removed before that could be all that is left after a power cut.
        if (const int reason = FilePlace::flushName(m_target); reason != 0)
            return Error(
                ErrorCode::FileNotWritable,
                translated("\"%1\" was replaced, but a power cut might undo that: %2. What it was before "
                           "is \"%3\". Look after the disk.")
                    .arg(QFile::decodeName(m_target), qt_error_string(reason), visible(old)));
        Error success;
        if (!removeOld(old, QByteArray()))
            success.addWarning(
                translated("\"%1\" was replaced, but what it was before could not be removed. Look "
                           "whether \"%2\" holds something that is still needed, and remove it.")
                    .arg(QFile::decodeName(m_target), visible(old)));
        return success;
    }

    //! False when something is left: what came since the last look, or what may not be removed.
    bool removeOld(const QByteArray& directory, const QByteArray& relative) const {
        const Result<Entries> entries = openedEntries(directory);
        if (entries.hasError())
            return false;
        bool isAll = true;
        for (const auto& [name, info] : *entries) {
            const QByteArray path = below(relative, name);
            isAll = isKnown(path, info) &&
                    (S_ISDIR(info.st_mode) ? removeOld(directory + '/' + name, path)
                                           : ::unlink((directory + '/' + name).constData()) == 0) &&
                    isAll;
        }
        return isAll && ::rmdir(directory.constData()) == 0;
    }

    static Result<Entries> openedEntries(const QByteArray& directory) {
        ::chmod(directory.constData(), 0700);
        return entriesOf(directory);
    }

    QString visible(const QByteArray& old) const {
        return QFile::decodeName(DirectoryExchange::show(old, m_target));
    }

    const QByteArray m_source;
    const QByteArray m_target;
    const DirectoryMerge::Options& m_options;
    //! By path below the target.
    QHash<QByteArray, Seen> m_seen;
    bool m_knowsMountPoints = false;
};

QByteArray encoded(const QString& path) {
    return QFile::encodeName(QDir::cleanPath(QFileInfo(path).absoluteFilePath()));
}

} // namespace

Error DirectoryMerge::run(const QString& source, const QString& target, const Options& options) {
    return ORX_ECATCH(Merging(encoded(source), encoded(target), options).run());
}

} // namespace orx
