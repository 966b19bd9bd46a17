#include "StagingDirectory.h"

#include <FilePlace.h>

#include <QDir>
#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace halvane::host {

using orx::Error;
using orx::ErrorCode;
using orx::HeldFile;

StagingDirectory::StagingDirectory(const QString& path, const QString& lockName)
    : m_path(path), m_lockName(lockName) {}

StagingDirectory::~StagingDirectory() {
    letGo();
}

Error StagingDirectory::hold() {
    if (isHeld())
        return {};
    const QByteArray name = QFile::encodeName(m_path);
    int reason = ENOENT;
    // Who held it may just remove it.
    while (reason == ENOENT) {
        if (::mkdir(name.constData(), 0777) != 0 && errno != EEXIST)
            return failure(errno, "The directory \"%1\" could not be made");
        reason = open(HeldFile::Missing::Make);
    }
    if (reason == EWOULDBLOCK)
        return Error(
            ErrorCode::Busy,
            QStringLiteral("The acquisition is being downloaded already, in the directory \"%1\". Wait "
                           "for that download, or stop it.")
                .arg(m_path));
    return reason == 0 ? Error() : failure(reason, "The directory \"%1\" could not be used");
}

int StagingDirectory::open(HeldFile::Missing missing) {
    m_directory =
        ::open(QFile::encodeName(m_path).constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (m_directory < 0)
        return errno;
    const int reason = m_lock.open(m_directory, QFile::encodeName(m_lockName), missing);
    if (reason != 0)
        ::close(std::exchange(m_directory, -1));
    return reason;
}

Error StagingDirectory::remove() {
    // The lock is the last that goes: who comes meanwhile finds it held.
    const QDir directory(m_path);
    bool isRemoved = true;
    for (const QFileInfo& entry :
         directory.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot)) {
        const QString path = entry.filePath();
        if (entry.fileName() == m_lockName)
            continue;
        if (entry.isDir() && !entry.isSymLink())
            orx::FilePlace::removeTree(QFile::encodeName(path));
        else
            QFile::remove(path);
        isRemoved = isRemoved && ::faccessat(AT_FDCWD, QFile::encodeName(path).constData(), F_OK,
                                             AT_SYMLINK_NOFOLLOW) != 0;
    }
    if (letGo() && isRemoved)
        return {};
    return Error(
        ErrorCode::FileNotWritable,
        QStringLiteral("The directory \"%1\" could not be removed; it is needed no more.").arg(m_path));
}

Error StagingDirectory::removeLeft() {
    const int reason = open(HeldFile::Missing::Make);
    if (reason == ENOENT || reason == EWOULDBLOCK)
        return {};
    if (reason != 0)
        return failure(reason, "The directory \"%1\" is needed no more, but could not be removed");
    if (m_lock.isLocked())
        return remove();
    letGo();
    return {};
}

bool StagingDirectory::letGo() {
    if (!isHeld())
        return true;
    ::unlinkat(m_directory, QFile::encodeName(m_lockName).constData(), 0);
    m_lock.close();
    ::close(std::exchange(m_directory, -1));
    return ::rmdir(QFile::encodeName(m_path).constData()) == 0 || errno == ENOENT || errno == ENOTEMPTY ||
           errno == EEXIST;
}

Error StagingDirectory::failure(int reason, const char* text) const {
    const QString message = QString::fromLatin1(text).arg(m_path);
    if (reason == ENOSPC || reason == EDQUOT)
        return Error::fromErrno(reason, message);
    return Error(ErrorCode::FileNotWritable, message + QStringLiteral(": ") + qt_error_string(reason));
}

} // namespace halvane::host
