#include "LocalTree.h"

#include <FileTypes.h>
#include <MsDataFileUtils.h>

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QStringDecoder>

#include <memory>

#include <dirent.h>
#include <errno.h>

namespace halvane::host {

using orx::FileTypes;
using orx::UploadFileInputValidation;
using orx::UploadRefusal;
using Kind = LocalEntry::Kind;

namespace {

constexpr QDir::Filters everything = QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;

qint64 bytesBelow(const QString& directory, const std::stop_token& stop) {
    qint64 bytes = 0;
    QDirIterator files(directory, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (files.hasNext() && !stop.stop_requested())
        bytes += files.nextFileInfo().size();
    return bytes;
}

Kind kindOf(const QFileInfo& info) {
    const QString path = info.filePath();
    if (info.isFile() && FileTypes::fileMatchesAnyType(path, {FileTypes::VONK}))
        return Kind::Packed;
    const bool mayBeRawData = !FileTypes::fileMatchesAnyType(path, {FileTypes::VONK});
    if (mayBeRawData && orx::MsDataFileUtils::isValidMsData(path))
        return Kind::RawData;
    if (info.isFile())
        return Kind::File;
    return info.isDir() ? Kind::Directory : Kind::None;
}

LocalEntry entryOf(const QFileInfo& info, UploadRefusal refusal, const std::stop_token& stop) {
    LocalEntry entry;
    entry.path = info.filePath();
    entry.refusal = refusal;
    if (refusal != UploadRefusal::None && refusal != UploadRefusal::StillWritten)
        return entry;
    entry.kind = kindOf(info);
    if (entry.kind == Kind::RawData && info.isDir())
        entry.bytes = bytesBelow(entry.path, stop);
    else if (entry.kind != Kind::Directory)
        entry.bytes = info.size();
    return entry;
}

// What QDir passes over: a directory that cannot be listed looks like an empty one, and names that are no
// text are not there at all.
struct Unseen {
    QString problem;
    QStringList unreadableNames;
};

Unseen unseenIn(const QString& directory) {
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(QFile::encodeName(directory).constData()),
                                                      &::closedir);
    Unseen unseen;
    errno = listing ? 0 : errno;
    while (const dirent* const entry = listing ? ::readdir(listing.get()) : nullptr) {
        QStringDecoder decoder(QStringDecoder::Utf8);
        const QString name = decoder.decode(QByteArrayView(entry->d_name));
        if (decoder.hasError())
            unseen.unreadableNames.append(name);
        errno = 0;
    }
    if (errno != 0)
        unseen.problem =
            QStringLiteral("The directory \"%1\" cannot be read: %2.").arg(directory, qt_error_string(errno));
    return unseen;
}

void addBelow(QList<LocalEntry>& entries, const std::stop_token& stop) {
    const QString directory = entries.last().path;
    const Unseen unseen = unseenIn(directory);
    entries.last().problem = unseen.problem;
    for (const QString& name : unseen.unreadableNames) {
        LocalEntry entry;
        entry.path = directory + u'/' + name;
        entry.refusal = UploadRefusal::UnreadableName;
        entries.append(entry);
    }
    const QFileInfoList infos = QDir(directory).entryInfoList(everything, QDir::Name);
    for (const QFileInfo& info : infos) {
        if (stop.stop_requested())
            return;
        const UploadRefusal refusal = UploadFileInputValidation::refusal(info);
        if (refusal == UploadRefusal::UnreadableName)
            continue; // among the others already
        entries.append(entryOf(info, refusal, stop));
        if (entries.last().kind == Kind::Directory)
            addBelow(entries, stop);
    }
}

// The rules for names are for what nobody named.
UploadRefusal refusalOfSource(const QFileInfo& info) {
    switch (const UploadRefusal refusal = UploadFileInputValidation::refusal(info)) {
    case UploadRefusal::Hidden:
    case UploadRefusal::DirectoryLink:
    case UploadRefusal::Extension:
    case UploadRefusal::Name:
    case UploadRefusal::Companion:
        return UploadRefusal::None;
    default:
        return refusal;
    }
}

} // namespace

QString namedPath(const QString& path) {
    if (!QFileInfo(path).isDir())
        return path;
    QString named = path;
    while (named.size() > 1 && (named.endsWith(u'/') || named.endsWith(QStringLiteral("/."))))
        named.chop(1);
    const QString name = QFileInfo(named).fileName();
    const bool isNamed = name != QStringLiteral(".") && name != QStringLiteral("..");
    return isNamed ? named : QFileInfo(named).canonicalFilePath();
}

QString LocalEntry::serverName() const {
    const QString name = QFileInfo(path).fileName();
    return kind == Kind::RawData ? FileTypes::addMissingExtension(name, FileTypes::VONK) : name;
}

QString LocalEntry::kindName() const {
    switch (kind) {
    case Kind::File:
        return QStringLiteral("file");
    case Kind::Packed:
        return QStringLiteral("packed acquisition");
    case Kind::RawData:
        return QStringLiteral("raw data");
    case Kind::Directory:
        return QStringLiteral("folder");
    case Kind::None:
        break;
    }
    return QStringLiteral("nothing");
}

LocalTree LocalTree::scan(const QString& path, const std::stop_token& stop) {
    const QFileInfo info(QDir::cleanPath(QFileInfo(path).absoluteFilePath()));
    LocalTree tree{info.filePath(), {entryOf(info, refusalOfSource(info), stop)}};
    if (tree.root().kind == Kind::Directory)
        addBelow(tree.entries, stop);
    return tree;
}

QList<LocalTree> LocalTree::scan(const QStringList& paths, const std::stop_token& stop) {
    QList<LocalTree> trees;
    for (const QString& path : paths)
        trees.append(scan(path, stop));
    return trees;
}

} // namespace halvane::host
