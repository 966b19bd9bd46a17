#include "core/errors.h"

#include <cerrno>
#include <system_error>

namespace halvane::server {

int defaultStatus(ErrorCode code) {
    switch (code) {
    case ErrorCode::BadRequest:
        return 400;
    case ErrorCode::NotAuthenticated:
        return 401;
    case ErrorCode::NotFound:
        return 404;
    case ErrorCode::VersionConflict:
        return 409;
    case ErrorCode::NoPrivilege:
        return 403;
    case ErrorCode::InvalidName:
    case ErrorCode::ChecksumMismatch:
        return 422;
    case ErrorCode::UploadIncomplete:
        return 409;
    case ErrorCode::UploadGone:
        return 410;
    case ErrorCode::StorageFull:
        return 507;
    case ErrorCode::TooManyRequests:
        return 429;
    case ErrorCode::Internal:
        return 500;
    case ErrorCode::IdempotencyMismatch:
        return 422;
    case ErrorCode::RangeNotSatisfiable:
        return 416;
    }
    return 500;
}

ApiError systemError(const std::string& action, int errorNumber) {
    if (errorNumber == ENOSPC || errorNumber == EDQUOT || errorNumber == EFBIG)
        return {ErrorCode::StorageFull, "The server has no room left: it could not " + action + "."};
    return {ErrorCode::Internal,
            "The server could not " + action + ": " + std::generic_category().message(errorNumber) + "."};
}

} // namespace halvane::server
