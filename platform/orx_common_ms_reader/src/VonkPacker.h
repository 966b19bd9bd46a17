#pragma once

#include "orx_common_ms_reader_export.h"

#include "PackInput.h"
#include "VonkMetadata.h"
#include "WorkWatch.h"

#include <Result.h>

namespace orx::vonk {

class ORX_COMMON_MS_READER_EXPORT VonkPacker {
public:
    //! Packs \a input into the new file \a target, which appears complete and durable or not at all, and
    //! returns what it says about itself. Blocks; several threads of its own work meanwhile. Thread: any.
    //!
    //! ErrorCode::FileChanged when something of the input changed meanwhile; AlreadyExists, StorageFull,
    //! FileNotWritable for the target; NotFound, FileNotReadable, InvalidArgument for what cannot be packed.
    static Result<VonkMetadata> pack(const PackInput& input, const QString& target,
                                     const WorkWatch& watch = {});
};

} // namespace orx::vonk
