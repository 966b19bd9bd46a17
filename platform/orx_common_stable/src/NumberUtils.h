#pragma once

#include "Result.h"

namespace orx {

//! Text-to-number conversion.
class ORX_COMMON_STABLE_EXPORT NumberUtils {
public:
    //! The whole of \a text as a base 10 int; else ErrorCode::InvalidArgument with "%1 is not an integer
    //! number".
    static Result<int> toInt(const QString& text);
};

} // namespace orx
