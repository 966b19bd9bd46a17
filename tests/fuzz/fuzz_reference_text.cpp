// Any text as a reference: it is refused with an error, or it is the one spelling of what was read.
#include "FuzzCheck.h"

#include <HalvaneResourceReference.h>

using namespace orx;

namespace {

QString spelled(const HalvaneReferenceText& reference) {
    if (reference.itemType == HalvaneResourceReference::ItemType::Folder)
        return QStringLiteral("folder:%1").arg(reference.id);
    const QString latest = QStringLiteral("file:%1").arg(reference.id);
    return reference.version == 0 ? latest : latest + QStringLiteral("@%1").arg(reference.version);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), qsizetype(size));
    const auto reference = HalvaneReferenceText::parse(text);
    if (reference.hasError()) {
        FUZZ_CHECK(reference.error().is(ErrorCode::InvalidArgument));
        FUZZ_CHECK(reference.errorMessage().contains(QStringLiteral("References are written")));
        return 0;
    }
    FUZZ_CHECK(HalvaneReferenceText::looksLikeReference(text));
    FUZZ_CHECK(reference->id >= 1);
    FUZZ_CHECK(reference->version >= 0);
    FUZZ_CHECK(spelled(*reference) == text);
    return 0;
}
