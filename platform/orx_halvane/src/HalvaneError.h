#pragma once

#include "orx_halvane_export.h"

#include <Error.h>

namespace orx {

//! Error codes of the server's replies (ErrorDomain::Server); docs/protocol.md says when each comes. The
//! values are fixed.
enum class HalvaneServerErrorCode : int {
    BadRequest = 1,
    NotAuthenticated = 2,
    NotFound = 3,
    VersionConflict = 4,
    NoPrivilege = 5,
    InvalidName = 6,
    ChecksumMismatch = 7,
    UploadIncomplete = 8,
    UploadGone = 9,
    StorageFull = 10,
    TooManyRequests = 11,
    Internal = 12,
    IdempotencyMismatch = 13,
    RangeNotSatisfiable = 14
};

//! An error of the server's domain; \a message may be empty.
ORX_HALVANE_EXPORT Error halvaneError(HalvaneServerErrorCode code, const QString& message);

inline bool isHalvaneError(const Error& error, HalvaneServerErrorCode code) {
    return error.is(ErrorDomain::Server, int(code));
}

} // namespace orx
