#include "PayloadCheck.h"

#include "ChunkReading.h"
#include "HelperThreads.h"
#include "PayloadPart.h"
#include "SharedLimits.h"

#include <algorithm>
#include <atomic>

namespace orx::vonk {

namespace {

//! Enough that taking the next part does not count.
constexpr qint64 partWeight = qint64(4) * 1024 * 1024;

//! Files are checked side by side, each thread reading parts by itself. A file so large that the other
//! threads would have nothing left to do is shared between them chunk by chunk.
class PayloadCheck final : HelpedWork {
public:
    PayloadCheck(const PackedFile& file, const PackedIndex& index, const WorkWatch& watch)
        : m_file(file)
        , m_index(index)
        , m_watch(watch)
        , m_quiet{{}, watch.isCanceled}
        , m_total(index.metadata.totalSize()) {}

    Error run() {
        const qint64 share = m_total / (2 * qint64(workThreadCount()));
        for (PayloadPart& part : payloadParts(m_index, partWeight, std::max(partWeight, share)))
            (part.isLarge ? m_large : m_parts).push_back(part);
        checkSideBySide();
        const bool hasFailed = m_failed < m_parts.size();
        for (const PayloadPart& part : m_large) {
            // Of several errors the first in the file is told.
            if (hasFailed && m_parts[m_failed].firstChunk < part.firstChunk)
                break;
            ORX_RETURN_ON_ERROR(ChunkReading(m_file, m_index, part, m_quiet).run([this](ChunkSlot& slot) {
                m_watch.report(countOf(slot), m_total);
                return Error();
            }));
        }
        return hasFailed ? m_errors[m_failed] : Error();
    }

private:
    void checkSideBySide() {
        m_errors.resize(m_parts.size());
        m_failed = m_parts.size();
        const size_t most = std::min(size_t(workThreadCount()), m_parts.size());
        {
            HelpLine helpers(*this);
            for (size_t helper = 1; helper < most; ++helper)
                helpers.call();
            while (takePart([this](qint64 done) { m_watch.report(done, m_total); })) {
            }
        }
        m_watch.report(m_done, m_total);
    }

    bool help() override { return takePart({}); }

    //! False when there is none. What lies behind a part that failed is left out, what lies before it is not:
    //! the error is that of the first.
    bool takePart(const std::function<void(qint64 done)>& report) {
        const size_t part = m_next++;
        if (part >= m_failed)
            return false;
        m_errors[part] = ChunkReading(m_file, m_index, m_parts[part], m_quiet).runAlone([&](ChunkSlot& slot) {
            const qint64 done = countOf(slot);
            if (report)
                report(done);
            return part < m_failed ? Error() : Error(ErrorCode::Canceled, {});
        });
        if (m_errors[part].hasError())
            noteFailure(part);
        return true;
    }

    void noteFailure(size_t part) {
        size_t first = m_failed;
        while (part < first && !m_failed.compare_exchange_weak(first, part)) {
        }
    }

    qint64 countOf(const ChunkSlot& slot) {
        const qint64 size = slot.piece.kind == ChunkCursor::Kind::Data ? slot.piece.size : 0;
        return m_done.fetch_add(size) + size;
    }

    const PackedFile& m_file;
    const PackedIndex& m_index;
    const WorkWatch& m_watch;
    //! Without the progress, which is that of one part.
    const WorkWatch m_quiet;
    const qint64 m_total;
    std::vector<PayloadPart> m_parts;
    std::vector<PayloadPart> m_large;
    //! Of each part; read when the threads are gone.
    std::vector<Error> m_errors;
    std::atomic<size_t> m_next = 0;
    std::atomic<size_t> m_failed = 0;
    std::atomic<qint64> m_done = 0;
};

} // namespace

Error checkPayload(const PackedFile& file, const PackedIndex& index, const WorkWatch& watch) {
    return PayloadCheck(file, index, watch).run();
}

} // namespace orx::vonk
