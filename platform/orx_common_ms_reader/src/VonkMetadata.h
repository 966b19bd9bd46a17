#pragma once

#include "orx_common_ms_reader_export.h"

#include "PackedTime.h"

#include <Result.h>

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QVersionNumber>

#include <optional>

namespace orx::vonk {

//! The format version that is written: 2.0.
ORX_COMMON_MS_READER_EXPORT QVersionNumber vonkVersion();

//! One file or directory of a packed acquisition.
struct ORX_COMMON_MS_READER_EXPORT VonkEntry {
    enum class Type { File, Directory };

    //! Within the archive: "content/run1.d/fid".
    QString path;
    Type type = Type::File;
    //! Bytes; 0 for a directory.
    qint64 size = 0;
    PackedTime modified;
    //! 64 lower-case hexadecimal digits; empty for a directory.
    QByteArray sha256;

    bool isFile() const { return type == Type::File; }
    friend bool operator==(const VonkEntry&, const VonkEntry&) = default;
};

//! What is known about a packed acquisition without reading its data. docs/packed-acquisition.md says what
//! each member means.
struct ORX_COMMON_MS_READER_EXPORT VonkMetadata {
    QVersionNumber formatVersion;
    //! Of the file or directory that was packed.
    QString name;
    QString sourceKind;
    QList<VonkEntry> entries;
    std::optional<QJsonObject> runSummary;
    //! Why there is no summary, for people; empty when there is one or nobody asked for one.
    QString runSummaryAbsent;

    //! Bytes of all files.
    qint64 totalSize() const;
    //! The manifest of the current format, which is also what the server stores as the trace.
    QJsonObject toJson() const;
    //! The same as text, with the format version first.
    QByteArray toText() const;
    //! ErrorCode::ParseError, naming the member, when one is missing, of another type or beyond its limits.
    //! The paths are looked at by checkEntryPaths() and the order by nobody: a reader needs none.
    static Result<VonkMetadata> fromJson(const QJsonObject& json);

    friend bool operator==(const VonkMetadata&, const VonkMetadata&) = default;
};

} // namespace orx::vonk
