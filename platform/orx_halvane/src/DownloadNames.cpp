#include "DownloadNames.h"

#include "ContentHash.h"

#include <QCoreApplication>
#include <QFile>

namespace orx {
namespace {

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

QString DownloadNames::partialName(const QString& name, int fileId, int version) {
    const QByteArray suffix =
        ".halvane-part-" + QByteArray::number(fileId) + "-" + QByteArray::number(version);
    const QByteArray whole = "." + QFile::encodeName(name) + suffix;
    if (whole.size() <= maxBytes)
        return QFile::decodeName(whole);
    const QByteArray end = "~" + ChunkHash::of(QFile::encodeName(name)) + suffix;
    return QFile::decodeName("." + beginning(name, maxBytes - 1 - end.size()) + end);
}

} // namespace orx
