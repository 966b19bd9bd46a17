#pragma once

#include "PackedIndex.h"

namespace orx::vonk {

constexpr quint32 skippableMagic = 0x184D2A56;
//! Magic number, size and kind of a skippable frame.
constexpr qint64 frameLead = 16;
//! What all versions have at their beginning: the lead and the version.
constexpr qint64 headerLead = 20;

constexpr char kHeaderKind[] = "VONKHEAD";
constexpr char kManifestKind[] = "VONKMANI";
constexpr char kTableKind[] = "VONKTABL";
constexpr char kFooterKind[] = "VONKFOOT";

//! Whether a skippable frame of \a kind and \a size bytes, all of it, begins at \a bytes.
bool beginsFrame(std::span<const char> bytes, const char* kind, qint64 size);
Error damagedIndex(const QString& what);
Error unreadableIndex(const QString& what);
Result<QJsonObject> parseManifest(QByteArrayView text);

Result<PackedIndex> readIndexV1(const PackedFile& file);
Result<PackedIndex> readIndexV2(const PackedFile& file);

} // namespace orx::vonk
