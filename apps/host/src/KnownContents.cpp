#include "KnownContents.h"

#include <AtomicFile.h>
#include <HalvaneConnection.h>
#include <HalvanePaths.h>

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace halvane::host {

using orx::AtomicFile;
using orx::Error;
using orx::ErrorCode;

namespace {

const QString contentsKey = QStringLiteral("contents");

QString directory() {
    return orx::HalvanePaths::configDir() + QStringLiteral("/uploads");
}

} // namespace

KnownContents::KnownContents(const QString& source) : m_source(source) {
    const auto& connection = orx::HalvaneConnection::instance();
    const QByteArray key =
        QStringList{connection.serverKey(), connection.userName(), source}.join(QChar(0)).toUtf8();
    m_path = directory() + u'/' +
             QString::fromLatin1(QCryptographicHash::hash(key, QCryptographicHash::Sha256).toHex()) +
             QStringLiteral(".json");
}

KnownContents::ByPath KnownContents::read() const {
    ByPath found;
    const auto text = AtomicFile::read(m_path);
    if (text.hasError())
        return found;
    const QJsonObject contents = QJsonDocument::fromJson(text.value()).object().value(contentsKey).toObject();
    for (auto content = contents.begin(); content != contents.end(); ++content) {
        const QJsonArray parts = content.value().toArray();
        found.insert(m_source + content.key(), {parts.at(0).toString().toLatin1(), parts.at(1).toString()});
    }
    return found;
}

Error KnownContents::write(const ByPath& contents) const {
    if (contents.isEmpty()) {
        if (QFile::remove(m_path) || !QFileInfo::exists(m_path))
            return {};
        return Error(ErrorCode::FileNotWritable, QStringLiteral("\"%1\" could not be removed.").arg(m_path));
    }
    // Keys begin where the source ends: paths of a tree have most of it in common.
    QJsonObject object;
    for (auto content = contents.begin(); content != contents.end(); ++content)
        object.insert(content.key().mid(m_source.size()),
                      QJsonArray{QString::fromLatin1(content->stamp), content->sha256});
    const QByteArray text = QJsonDocument(QJsonObject{{contentsKey, object}}).toJson(QJsonDocument::Compact);
    ORX_RETURN_ON_ERROR(orx::HalvanePaths::ensurePrivateDir(orx::HalvanePaths::configDir()));
    ORX_RETURN_ON_ERROR(orx::HalvanePaths::ensurePrivateDir(directory()));
    return AtomicFile::write(m_path, text, AtomicFile::Access::OwnerOnly);
}

} // namespace halvane::host
