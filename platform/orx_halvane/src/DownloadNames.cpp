#include "DownloadNames.h"

#include "ContentHash.h"

#include <QCoreApplication>
#include <QFile>

#include <algorithm>

namespace orx {
namespace {

bool isControl(QChar c) {
    return c.unicode() < 0x20 || (c.unicode() >= 0x7f && c.unicode() <= 0x9f);
}

Error refused(const char* text, const QString& name) {
    return Error(ErrorCode::InvalidArgument,
                 QCoreApplication::translate("orx::DownloadNames", text).arg(name));
}

//! At most \a maximum bytes of \a name, cut between characters.
QByteArray beginning(const QString& name, qsizetype maximum) {
    QByteArray bytes = QFile::encodeName(name).left(maximum + 1);
    while (bytes.size() > maximum ||
           (!bytes.isEmpty() && QFile::encodeName(QFile::decodeName(bytes)) != bytes))
        bytes.chop(1);
    return bytes;
}

QString sibling(const QString& name, const char* kind, int fileId, int version) {
    const QByteArray suffix =
        QByteArray(".halvane-") + kind + '-' + QByteArray::number(fileId) + '-' + QByteArray::number(version);
    const QByteArray whole = "." + QFile::encodeName(name) + suffix;
    if (whole.size() <= DownloadNames::maxBytes)
        return QFile::decodeName(whole);
    const QByteArray end = "~" + ChunkHash::of(QFile::encodeName(name)) + suffix;
    return QFile::decodeName("." + beginning(name, DownloadNames::maxBytes - 1 - end.size()) + end);
}

} // namespace

Error DownloadNames::check(const QString& name) {
    if (name.isEmpty())
        return Error(ErrorCode::InvalidArgument,
                     QCoreApplication::translate("orx::DownloadNames",
                                                 "A file cannot be saved under an empty name. Give another "
                                                 "name for it."));
    if (name == u"." || name == u".." || name.contains(u'/'))
        return refused("\"%1\" is not the name of a file here but a path. Give another name for it.", name);
    if (name.contains(QChar(u'\0')))
        return refused("A file name cannot hold the character NUL: \"%1\". Give another name for it.",
                       QString(name).replace(QChar(u'\0'), QStringLiteral("\\0")));
    if (QFile::encodeName(name).size() > maxBytes)
        return refused("The name \"%1\" is too long for a file here. Give another name for it.", name);
    return Error();
}

QString DownloadNames::printable(const QString& name) {
    QString text;
    for (const QChar c : name)
        text += isControl(c) ? QStringLiteral("\\x%1").arg(int(c.unicode()), 2, 16, QChar(u'0')) : QString(c);
    return text;
}

Error DownloadNames::checkListed(const QString& name) {
    if (std::any_of(name.begin(), name.end(), isControl))
        return refused("The name \"%1\" holds control characters, which are dangerous in a file name. Rename "
                       "it on the server.",
                       printable(name));
    if (QFile::decodeName(QFile::encodeName(name)) != name)
        return refused("The name \"%1\" holds characters that a file name here cannot hold. Rename it on the "
                       "server.",
                       name);
    ORX_RETURN_ON_ERROR(check(name));
    if (name.endsWith(u' ') || name.endsWith(u'.'))
        return refused("The name \"%1\" ends with a space or a dot, which some file systems drop: it could "
                       "meet another file. Rename it on the server.",
                       name);
    return Error();
}

QString DownloadNames::shortened(const QString& base, const QString& end) {
    const qsizetype room = qMax<qsizetype>(0, maxBytes - QFile::encodeName(end).size());
    if (QFile::encodeName(base).size() <= room)
        return base + end;
    return QFile::decodeName(beginning(base, room)) + end;
}

QString DownloadNames::marked(const QString& name, const QString& mark) {
    const qsizetype dot = name.lastIndexOf(u'.');
    const qsizetype split = dot > 0 ? dot : name.size();
    return shortened(name.left(split), mark + name.mid(split));
}

QString DownloadNames::partialName(const QString& name, int fileId, int version) {
    return sibling(name, "part", fileId, version);
}

QString DownloadNames::packedName(const QString& name, int fileId, int version) {
    return sibling(name, "packed", fileId, version);
}

QString DownloadNames::unpackedName(const QString& name, int fileId, int version) {
    return sibling(name, "unpacked", fileId, version);
}

} // namespace orx
