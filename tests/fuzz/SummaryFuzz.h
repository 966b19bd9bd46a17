#pragma once

#include "FuzzCheck.h"

#include <ByteStream.h>
#include <RunSummary.h>
#include <SummaryReaders.h>

#include <QJsonDocument>

namespace orx::fuzz {

//! Bytes in memory that come in small pieces of changing sizes.
class CutStream final : public ByteStream {
public:
    explicit CutStream(QByteArrayView bytes) : m_whole(bytes) {}
    Result<qsizetype> read(char* to, qsizetype size) override {
        m_piece = m_piece % 13 + 1;
        return m_whole.read(to, qMin(size, m_piece));
    }

private:
    MemoryStream m_whole;
    qsizetype m_piece = 0;
};

//! What holds of every summary and of every reason why there is none.
inline void checkOutcome(const Result<RunSummary>& outcome) {
    if (outcome.hasError()) {
        FUZZ_CHECK(!outcome.error().isCanceled());
        FUZZ_CHECK(!outcome.errorMessage().isEmpty());
        return;
    }
    FUZZ_CHECK(outcome->trace.points.size() <= IonCurrentTrace::MAX_POINTS);
    FUZZ_CHECK(outcome->trace.points.isEmpty() || outcome->retentionTime);
    const QByteArray text = QJsonDocument(outcome->toJson()).toJson(QJsonDocument::Compact);
    const auto again = RunSummary::fromJson(QJsonDocument::fromJson(text).object());
    FUZZ_CHECK(!again.hasError());
    FUZZ_CHECK(*again == *outcome);
}

//! A summary must not depend on how its source is cut into pieces.
inline void checkSame(const Result<RunSummary>& whole, const Result<RunSummary>& cut) {
    FUZZ_CHECK(whole.hasError() == cut.hasError());
    if (!whole.hasError())
        FUZZ_CHECK(*whole == *cut);
}

} // namespace orx::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
