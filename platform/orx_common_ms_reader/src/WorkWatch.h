#pragma once

#include "orx_common_ms_reader_export.h"

#include <Error.h>

#include <functional>

namespace orx::vonk {

//! What long work tells while it goes on, and asks. Both may be empty.
struct ORX_COMMON_MS_READER_EXPORT WorkWatch {
    //! Bytes of content. Called on the thread that does the work.
    std::function<void(qint64 done, qint64 total)> progress;
    //! True ends the work with ErrorCode::Canceled. Called often, on any thread.
    std::function<bool()> isCanceled;

    //! Of nothing (\a total is 0) nothing is told.
    void report(qint64 done, qint64 total) const;
    Error check() const;
};

} // namespace orx::vonk
