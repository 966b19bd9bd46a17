// Any bytes as a file that is looked at: it is of a kind or it is not, and the answer has the form that it
// must have. What is valid and unpacks can be summed up or not, with a reason.
#include "SummaryFuzz.h"

#include <MsProbe.h>

#include <sys/mman.h>
#include <unistd.h>

using namespace orx;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int descriptor = memfd_create("probe", MFD_CLOEXEC);
    FUZZ_CHECK(ftruncate(descriptor, 0) == 0);
    FUZZ_CHECK(pwrite(descriptor, data, size, 0) == ssize_t(size));
    const QString path = QStringLiteral("/proc/self/fd/%1").arg(descriptor);
    const auto stamp = FileStamp::of(path.toLatin1());
    FUZZ_CHECK(stamp.has_value());
    const MsDataCheck check = probeMsData(path.toLatin1(), *stamp).check;
    FUZZ_CHECK(check.isValid() || !check.reason.isEmpty());
    FUZZ_CHECK(!isDirectoryKind(check.kind));
    if (check.kind != MsDataKind::Mgf && check.kind != MsDataKind::MzXml && check.kind != MsDataKind::MzMl)
        return 0;
    const auto stream = openUnpacked(path);
    FUZZ_CHECK(!stream.hasError());
    fuzz::checkOutcome(check.kind == MsDataKind::Mgf     ? summariseMgf(**stream, {})
                       : check.kind == MsDataKind::MzXml ? summariseMzXml(**stream, {})
                                                         : summariseMzMl(**stream, nullptr, {}));
    return 0;
}
