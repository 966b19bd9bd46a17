#include "VonkPacker.h"

#include "ChunkPipeline.h"
#include "PackSource.h"
#include "PackedFrames.h"
#include "PackedLimits.h"
#include "PackedText.h"
#include "SharedLimits.h"
#include "StagedFile.h"
#include "TarStream.h"

#include <ContentHash.h>

#include <QFile>
#include <QFileInfo>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

namespace orx::vonk {

namespace {

//! The most bytes that the packed file can have, so that it is known beforehand whether there is room.
qint64 largestPacked(const QList<VonkEntry>& entries) {
    qint64 bytes = 4096;
    for (const VonkEntry& entry : entries) {
        const qint64 chunks = 2 + entry.size / chunkSize;
        bytes += entry.size + chunks * (largestFrame(0) + 256) + 2 * entry.path.size() + 4096;
    }
    return bytes;
}

//! Makes the summary while the data is packed, or after it when enough others are being made. Gone before it
//! was taken, it stops that and waits.
class SummaryThread {
public:
    explicit SummaryThread(PackInput::Summarise summarise) : m_summarise(std::move(summarise)) {
        m_isWanted = bool(m_summarise);
        startIfAllowed();
    }

    //! Waits for it, and stops it when the work is cancelled meanwhile.
    Result<PackInput::Summary> take(const WorkWatch& watch) {
        for (;;) {
            startIfAllowed();
            std::unique_lock lock(m_mutex);
            const bool isMade = m_ended.wait_for(lock, std::chrono::milliseconds(20),
                                                 [this] { return !m_isWanted && !m_isRunning; });
            if (isMade)
                return std::move(m_summary);
            ORX_RETURN_ON_ERROR(watch.check());
        }
    }

private:
    void startIfAllowed() {
        LimitShare share(summaries());
        if (!m_isWanted || !share.isTaken())
            return;
        m_isWanted = false;
        m_isRunning = true;
        try {
            m_thread =
                std::jthread([this, share = std::move(share)](const std::stop_token& stop) { make(stop); });
        } catch (const std::system_error&) {
            m_isRunning = false;
            m_summary.absent = translated("The system allowed no thread to make it.");
        }
    }

    void make(const std::stop_token& stop) {
        PackInput::Summary summary = m_summarise(stop);
        const std::lock_guard lock(m_mutex);
        m_summary = std::move(summary);
        m_isRunning = false;
        m_ended.notify_all();
    }

    const PackInput::Summarise m_summarise;
    //! Of the packing's thread.
    bool m_isWanted = false;
    std::mutex m_mutex;
    std::condition_variable m_ended;
    PackInput::Summary m_summary;
    bool m_isRunning = false;
    std::jthread m_thread;
};

class Packing {
public:
    Packing(const PackInput& input, PackSource source, StagedFile& target, const WorkWatch& watch)
        : m_input(input)
        , m_source(std::move(source))
        , m_target(target)
        , m_watch(watch)
        , m_cursor(m_source.entries()) {
        for (const VonkEntry& entry : m_source.entries()) {
            m_total += entry.size;
            m_digests.push_back(entry.isFile() ? m_hash.hexDigest() : QByteArray());
        }
    }

    Error writePayload() {
        const QByteArray header = packedHeader();
        ORX_RETURN_ON_ERROR(write({header.constData(), size_t(header.size())}));
        ChunkPipeline pipeline;
        pipeline.order = ChunkPipeline::Order::BesideWork;
        pipeline.produce = [this](ChunkSlot& slot) { return produce(slot); };
        pipeline.makeWorker = [] {
            return [compressor = std::make_shared<FrameCompressor>()](ChunkSlot& slot) {
                ORX_RETURN_ON_ERROR(compressor->compress(slot.content.bytes(), slot.frame));
                slot.row = {quint32(slot.frame.size()), quint32(slot.content.size()),
                            digest64(slot.frame.bytes())};
                return Error();
            };
        };
        pipeline.inOrder = [this](ChunkSlot& slot) { return hash(slot); };
        pipeline.consume = [this](ChunkSlot& slot) { return use(slot); };
        ORX_RETURN_ON_ERROR(pipeline.run());
        return m_source.checkUnchanged(m_input);
    }

    Result<VonkMetadata> writeTail(PackInput::Summary summary) {
        VonkMetadata metadata;
        metadata.formatVersion = vonkVersion();
        metadata.name = QFileInfo(QFile::decodeName(encodedPath(m_input.path))).fileName();
        metadata.sourceKind = m_input.sourceKind;
        metadata.entries = m_source.entries();
        for (qsizetype i = 0; i < metadata.entries.size(); ++i)
            metadata.entries[i].sha256 = m_digests[size_t(i)];
        metadata.runSummary = std::move(summary.json);
        metadata.runSummaryAbsent = metadata.runSummary ? QString() : summary.absent;
        const auto tail = packedTail(metadata, m_rows, m_written);
        ORX_RETURN_ON_ERROR(tail.error());
        ORX_RETURN_ON_ERROR(m_target.write({tail->constData(), size_t(tail->size())}));
        return metadata;
    }

private:
    Result<bool> produce(ChunkSlot& slot) {
        ORX_RETURN_ON_ERROR(m_watch.check());
        if (m_cursor.atEnd())
            return false;
        slot.piece = m_cursor.take(m_cursor.largestNext());
        slot.content.resize(size_t(slot.piece.size));
        if (slot.piece.kind == ChunkCursor::Kind::Data) {
            ORX_RETURN_ON_ERROR(readData(slot));
        } else {
            const QByteArray bytes = m_cursor.tarBytes(slot.piece);
            slot.content.assign({bytes.constData(), size_t(bytes.size())});
        }
        return true;
    }

