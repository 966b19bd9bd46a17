// Any JSON as the manifest of a packed acquisition: it is refused with an error, or is the same after its own
// JSON; so is the run summary in it.
#include "FuzzCheck.h"

#include <PackedPaths.h>
#include <RunSummary.h>
#include <VonkMetadata.h>

#include <QJsonDocument>

using namespace orx;
using namespace orx::vonk;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void checkSummary(const QJsonObject& json) {
    const auto summary = RunSummary::fromJson(json);
    if (summary.hasError()) {
        FUZZ_CHECK(summary.error().is(ErrorCode::ParseError) && !summary.errorMessage().isEmpty());
        return;
    }
    FUZZ_CHECK(summary->spectrumCount() >= 0);
    FUZZ_CHECK(summary->trace.points.size() <= IonCurrentTrace::MAX_POINTS);
    const auto again = RunSummary::fromJson(summary->toJson());
    FUZZ_CHECK(!again.hasError() && *again == *summary);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray text(reinterpret_cast<const char*>(data), qsizetype(size));
    const auto metadata = VonkMetadata::fromJson(QJsonDocument::fromJson(text).object());
    if (metadata.hasError()) {
        FUZZ_CHECK(metadata.error().is(ErrorCode::ParseError));
        FUZZ_CHECK(!metadata.errorMessage().isEmpty());
        return 0;
    }
    FUZZ_CHECK(!metadata->formatVersion.isNull());
    FUZZ_CHECK(metadata->totalSize() >= 0);
    if (metadata->runSummary)
        checkSummary(*metadata->runSummary);
    const auto again = VonkMetadata::fromJson(metadata->toJson());
    FUZZ_CHECK(!again.hasError());
    FUZZ_CHECK(again->toJson() == metadata->toJson());
    FUZZ_CHECK(QJsonDocument::fromJson(metadata->toText()).object() == metadata->toJson());
    if (!checkEntryPaths(metadata->entries).hasError()) {
        for (const VonkEntry& entry : metadata->entries) {
            FUZZ_CHECK(entry.path.startsWith(contentPrefix()));
            FUZZ_CHECK(!entry.path.split(QLatin1Char('/')).contains(QStringLiteral("..")));
            FUZZ_CHECK(!entry.path.contains(QLatin1Char('\\')) && !entry.path.contains(QChar(0)));
        }
    }
    return 0;
}
