#pragma once

#include <ContentCheck.h>

#include <QJsonObject>
#include <QList>

#include <memory>
#include <optional>

namespace halvane::host {

//! Compares what lies at a local path with what a version on the server holds. Blocks on the disk; thread:
//! one at a time, a worker.
class SameContent {
public:
    //! A file or packed acquisition, with a version as it is.
    static std::unique_ptr<SameContent> ofFile(const QString& path, qint64 size, const QByteArray& sha256);
    //! Raw data, with the manifest of the packed version.
    static std::unique_ptr<SameContent> ofRawData(const QString& path, const QJsonObject& manifest);
    //! A packed acquisition of an older format, with the manifest of the version that was made of it: what
    //! they say of themselves, digests of all files among it, but not the format.
    static std::unique_ptr<SameContent> ofOldPacked(const QString& path, const QJsonObject& manifest);
    //! Whether a file is a packed acquisition that is upgraded when it is sent. Reads what it says of itself.
    static bool isOldPacked(const QString& path);

    //! Reads up to \a bytes more; nothing while there is more to read. Compares names and sizes first.
    std::optional<bool> isSame(qint64 bytes);

private:
    struct Part {
        QString path;
        qint64 size = 0;
        QByteArray sha256;
    };
    //! Reads nothing of the content.
    bool haveSizes();
    void listRawData();
    void compareManifests();

    QString m_path;
    //! Of raw data and old packed acquisitions, until it has been compared.
    std::optional<QJsonObject> m_manifest;
    bool m_isOldPacked = false;
    bool m_isLikely = true;
    QList<Part> m_parts;
    qsizetype m_next = 0;
    std::unique_ptr<orx::ContentCheck> m_check;
};

} // namespace halvane::host
