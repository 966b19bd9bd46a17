#include "LocalTree.h"

#include "LocalStamp.h"

#include <FileTypes.h>
#include <MsDataFileUtils.h>

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QHash>
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

bool isNamedPacked(const QString& path) {
    return FileTypes::fileMatchesAnyType(path, {FileTypes::VONK});
}

Kind kindOf(const QFileInfo& info) {
    const QString path = info.filePath();
    if (info.isFile() && isNamedPacked(path))
        return Kind::Packed;
    if (!isNamedPacked(path) && orx::MsDataFileUtils::isValidMsData(path))
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

void addRemarks(LocalTree& tree, const std::stop_token& stop) {
    QHash<QString, QString> pathsByTarget;
    for (const LocalEntry& entry : std::as_const(tree.entries)) {
        if (stop.stop_requested())
            return;
        if (entry.kind == Kind::Directory && isNamedPacked(entry.path) &&
            orx::MsDataFileUtils::isValidMsData(entry.path))
            tree.remarks.append(
                QStringLiteral("\"%1\" is raw data, but named like a packed acquisition: it goes up as a "
                               "folder. Rename it to have it packed.")
                    .arg(entry.path));
        if (entry.kind == Kind::File || entry.kind == Kind::Directory) {
            if (const QString remark = remarkOnDoubtfulData(entry.path); !remark.isEmpty())
                tree.remarks.append(remark);
        }
        if (!entry.isUpload())
            continue;
        const QString target = QFileInfo(entry.path).path() + u'/' + entry.serverName();
        if (const QString other = pathsByTarget.value(target); !other.isEmpty())
            tree.remarks.append(
                QStringLiteral("\"%1\" and \"%2\" go up under one name, \"%3\". Put them into different "
                               "folders to keep them apart.")
                    .arg(other, entry.path, entry.serverName()));
        pathsByTarget.insert(target, entry.path);
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

QString remarkOnDoubtfulData(const QString& path) {
    const orx::MsDataCheck check = orx::MsDataFileUtils::checkMsData(path);
    if (check.kind == orx::MsDataKind::None || check.isValid())
        return {};
    return QStringLiteral("\"%1\" looks like raw data (%2), but goes up as it is and not packed. %3")
        .arg(path, orx::msDataKindId(check.kind), check.reason);
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

QString LocalTree::sourceOf(const QString& path) {
    return QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

LocalTree LocalTree::scan(const QString& path, const std::stop_token& stop) {
    const QFileInfo info(sourceOf(path));
    LocalTree tree{info.filePath(), {entryOf(info, refusalOfSource(info), stop)}, {}};
    if (tree.root().kind == Kind::Directory)
        addBelow(tree.entries, stop);
    addRemarks(tree, stop);
    return tree;
}

QList<LocalTree> LocalTree::scan(const QStringList& paths, const std::stop_token& stop) {
    QList<LocalTree> trees;
    for (const QString& path : paths)
        trees.append(scan(path, stop));
    return trees;
}

void LocalTree::takeStamps(const std::stop_token& stop) {
    for (LocalEntry& entry : entries) {
        if (stop.stop_requested())
            return;
        if (!entry.isUpload())
            continue;
        const LocalStamp::Time now = LocalStamp::Time::clock::now();
        const LocalStamp stamp = LocalStamp::of(entry.path, entry.kind == Kind::RawData);
        entry.stamp = stamp.isReliable(now) ? stamp.text : QByteArray();
    }
}

} // namespace halvane::host
