#pragma once

#include <Result.h>

#include <QString>

#include <optional>

namespace orx {

//! The id of the file of that name in the target folder, -1 when there is none; nothing, and a warning in the
//! log that names the source file and the function \a caller, when \a lookup failed.
std::optional<int> existingFileId(const Result<int>& lookup, const QString& fileName, const char* callerFile,
                                  const char* caller);

} // namespace orx
