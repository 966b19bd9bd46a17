#include "FileCopy.h"

#include "AtomicFile.h"
#include "DirectoryFlushes.h"
#include "FilePlace.h"
#include "FileTime.h"
#include "NewFile.h"
#include "ReplaceGuard.h"
#include "Result.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <memory>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace orx {
namespace {

// What is copied between two requests to begin writing back, so that the flush at the end has little to do.
constexpr size_t sliceSize = size_t(8) * 1024 * 1024;

QString translated(const char* text) {
    return QCoreApplication::translate("orx::FileCopy", text);
}

class Descriptor {
public:
    explicit Descriptor(int number) : m_number(number) {}
    ~Descriptor() {
        if (m_number >= 0)
            ::close(m_number);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int operator*() const { return m_number; }
    bool isOpen() const { return m_number >= 0; }
    // Closing can be where a network file system tells of a lost write.
    bool close() { return ::close(std::exchange(m_number, -1)) == 0; }

private:
    int m_number;
};

Error readFailure(int error, const QByteArray& path) {
    const QString name = QFile::decodeName(path);
    if (error == ENOENT)
        return Error(ErrorCode::NotFound, translated("\"%1\" does not exist.").arg(name));
    return Error(ErrorCode::FileNotReadable,
                 translated("Could not read \"%1\": %2").arg(name, qt_error_string(error)));
}

Error writeFailure(int error, const QByteArray& path) {
    const QString name = QFile::decodeName(path);
    if (error == ENOSPC || error == EDQUOT)
        return Error::fromErrno(error, translated("There is no room for \"%1\"; free some space").arg(name));
    if (error == ECANCELED)
        return Error(
            ErrorCode::FileChanged,
            translated("\"%1\" changed while what is to replace it was copied, and stays as it is; try "
                       "again when nothing writes to it.")
                .arg(name));
    if (error == EEXIST)
        return Error(ErrorCode::AlreadyExists, translated("\"%1\" exists already.").arg(name));
    return Error(ErrorCode::FileNotWritable,
                 translated("Could not write \"%1\": %2").arg(name, qt_error_string(error)));
}

Error notCopied(const QByteArray& path) {
    return Error(ErrorCode::FileNotReadable,
                 translated("\"%1\" is neither a file nor a directory; it is not copied.")
                     .arg(QFile::decodeName(path)));
}

FileCopy::Stamp stampFrom(const struct stat& info) {
    return {quint64(info.st_dev), quint64(info.st_ino), qint64(info.st_size), nanosecondsOf(info.st_mtim),
            nanosecondsOf(info.st_ctim)};
}

// One file, from what was opened to a new file; nothing is left of that after a failure.
class ContentCopy {
public:
    ContentCopy(const QByteArray& source, const QByteArray& target, const QByteArray& shown,
                FileCopy::Access access = FileCopy::Access::Default)
        : m_source(source), m_target(target), m_shown(shown), m_access(access) {}
    //! The copy is \a file, which is left open and has yet to take the place \a target.
    ContentCopy(const QByteArray& source, const QByteArray& target, NewFile& file, NewFile::Kind kind,
                FileCopy::IsCanceled isCanceled, const std::optional<FileCopy::Stamp>& expected)
        : m_source(source)
        , m_target(target)
        , m_shown(target)
        , m_file(&file)
        , m_kind(kind)
        , m_isCanceled(std::move(isCanceled))
        , m_expected(expected) {}

