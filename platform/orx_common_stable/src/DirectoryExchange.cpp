#include "DirectoryExchange.h"

#include "FilePlace.h"

#include <QCoreApplication>
#include <QFile>

#include <cerrno>
#include <sys/stat.h>

namespace orx {

namespace {

QString translated(const char* text) {
    return QCoreApplication::translate("orx::DirectoryExchange", text);
}

bool isAt(const QByteArray& path, const struct stat& directory) {
    struct stat info = {};
    return ::lstat(path.constData(), &info) == 0 && info.st_ino == directory.st_ino &&
           info.st_dev == directory.st_dev;
}

//! Zero or an errno.
int rename(const QByteArray& from, const QByteArray& to) {
    struct stat info = {};
    if (::lstat(from.constData(), &info) != 0)
        return errno;
    const int reason = FilePlace::take(from, to);
    return reason == 0 || isAt(to, info) ? 0 : reason;
}

Error notReplaced(int reason, const QByteArray& target) {
    return Error::fromErrno(reason, translated("Could not replace \"%1\"").arg(QFile::decodeName(target)));
}

Error leftAside(int reason, const QByteArray& target, const QByteArray& aside) {
    return Error::fromErrno(
        reason, translated("Could not replace \"%1\". What it was is whole and called \"%2\" now; "
                           "give it its name again. The reason")
                    .arg(QFile::decodeName(target), QFile::decodeName(aside)));
}

Error exchange(const QByteArray& successor, const struct stat& made, const QByteArray& target,
               QByteArray& old) {
    old = successor;
    const int reason = FilePlace::exchange(successor, target);
    if (reason == 0 || isAt(target, made))
        return {};
    if (!FilePlace::isUnknown(reason))
        return notReplaced(reason, target);
    old = FilePlace::asideOf(target);
    if (const int moved = rename(target, old); moved != 0)
        return notReplaced(moved, target);
    if (const int placed = rename(successor, target); placed != 0)
        return rename(old, target) == 0 ? notReplaced(placed, target) : leftAside(placed, target, old);
    return {};
}

} // namespace

Error DirectoryExchange::run(const QByteArray& successor, const QByteArray& target, QByteArray& old) {
    struct stat made = {};
    if (::lstat(successor.constData(), &made) != 0)
        return notReplaced(errno, target);
    const Error error = exchange(successor, made, target, old);
    // What has that name otherwise may be the old one.
    if (error.hasError() && isAt(successor, made))
        FilePlace::removeTree(successor);
    return error;
}

QByteArray DirectoryExchange::show(const QByteArray& old, const QByteArray& target) {
    const QByteArray aside = FilePlace::asideOf(target);
    return rename(old, aside) == 0 ? aside : old;
}

} // namespace orx
