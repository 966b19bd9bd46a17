#pragma once

#include <Result.h>

#include <QString>

#include <optional>
#include <source_location>

namespace orx {

//! The id of the file of that name in the target folder, -1 when there is none; nothing, and a warning in the
//! log as one of \a caller, when \a lookup failed.
std::optional<int> existingFileId(const Result<int>& lookup, const QString& fileName,
                                  const std::source_location& caller = std::source_location::current());

} // namespace orx
