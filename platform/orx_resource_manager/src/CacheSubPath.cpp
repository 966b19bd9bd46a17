#include "CacheSubPath.h"

#include <ContentHash.h>

#include <QCoreApplication>
#include <QFile>

#include <climits>

namespace orx {

namespace {

QString translated(const char* text) {
    return QCoreApplication::translate("orx::ResourceCache", text);
}

Error refused(const QString& text, const char* reason) {
    return Error(ErrorCode::InvalidArgument, translated("\"%1\" names no place in the cache: %2.")
                                                 .arg(QString(text).replace(QChar(u'\0'), u"\\0"_qs))
                                                 .arg(translated(reason)));
}

const char* reasonAgainst(const QString& component, const QByteArray& encoded) {
    if (component.isEmpty())
        return QT_TRANSLATE_NOOP("orx::ResourceCache", "it has an empty component");
    if (component == u"." || component == u"..")
        return QT_TRANSLATE_NOOP("orx::ResourceCache", "it has a component \".\" or \"..\"");
    if (encoded.size() > NAME_MAX)
        return QT_TRANSLATE_NOOP("orx::ResourceCache", "a component is longer than 255 bytes");
    // A name that cannot be encoded would be altered silently.
    if (QFile::decodeName(encoded) != component)
        return QT_TRANSLATE_NOOP("orx::ResourceCache", "the file system cannot hold a component");
    return nullptr;
}

} // namespace

Result<CacheSubPath> CacheSubPath::parse(const QString& text, qsizetype rootBytes) {
    if (text.isEmpty())
        return refused(text, QT_TRANSLATE_NOOP("orx::ResourceCache", "it is empty"));
    if (text.startsWith(u'/'))
        return refused(text, QT_TRANSLATE_NOOP("orx::ResourceCache", "it is absolute"));
    if (text.contains(QChar(u'\0')))
        return refused(text, QT_TRANSLATE_NOOP("orx::ResourceCache", "it has a NUL"));
    CacheSubPath subPath;
    subPath.m_text = text;
    qsizetype bytes = rootBytes;
    for (const QString& component : text.split(u'/')) {
        const QByteArray encoded = QFile::encodeName(component);
        if (const char* reason = reasonAgainst(component, encoded))
            return refused(text, reason);
        bytes += 1 + encoded.size();
        subPath.m_components << encoded;
    }
    if (bytes >= PATH_MAX)
        return refused(text, QT_TRANSLATE_NOOP("orx::ResourceCache", "the whole path is too long"));
    return subPath;
}

QByteArray CacheSubPath::key() const {
    const QByteArray text = m_text.toUtf8();
    ContentHash hash;
    hash.add(text.constData(), text.size());
    return hash.hexDigest();
}

} // namespace orx
