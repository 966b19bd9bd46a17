// Any bytes as mzML, with and without a companion: there is a summary that its JSON form gives back, or a
// reason why there is none.
#include "SummaryFuzz.h"

#include <sys/mman.h>
#include <unistd.h>

using namespace orx;

namespace {

const ReadOnlyFile& companion() {
    static const auto file = [] {
        const int descriptor = memfd_create("companion", MFD_CLOEXEC);
        QByteArray content;
        for (int i = 0; i < 4096; ++i)
            content.append(char(i * i));
        FUZZ_CHECK(write(descriptor, content.constData(), size_t(content.size())) == content.size());
        return ReadOnlyFile::open(QStringLiteral("/proc/self/fd/%1").arg(descriptor));
    }();
    FUZZ_CHECK(!file.hasError());
    return **file;
}

Result<RunSummary> read(ByteStream&& stream, const ReadOnlyFile* file) {
    return summariseMzMl(stream, file, {});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArrayView bytes(data, qsizetype(size));
    const auto whole = read(MemoryStream(bytes), nullptr);
    fuzz::checkOutcome(whole);
    fuzz::checkSame(whole, read(fuzz::CutStream(bytes), nullptr));
    fuzz::checkOutcome(read(MemoryStream(bytes), &companion()));
    return 0;
}
