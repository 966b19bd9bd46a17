#pragma once

#include "orx_common_ms_export.h"

#include <Result.h>
#include <RunSummary.h>

#include <QString>

#include <stop_token>

namespace orx {

//! Reads the acquisition at \a path once, in a constant amount of memory (below 10 MiB whatever its size),
//! and sums it up. Nothing is written, not even beside a catalogue. Blocks on the disk: meant for a worker.
//! Thread: any.
//!
//! Fails with ErrorCode::Canceled soon after \a stop was requested. Every other error is the reason why there
//! is no summary, and no more than that: the acquisition may still be packed.
[[nodiscard]] ORX_COMMON_MS_EXPORT Result<RunSummary> summarise(const QString& path,
                                                                std::stop_token stop = {});

} // namespace orx
