#pragma once

#include "orx_tasks_export.h"

namespace orx {

//! Of a task that brings something into a directory and can make that a mirror of its source, when the
//! directory is nobody's own.
class ORX_TASKS_EXPORT MirroringInterface {
public:
    virtual ~MirroringInterface();
    //! Before the run: after success the directory holds what the source holds and nothing else. What is
    //! there already and has the right content stays, other files are replaced by new ones and never written
    //! to; a file where there should be a directory, or the other way round, fails with
    //! ErrorCode::AlreadyExists. Nothing is recorded of where the files are now.
    virtual void setMirroring() = 0;

protected:
    MirroringInterface() = default;
    MirroringInterface(const MirroringInterface&) = default;
    MirroringInterface& operator=(const MirroringInterface&) = default;
};

} // namespace orx