    Error readData(ChunkSlot& slot) {
        const qsizetype entry = slot.piece.entry;
        if (slot.piece.offset == 0) {
            auto file = m_source.open(entry);
            ORX_RETURN_ON_ERROR(file.error());
            m_file = std::move(*file);
        }
        ORX_RETURN_ON_ERROR(
            m_source.read(entry, m_file, slot.piece.offset, {slot.content.data(), slot.content.size()}));
        return slot.piece.isLastOfFile ? m_source.checkUnchanged(entry, m_file) : Error();
    }

    //! On the thread that looks at the chunks in order; nobody else touches the digests meanwhile.
    Error hash(ChunkSlot& slot) {
        if (slot.piece.kind != ChunkCursor::Kind::Data)
            return {};
        if (slot.piece.offset == 0)
            m_hash.reset();
        m_hash.add(slot.content.bytes().data(), slot.piece.size);
        if (slot.piece.isLastOfFile)
            m_digests[size_t(slot.piece.entry)] = m_hash.hexDigest();
        return {};
    }

    Error use(ChunkSlot& slot) {
        m_rows.push_back(slot.row);
        ORX_RETURN_ON_ERROR(write(slot.frame.bytes()));
        if (slot.piece.kind == ChunkCursor::Kind::Data)
            m_watch.report(m_done += slot.piece.size, m_total);
        return {};
    }

    Error write(std::span<const char> bytes) {
        m_written += qint64(bytes.size());
        return m_target.write(bytes);
    }

    const PackInput& m_input;
    const PackSource m_source;
    StagedFile& m_target;
    const WorkWatch& m_watch;
    ChunkCursor m_cursor;
    Descriptor m_file;
    ContentHash m_hash;
    //! Of the entries; those of empty files from the beginning.
    std::vector<QByteArray> m_digests;
    std::vector<ChunkRow> m_rows;
    qint64 m_written = 0;
    qint64 m_done = 0;
    qint64 m_total = 0;
};

//! A packed file that grew within what it packs would change it.
Error checkTargetOutside(const PackInput& input, const QString& target) {
    const QString source = QFileInfo(input.path).canonicalFilePath();
    const QString directory = QFileInfo(QFileInfo(target).absolutePath()).canonicalFilePath();
    if (!QFileInfo(source).isDir() || !(directory + QLatin1Char('/')).startsWith(source + QLatin1Char('/')))
        return {};
    return Error(ErrorCode::InvalidArgument,
                 translated("\"%1\" cannot be packed into a file within itself; choose another place.")
                     .arg(input.path));
}

Error checkChunkCount(const QList<VonkEntry>& entries, const QString& path) {
    qint64 chunks = 1;
    for (const VonkEntry& entry : entries)
        chunks += 1 + (entry.size + chunkSize - 1) / chunkSize;
    if (chunks <= mostChunks)
        return {};
    return Error(ErrorCode::InvalidArgument,
                 translated("\"%1\" is too large for a packed acquisition.").arg(path));
}

Result<PackSource> listed(const PackInput& input, const QString& target) {
    if (!input.refusal.isEmpty())
        return Error(ErrorCode::InvalidArgument,
                     translated("\"%1\" cannot be packed: %2").arg(input.path, input.refusal));
    ORX_RETURN_ON_ERROR(checkTargetOutside(input, target));
    auto source = PackSource::list(input);
    ORX_RETURN_ON_ERROR(source.error());
    ORX_RETURN_ON_ERROR(checkChunkCount(source->entries(), input.path));
    return source;
}

Result<VonkMetadata> packInto(const PackInput& input, const QString& target, const WorkWatch& watch,
                              const std::shared_ptr<DiskRoom>& room) {
    auto source = listed(input, target);
    ORX_RETURN_ON_ERROR(source.error());
    auto staged = StagedFile::create(target, largestPacked(source->entries()), room);
    ORX_RETURN_ON_ERROR(staged.error());
    SummaryThread summary(input.summarise);
    Packing packing(input, std::move(*source), *staged, watch);
    ORX_RETURN_ON_ERROR(packing.writePayload());
    auto summed = summary.take(watch);
    ORX_RETURN_ON_ERROR(summed.error());
    auto metadata = packing.writeTail(std::move(*summed));
    ORX_RETURN_ON_ERROR(metadata.error());
    ORX_RETURN_ON_ERROR(watch.check());
    ORX_RETURN_ON_ERROR(staged->commit());
    return metadata;
}

} // namespace

Result<VonkMetadata> VonkPacker::pack(const PackInput& input, const QString& target, const WorkWatch& watch,
                                      const std::shared_ptr<DiskRoom>& room) {
    auto metadata = packInto(input, target, watch, room);
    if (room && metadata.hasError())
        room->release();
    return metadata;
}

Result<qint64> VonkPacker::mostBytes(const PackInput& input, const QString& target) {
    const auto source = listed(input, target);
    ORX_RETURN_ON_ERROR(source.error());
    return largestPacked(source->entries());
}

} // namespace orx::vonk