    Error run() {
        const Descriptor source(::open(m_source.constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        if (!source.isOpen())
            return errno == ELOOP ? notCopied(m_source) : readFailure(errno, m_source);
        if (::fstat(*source, &m_before) != 0)
            return readFailure(errno, m_source);
        if (!S_ISREG(m_before.st_mode))
            return notCopied(m_source);
        if (m_expected && *m_expected != stampFrom(m_before))
            return changed();
        const mode_t mode = m_access == FileCopy::Access::OwnerOnly ? 0600 : 0666 | (m_before.st_mode & 0111);
        return m_file ? fillFile(*source, mode) : fillTarget(*source, mode);
    }

private:
    Error fillFile(int source, mode_t mode) {
        if (const int reason = m_file->make(m_kind, m_target, mode); reason != 0)
            return writeFailure(reason, m_shown);
        return fill(source, m_file->descriptor());
    }

    Error fillTarget(int source, mode_t mode) {
        Descriptor target(::open(m_target.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
        if (!target.isOpen())
            return writeFailure(errno, m_shown);
        Error error = fill(source, *target);
        if (!error.hasError() && !target.close())
            error = writeFailure(errno, m_shown);
        if (error.hasError())
            ::unlink(m_target.constData());
        return error;
    }

    Error fill(int source, int target) {
        ORX_RETURN_ON_ERROR(checkGoesOn());
        if (::ioctl(target, FICLONE, source) != 0)
            ORX_RETURN_ON_ERROR(copyBytes(source, target));
        ORX_RETURN_ON_ERROR(checkUnchanged(source));
        const timespec times[] = {m_before.st_atim, m_before.st_mtim};
        if (::futimens(target, times) != 0 || ::fsync(target) != 0)
            return writeFailure(errno, m_shown);
        return {};
    }

    Error copyBytes(int source, int target) {
        // What is one slice is flushed right after it.
        const bool isLarge = size_t(m_before.st_size) > sliceSize;
        if (isLarge && ::fallocate(target, 0, 0, m_before.st_size) != 0 &&
            (errno == ENOSPC || errno == EDQUOT))
            return writeFailure(errno, m_shown);
        off_t done = 0;
        while (done < m_before.st_size) {
            ORX_RETURN_ON_ERROR(checkGoesOn());
            Result<qint64> copied = copySlice(source, target, done);
            if (copied.hasError())
                return copied.error();
            if (*copied == 0)
                return changed();
            if (isLarge)
                ::sync_file_range(target, done, *copied, SYNC_FILE_RANGE_WRITE);
            done += *copied;
        }
        return {};
    }

    // The kernel copies; where it cannot for this pair of file systems, this process does.
    Result<qint64> copySlice(int source, int target, off_t from) {
        off_t to = from;
        while (!m_byHand) {
            off_t at = from;
            const ssize_t copied = ::copy_file_range(source, &at, target, &to, sliceSize, 0);
            if (copied >= 0)
                return qint64(copied);
            if (errno == ENOSPC || errno == EDQUOT || errno == EIO)
                return writeFailure(errno, m_shown);
            m_byHand = errno != EINTR;
        }
        m_buffer.resize(1024 * 1024);
        const ssize_t bytes =
            retried([&] { return ::pread(source, m_buffer.data(), m_buffer.size(), from); });
        if (bytes < 0)
            return readFailure(errno, m_source);
        for (ssize_t written = 0; written < bytes;) {
            const ssize_t more = retried([&] {
                return ::pwrite(target, m_buffer.data() + written, size_t(bytes - written), from + written);
            });
            if (more < 0)
                return writeFailure(errno, m_shown);
            written += more;
        }
        return qint64(bytes);
    }

    template <typename Call>
    static ssize_t retried(Call call) {
        ssize_t result = 0;
        do
            result = call();
        while (result < 0 && errno == EINTR);
        return result;
    }

    Error checkUnchanged(int source) const {
        struct stat after = {};
        if (::fstat(source, &after) != 0)
            return readFailure(errno, m_source);
        // What does not touch the content, such as a change of access, is a change only for who gave a stamp.
        const FileCopy::Stamp was = stampFrom(m_before);
        FileCopy::Stamp is = stampFrom(after);
        if (!m_expected)
            is.changedNs = was.changedNs;
        return is == was ? Error() : changed();
    }

    Error checkGoesOn() const {
        if (!m_isCanceled || !m_isCanceled())
            return {};
        return Error(ErrorCode::Canceled,
                     translated("The copy of \"%1\" was given up.").arg(QFile::decodeName(m_source)));
    }

    Error changed() const {
        return Error(
            ErrorCode::FileChanged,
            translated("\"%1\" changed while it was copied; copy it again when nothing writes to it.")
                .arg(QFile::decodeName(m_source)));
    }

    QByteArray m_source;
    QByteArray m_target;
    QByteArray m_shown;
    FileCopy::Access m_access = FileCopy::Access::Default;
    NewFile* m_file = nullptr;
    NewFile::Kind m_kind = NewFile::Kind::Unnamed;
    FileCopy::IsCanceled m_isCanceled;
    std::optional<FileCopy::Stamp> m_expected;
    struct stat m_before = {};
    std::vector<char> m_buffer;
    bool m_byHand = false;
};

// Entries of a directory, and a directory's own copy, as bytes: names need not be valid text here.
class TreeCopy {
public:
    explicit TreeCopy(const FileCopy::Filter& filter) : m_filter(filter) {}

    Error copy(const QByteArray& source, const QByteArray& target, const QByteArray& shown) {
        struct stat info = {};
        if (::lstat(source.constData(), &info) != 0)
            return readFailure(errno, source);
        if (!S_ISDIR(info.st_mode))
            return notCopied(source);
        if (::mkdir(target.constData(), 0777) != 0)
            return writeFailure(errno, shown);
        return fill(source, info, target, shown);
    }

    //! Into a hidden directory beside \a target; empty as long as there is none.
    Error copyBeside(const QByteArray& source, const QByteArray& target, QByteArray& hidden) {
        struct stat info = {};
        if (::lstat(source.constData(), &info) != 0)
            return readFailure(errno, source);
        if (!S_ISDIR(info.st_mode))
            return notCopied(source);
        if (const int reason = FilePlace::makeDirectoryBeside(target, hidden, 0777); reason != 0)
            return writeFailure(reason, target);
        return fill(source, info, hidden, target);
    }

private:
    Error fill(const QByteArray& source, const struct stat& info, const QByteArray& target,
               const QByteArray& shown) {
        const std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(source.constData()), &::closedir);
        if (!listing)
            return readFailure(errno, source);
        ORX_RETURN_ON_ERROR(copyEntries(listing.get(), source, target, shown));
        const timespec times[] = {info.st_atim, info.st_mtim};
        if (::utimensat(AT_FDCWD, target.constData(), times, 0) != 0)
            return writeFailure(errno, shown);
        const Error flushed = AtomicFile::syncDirectory(QFile::decodeName(target));
        return flushed.hasError() ? writeFailure(flushed.code(), shown) : Error();
    }

    Error copyEntries(DIR* listing, const QByteArray& source, const QByteArray& target,
                      const QByteArray& shown) {
        for (;;) {
            errno = 0;
            const dirent* const entry = ::readdir(listing);
            if (!entry)
                return errno == 0 ? Error() : readFailure(errno, source);
            const QByteArray name(entry->d_name);
            if (name == "." || name == "..")
                continue;
            const QByteArray path = source + '/' + name;
            if (!m_filter || m_filter(QFile::decodeName(path)))
                ORX_RETURN_ON_ERROR(copyEntry(path, target + '/' + name, shown + '/' + name));
        }
    }

    Error copyEntry(const QByteArray& source, const QByteArray& target, const QByteArray& shown) {
        struct stat info = {};
        if (::lstat(source.constData(), &info) != 0)
            return readFailure(errno, source);
        return S_ISDIR(info.st_mode) ? copy(source, target, shown) : ContentCopy(source, target, shown).run();
    }

    const FileCopy::Filter& m_filter;
};

QByteArray encoded(const QString& path) {
    return QFile::encodeName(QDir::cleanPath(QFileInfo(path).absoluteFilePath()));
}

} // namespace

Result<FileCopy::Stamp> FileCopy::stampOf(const QString& path) {
    const QByteArray name = encoded(path);
    struct stat info = {};
    if (::lstat(name.constData(), &info) != 0)
        return ORX_ECATCH(readFailure(errno, name));
    return stampFrom(info);
}

Error FileCopy::file(const QString& source, const QString& target, IfExists ifExists,
                     const IsCanceled& isCanceled, const std::optional<Stamp>& expected) {
    const QByteArray targetPath = encoded(target);
    if (ifExists == IfExists::Fail &&
        ::faccessat(AT_FDCWD, targetPath.constData(), F_OK, AT_SYMLINK_NOFOLLOW) == 0)
        return ORX_ECATCH(writeFailure(EEXIST, targetPath));
    NewFile::MayReplace mayReplace;
    if (ifExists == IfExists::Replace)
        mayReplace = [path = QFile::decodeName(targetPath)] { return ReplaceGuard::mayReplace(path); };
    for (NewFile::Kind kind = NewFile::Kind::Unnamed;; kind = NewFile::Kind::Hidden) {
        NewFile file;
        ORX_RETURN_ON_ERROR(ContentCopy(encoded(source), targetPath, file, kind, isCanceled, expected).run());
        const int reason = file.take(mayReplace);
        if (reason == 0)
            return ORX_ECATCH(DirectoryFlushes::flushOrNoteName(targetPath));
        if (!file.needsName(reason))
            return ORX_ECATCH(writeFailure(reason, targetPath));
    }
}

Error FileCopy::directory(const QString& source, const QString& target, const Filter& filter) {
    const QByteArray targetPath = encoded(target);
    if (::faccessat(AT_FDCWD, targetPath.constData(), F_OK, AT_SYMLINK_NOFOLLOW) == 0)
        return ORX_ECATCH(writeFailure(EEXIST, targetPath));
    QByteArray hidden;
    Error error = TreeCopy(filter).copyBeside(encoded(source), targetPath, hidden);
    if (!error.hasError()) {
        const int reason = FilePlace::take(hidden, targetPath);
        if (reason == 0)
            return ORX_ECATCH(DirectoryFlushes::flushOrNoteName(targetPath));
        error = writeFailure(reason, targetPath);
    }
    if (!hidden.isEmpty())
        FilePlace::removeTree(hidden);
    return ORX_ECATCH(error);
}

Error FileCopy::content(const QByteArray& source, const QByteArray& target, const QByteArray& shown,
                        Access access) {
    return ORX_ECATCH(ContentCopy(source, target, shown, access).run());
}

} // namespace orx
