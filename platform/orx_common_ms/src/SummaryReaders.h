#pragma once

#include "orx_common_ms_export.h"

#include <Result.h>
#include <RunSummary.h>

#include <stop_token>

namespace orx {

class ByteStream;
class ReadOnlyFile;

// One for each kind of source. Each reads to the end, in a constant amount of memory, and fails with the
// reason why there is no summary, or with ErrorCode::Canceled.

//! Plain or indexed mzML. \a companion: the binary file of imaging data, whose arrays lie there; else null.
ORX_COMMON_MS_EXPORT Result<RunSummary> summariseMzMl(ByteStream& document, const ReadOnlyFile* companion,
                                                      const std::stop_token& stop);
ORX_COMMON_MS_EXPORT Result<RunSummary> summariseMzXml(ByteStream& document, const std::stop_token& stop);
ORX_COMMON_MS_EXPORT Result<RunSummary> summariseMgf(ByteStream& text, const std::stop_token& stop);
//! \a catalogue: the path of the catalogue itself.
ORX_COMMON_MS_EXPORT Result<RunSummary> summariseFrames(const QString& catalogue,
                                                        const std::stop_token& stop);

} // namespace orx
