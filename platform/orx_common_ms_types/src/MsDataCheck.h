#pragma once

#include "orx_common_ms_types_export.h"

#include <QString>
#include <QStringList>

namespace orx {

//! The kinds of raw acquisitions that are recognised; docs/raw-data.md says by what.
enum class MsDataKind {
    None,              //!< not recognised
    MzMl,              //!< XML, plain or gzipped
    ImzMl,             //!< XML with its binary companion "NAME.ibd"
    MzXml,             //!< XML, plain or gzipped
    Mgf,               //!< peak lists as text, plain or gzipped
    FrameCatalogue,    //!< directory with "analysis.tdf" and "analysis.tdf_bin"
    ScanPeakDirectory, //!< directory with "AcqData/MSScan.bin" and a peak or profile file
    FunctionDirectory, //!< directory with "_FUNCnnn.DAT" and "_HEADER.TXT"
    FidDirectory,      //!< directory with "fid" and "acqu" or "acqus"
    MsdDirectory,      //!< directory with "MSD*.MS"
    WiffFile,          //!< "NAME.wiff" with "NAME.wiff.scan"
    TaggedBinaryFile   //!< first bytes 01 A1, followed by UTF-16 text
};

//! The stable name of a kind as written into files and JSON ("mzml", "frame-catalogue" ...); empty for None.
ORX_COMMON_MS_TYPES_EXPORT QString msDataKindId(MsDataKind kind);
//! The kind of that name; None for any other text.
ORX_COMMON_MS_TYPES_EXPORT MsDataKind msDataKindFromId(const QString& id);
//! Whether acquisitions of this kind are directories.
ORX_COMMON_MS_TYPES_EXPORT bool isDirectoryKind(MsDataKind kind);

//! What looking at a path found.
struct MsDataCheck {
    //! What the path is; also set when it is recognised but not valid.
    MsDataKind kind = MsDataKind::None;
    //! Empty when valid; else one sentence for people that says why not, without the path.
    QString reason;
    //! The files beside the path that belong to the acquisition, as absolute paths. Empty for directories.
    QStringList companions;

    bool isValid() const { return kind != MsDataKind::None && reason.isEmpty(); }
    friend bool operator==(const MsDataCheck&, const MsDataCheck&) = default;
};

} // namespace orx
