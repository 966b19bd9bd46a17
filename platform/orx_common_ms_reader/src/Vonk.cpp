#include "Vonk.h"

#include "ChunkReading.h"
#include "PackedText.h"
#include "PayloadCheck.h"
#include "StagedFile.h"
#include "StagedTree.h"

#include <ContentHash.h>

#include <algorithm>
#include <optional>

namespace orx::vonk {

namespace {

const VonkMetadata kNoMetadata;
constexpr qsizetype hashedAtATime = 1024 * 1024;

struct Opened {
    PackedFile file;
    PackedIndex index;
};

Error unpackInto(StagedTree& tree, const Opened& opened, const WorkWatch& watch) {
    const QList<VonkEntry>& entries = opened.index.metadata.entries;
    const auto use = [&](ChunkSlot& slot) {
        if (slot.piece.kind == ChunkCursor::Kind::End)
            return Error();
        const VonkEntry& entry = entries[slot.piece.entry];
        if (slot.piece.kind == ChunkCursor::Kind::Head) {
            ORX_RETURN_ON_ERROR(tree.begin(entry));
            return entry.isFile() && entry.size == 0 ? tree.endFile(entry) : Error();
        }
        ORX_RETURN_ON_ERROR(tree.write(slot.content.bytes()));
        return slot.piece.isLastOfFile ? tree.endFile(entry) : Error();
    };
    ORX_RETURN_ON_ERROR(ChunkReading(opened.file, opened.index, watch).run(use));
    return tree.commit(entries);
}

Error upgradeInto(StagedFile& target, const Opened& opened, const WorkWatch& watch) {
    const QByteArray header = packedHeader();
    ORX_RETURN_ON_ERROR(target.write({header.constData(), size_t(header.size())}));
    std::vector<ChunkRow> rows;
    qint64 payloadEnd = header.size();
    const auto use = [&](ChunkSlot& slot) {
        rows.push_back(slot.row);
        payloadEnd += qint64(slot.frame.size());
        return target.write(slot.frame.bytes());
    };
    ORX_RETURN_ON_ERROR(ChunkReading(opened.file, opened.index, watch).run(use));
    VonkMetadata metadata = opened.index.metadata;
    metadata.formatVersion = vonkVersion();
    const auto tail = packedTail(metadata, rows, payloadEnd);
    ORX_RETURN_ON_ERROR(tail.error());
    ORX_RETURN_ON_ERROR(target.write({tail->constData(), size_t(tail->size())}));
    return target.commit();
}

} // namespace

struct Vonk::Private {
    QString path;
    std::optional<Opened> opened;
};

Vonk::Vonk(const QString& path) : d(std::make_unique<Private>()) {
    d->path = path;
}

Vonk::~Vonk() = default;
Vonk::Vonk(Vonk&&) noexcept = default;
Vonk& Vonk::operator=(Vonk&&) noexcept = default;

Error Vonk::open(OpenMode) {
    d->opened.reset();
    auto file = PackedFile::open(d->path);
    ORX_RETURN_ON_ERROR(file.error());
    auto index = readIndex(*file);
    if (index.hasError())
        return ORX_ECATCH(withPath(index.error()));
    d->opened = Opened{std::move(*file), std::move(*index)};
    return {};
}

bool Vonk::isOpen() const {
    return d->opened.has_value();
}

const VonkMetadata& Vonk::metadata() const {
    return d->opened ? d->opened->index.metadata : kNoMetadata;
}

Result<VonkLook> Vonk::look(const VonkEnds& ends) {
    const PackedFile file = PackedFile::ofEnds(ends.size, ends.head, ends.tail);
    auto index = readIndex(file);
    if (const auto missing = file.missing())
        return VonkLook{std::nullopt, *missing};
    ORX_RETURN_ON_ERROR(index.error());
    ORX_RETURN_ON_ERROR(checkIndex(*index));
    return VonkLook{std::move(index->metadata), -1};
}

Error Vonk::validate(Check check, const WorkWatch& watch) const {
    if (!d->opened)
        return Error(ErrorCode::InvalidArgument, translated("\"%1\" is not open.").arg(d->path));
    Error error = checkIndex(d->opened->index);
    if (!error.hasError() && check == Check::Full)
        error = checkPayload(d->opened->file, d->opened->index, watch);
    return ORX_ECATCH(withPath(error));
}

Result<QByteArray> Vonk::sha256(const WorkWatch& watch) const {
    ORX_RETURN_ON_ERROR(validate());
    const PackedFile& file = d->opened->file;
    ContentHash hash;
    QByteArray piece(hashedAtATime, Qt::Uninitialized);
    for (qint64 done = 0; done < file.size();) {
        ORX_RETURN_ON_ERROR(watch.check());
        const auto size = std::min<qint64>(piece.size(), file.size() - done);
        ORX_RETURN_ON_ERROR(file.read(done, {piece.data(), size_t(size)}));
        hash.add(piece.constData(), size);
        done += size;
        watch.report(done, file.size());
    }
    return hash.hexDigest();
}

Error Vonk::unpack(const QString& target, const WorkWatch& watch) const {
    ORX_RETURN_ON_ERROR(validate());
    auto tree = StagedTree::create(target, d->opened->index.metadata.entries);
    ORX_RETURN_ON_ERROR(tree.error());
    return ORX_ECATCH(withPath(unpackInto(*tree, *d->opened, watch)));
}

Error Vonk::upgrade(const QString& target, const WorkWatch& watch) const {
    ORX_RETURN_ON_ERROR(validate());
    const PackedIndex& index = d->opened->index;
    // Manifest and table may take more room than they did; the payload takes the same.
    const qint64 rest = 2 * (d->opened->file.size() - index.payloadEnd) + 16 * qint64(index.chunks.size());
    auto staged = StagedFile::create(target, index.payloadEnd + rest + 1024 * 1024);
    ORX_RETURN_ON_ERROR(staged.error());
    return ORX_ECATCH(withPath(upgradeInto(*staged, *d->opened, watch)));
}

//! The checks tell what is wrong with the file without naming it.
Error Vonk::withPath(const Error& error) const {
    const bool isOfContent = error.is(ErrorCode::ParseError) || error.is(ErrorCode::ChecksumMismatch) ||
                             error.is(ErrorCode::InvalidArgument);
    if (!isOfContent)
        return error;
    return Error(
        error.errorCode(),
        translated("\"%1\" cannot be used as a packed acquisition: %2").arg(d->path, error.errorMessage()));
}

} // namespace orx::vonk
