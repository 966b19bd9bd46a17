// Any JSON as the manifest of a packed acquisition: it is refused with an error, or is the same after its own
// JSON.
#include "FuzzCheck.h"

#include <PackedPaths.h>
#include <VonkMetadata.h>

#include <QJsonDocument>

using namespace orx;
using namespace orx::vonk;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

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
