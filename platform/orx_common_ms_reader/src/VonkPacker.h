#pragma once

#include "orx_common_ms_reader_export.h"

#include "PackInput.h"
#include "VonkMetadata.h"
#include "WorkWatch.h"

#include <Result.h>

#include <memory>

namespace orx::vonk {

class DiskRoom;

class ORX_COMMON_MS_READER_EXPORT VonkPacker {
public:
    //! Packs \a input into the new file \a target, which appears complete and durable or not at all, and
    //! returns what it says about itself. Blocks; several threads of its own work meanwhile. Thread: any.
    //!
    //! Room for the target is looked at beforehand: \a room, or else what is free and held by nobody of this
    //! process. A packing that failed gives \a room back.
    //!
    //! ErrorCode::FileChanged when something of the input changed meanwhile; AlreadyExists, StorageFull,
    //! FileNotWritable for the target; NotFound, FileNotReadable, InvalidArgument for what cannot be packed.
    static Result<VonkMetadata> pack(const PackInput& input, const QString& target,
                                     const WorkWatch& watch = {},
                                     const std::shared_ptr<DiskRoom>& room = nullptr);

    //! The most bytes that the file can have; asks the disk about everything that is to be packed. Errors: as
    //! pack(), as far as they are seen without reading.
    static Result<qint64> mostBytes(const PackInput& input, const QString& target);
};

} // namespace orx::vonk
