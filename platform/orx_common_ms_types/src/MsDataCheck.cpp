#include "MsDataCheck.h"

#include <array>

namespace orx {

namespace {

struct KindName {
    MsDataKind kind;
    const char* id;
    bool isDirectory;
};

constexpr std::array kKinds{
    KindName{MsDataKind::MzMl, "mzml", false},
    KindName{MsDataKind::ImzMl, "imzml", false},
    KindName{MsDataKind::MzXml, "mzxml", false},
    KindName{MsDataKind::Mgf, "mgf", false},
    KindName{MsDataKind::FrameCatalogue, "frame-catalogue", true},
    KindName{MsDataKind::ScanPeakDirectory, "scan-peak-directory", true},
    KindName{MsDataKind::FunctionDirectory, "function-directory", true},
    KindName{MsDataKind::FidDirectory, "fid-directory", true},
    KindName{MsDataKind::MsdDirectory, "msd-directory", true},
    KindName{MsDataKind::WiffFile, "wiff", false},
    KindName{MsDataKind::TaggedBinaryFile, "tagged-binary", false},
};

} // namespace

QString msDataKindId(MsDataKind kind) {
    for (const KindName& known : kKinds) {
        if (known.kind == kind)
            return QString::fromLatin1(known.id);
    }
    return QString();
}

MsDataKind msDataKindFromId(const QString& id) {
    for (const KindName& known : kKinds) {
        if (id == QLatin1String(known.id))
            return known.kind;
    }
    return MsDataKind::None;
}

bool isDirectoryKind(MsDataKind kind) {
    for (const KindName& known : kKinds) {
        if (known.kind == kind)
            return known.isDirectory;
    }
    return false;
}

} // namespace orx
