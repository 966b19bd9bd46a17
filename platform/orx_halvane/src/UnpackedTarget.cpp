#include "UnpackedTarget.h"

#include "ContentCheck.h"

#include <AtomicFile.h>
#include <FilePlace.h>

#include <QCoreApplication>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QSet>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace orx {

namespace {

constexpr qint64 hashedAtATime = 16 * 1024 * 1024;

QString translated(const char* text) {
    return QCoreApplication::translate("orx::UnpackedTarget", text);
}

bool isTaken(int reason) {
    return reason == EEXIST || reason == ENOTEMPTY || reason == EISDIR || reason == ENOTDIR;
}

//! Zero or an errno, as all below.
int removeAll(const QByteArray& path) {
    std::error_code failure;
    std::filesystem::remove_all(path.toStdString(), failure);
    return failure.value();
}

//! Where names cannot be exchanged.
int replaceInSteps(const QByteArray& source, const QByteArray& target, UnpackedTarget::Replace replace) {
    if (std::rename(source.constData(), target.constData()) == 0)
        return 0;
    if (!isTaken(errno) || replace != UnpackedTarget::Replace::Everything)
        return errno;
    const int reason = removeAll(target);
    return reason != 0 ? reason : FilePlace::take(source, target);
}

struct Listed {
    QHash<QString, qint64> files;
    //! Not every format lists directories.
    QSet<QString> directories;

    explicit Listed(const QList<vonk::VonkEntry>& entries) {
        for (const vonk::VonkEntry& entry : entries) {
            if (entry.isFile())
                files.insert(entry.path, entry.size);
            else
                directories.insert(entry.path);
            for (qsizetype slash = entry.path.indexOf(u'/'); slash >= 0;
                 slash = entry.path.indexOf(u'/', slash + 1))
                directories.insert(entry.path.left(slash));
        }
    }
    bool has(const QString& path, const QFileInfo& info) const {
        if (info.isSymLink())
            return false;
        if (info.isDir())
            return directories.contains(path);
        return info.isFile() && files.value(path, -1) == info.size();
    }
};

bool hasShape(const QString& directory, const Listed& listed) {
    QDirIterator found(directory, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                       QDirIterator::Subdirectories);
    qsizetype count = 0;
    while (found.hasNext()) {
        const QString path = found.next().mid(directory.size() + 1);
        if (!listed.has(path, found.fileInfo()))
            return false;
        ++count;
    }
    return count == listed.files.size() + listed.directories.size();
}

bool isSameFile(const QString& path, const vonk::VonkEntry& entry, const std::function<bool()>& isCanceled) {
    ContentCheck check(path, entry.size, entry.sha256);
    while (!isCanceled()) {
        if (const auto same = check.isSame(hashedAtATime))
            return *same;
    }
    return false;
}

} // namespace

UnpackedTarget::Found UnpackedTarget::look() const {
    struct stat status {};
    if (::lstat(QFile::encodeName(m_path).constData(), &status) != 0)
        return errno == ENOENT ? Found::Nothing : Found::Other;
    if (S_ISDIR(status.st_mode))
        return Found::Directory;
    return S_ISREG(status.st_mode) || S_ISLNK(status.st_mode) ? Found::File : Found::Other;
}

bool UnpackedTarget::holdsExactly(const QList<vonk::VonkEntry>& entries,
                                  const std::function<bool()>& isCanceled) const {
    return look() == Found::Directory && hasShape(m_path, Listed(entries)) &&
           std::all_of(entries.begin(), entries.end(), [&](const vonk::VonkEntry& entry) {
               return !entry.isFile() || isSameFile(m_path + u'/' + entry.path, entry, isCanceled);
           });
}

Error UnpackedTarget::place(const QString& source, Replace replace) const {
    const QByteArray from = QFile::encodeName(source);
    int reason = FilePlace::take(from, QFile::encodeName(m_path));
    if (isTaken(reason) && replace != Replace::Nothing)
        reason = exchange(from, replace);
    if (isTaken(reason))
        return ORX_ECATCH(taken());
    if (reason != 0)
        return ORX_ECATCH(Error::fromErrno(reason, translated("Could not write \"%1\"").arg(m_path)));
    return ORX_ECATCH(AtomicFile::syncDirectory(QFileInfo(m_path).absolutePath()));
}

int UnpackedTarget::exchange(const QByteArray& source, Replace replace) const {
    const QByteArray target = QFile::encodeName(m_path);
    const Found found = look();
    if (replace == Replace::Files && found != Found::File && found != Found::Nothing)
        return EEXIST;
    const int reason = FilePlace::exchange(source, target);
    if (FilePlace::isUnknown(reason))
        return replaceInSteps(source, target, replace);
    if (reason != 0)
        return reason;
    if (replace == Replace::Everything)
        return removeAll(source);
    if (::unlink(source.constData()) == 0)
        return 0;
    // A directory came there meanwhile.
    const int kept = errno;
    const int back = FilePlace::exchange(source, target);
    return back != 0 ? back : kept;
}

Error UnpackedTarget::taken() const {
    return Error(ErrorCode::AlreadyExists,
                 look() == Found::Directory
                     ? translated("The directory \"%1\" exists already and is not what would come there. "
                                  "Move it away, or choose another name or place.")
                           .arg(m_path)
                     : translated("\"%1\" exists already. Choose another name or place, or allow it to be "
                                  "replaced.")
                           .arg(m_path));
}

} // namespace orx
