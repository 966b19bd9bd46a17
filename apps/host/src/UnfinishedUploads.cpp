#include "UnfinishedUploads.h"

#include <AtomicFile.h>
#include <HalvaneConnection.h>
#include <HalvanePaths.h>

#include <QCryptographicHash>
#include <QDir>
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

const QString unfinishedKey = QStringLiteral("unfinished");

QString directory() {
    return orx::HalvanePaths::configDir() + QStringLiteral("/uploads");
}

} // namespace

UnfinishedUploads::UnfinishedUploads(const TreeUploadRequest& request) {
    const auto& connection = orx::HalvaneConnection::instance();
    QStringList parts{connection.serverKey(), connection.userName(), request.target};
    for (const QString& path : request.paths)
        parts.append(QDir::cleanPath(QFileInfo(path).absoluteFilePath()));
    const QByteArray key = parts.join(QChar(0)).toUtf8();
    m_path = directory() + u'/' +
             QString::fromLatin1(QCryptographicHash::hash(key, QCryptographicHash::Sha256).toHex()) +
             QStringLiteral(".json");
}

std::optional<QSet<QString>> UnfinishedUploads::lastPaths() const {
    const auto text = AtomicFile::read(m_path);
    if (text.hasError() && text.error().is(ErrorCode::NotFound))
        return QSet<QString>();
    if (text.hasError())
        return std::nullopt;
    const QJsonValue paths = QJsonDocument::fromJson(text.value()).object().value(unfinishedKey);
    if (!paths.isArray())
        return std::nullopt;
    QSet<QString> found;
    for (const QJsonValue& path : paths.toArray())
        found.insert(path.toString());
    return found;
}

Error UnfinishedUploads::begin() const {
    return write("{}\n");
}

Error UnfinishedUploads::end(const QStringList& unfinished) const {
    if (!unfinished.isEmpty())
        return write(
            QJsonDocument(QJsonObject{{unfinishedKey, QJsonArray::fromStringList(unfinished)}}).toJson());
    if (QFile::remove(m_path) || !QFileInfo::exists(m_path))
        return {};
    return Error(ErrorCode::FileNotWritable, QStringLiteral("\"%1\" could not be removed.").arg(m_path));
}

Error UnfinishedUploads::write(const QByteArray& text) const {
    ORX_RETURN_ON_ERROR(orx::HalvanePaths::ensurePrivateDir(orx::HalvanePaths::configDir()));
    ORX_RETURN_ON_ERROR(orx::HalvanePaths::ensurePrivateDir(directory()));
    return AtomicFile::write(m_path, text, AtomicFile::Access::OwnerOnly);
}

} // namespace halvane::host
