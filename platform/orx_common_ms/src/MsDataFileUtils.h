#pragma once

#include "orx_common_ms_export.h"

#include <MsDataCheck.h>

#include <QString>

namespace orx {

//! Recognises raw acquisitions by their content: leading bytes, the head of an XML document, inner files and
//! companions; never by an extension alone. What is asked again is answered from memory as long as the file,
//! the directory and everything that was looked at have the same device, inode, size and times. Never blocks
//! on a FIFO or a device, which are refused unopened. Thread: any.
class ORX_COMMON_MS_EXPORT MsDataFileUtils {
public:
    //! Whether \a path holds raw sample data that can be packed; false for an empty or missing path.
    static bool isValidMsData(const QString& path);
    //! The same with the kind, the companions and, when it is not valid, the reason.
    static MsDataCheck checkMsData(const QString& path);
    //! The valid raw data beside the file \a path that has this as a companion ("run.imzML" of "run.ibd",
    //! "run.wiff" of "run.wiff.scan"), as an absolute path; empty when there is none, and for all other names
    //! at once.
    static QString ownerOfCompanion(const QString& path);
    //! Whether the name is one of a companion; looks at nothing.
    static bool mayBeCompanion(const QString& path);
};

} // namespace orx
