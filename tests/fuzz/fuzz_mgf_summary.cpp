// Any bytes as peak lists: there is a summary that its JSON form gives back, or a reason why there is none.
#include "SummaryFuzz.h"

using namespace orx;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArrayView bytes(data, qsizetype(size));
    MemoryStream stream(bytes);
    const auto whole = summariseMgf(stream, {});
    fuzz::checkOutcome(whole);
    fuzz::CutStream pieces(bytes);
    fuzz::checkSame(whole, summariseMgf(pieces, {}));
    return 0;
}
