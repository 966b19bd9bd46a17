// Any bytes as mzXML: there is a summary that its JSON form gives back, or a reason why there is none.
#include "SummaryFuzz.h"

using namespace orx;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArrayView bytes(data, qsizetype(size));
    MemoryStream stream(bytes);
    const auto whole = summariseMzXml(stream, {});
    fuzz::checkOutcome(whole);
    fuzz::CutStream pieces(bytes);
    fuzz::checkSame(whole, summariseMzXml(pieces, {}));
    return 0;
}
