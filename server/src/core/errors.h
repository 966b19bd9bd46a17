// The errors of the protocol. A handler throws one; the session turns it into the error envelope.
#pragma once

#include <stdexcept>
#include <string>

namespace halvane::server {

// The codes of docs/protocol.md, fixed for ever.
enum class ErrorCode {
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
    RangeNotSatisfiable = 14,
};

// The HTTP status that goes with a code unless the thrower says otherwise.
int defaultStatus(ErrorCode code);

class ApiError : public std::runtime_error {
public:
    ApiError(ErrorCode code, const std::string& message) : ApiError(code, message, defaultStatus(code)) {}
    // retryAfterSeconds above 0 becomes the reply's Retry-After header.
    ApiError(ErrorCode code, const std::string& message, int status, int retryAfterSeconds = 0)
        : std::runtime_error(message), m_code(code), m_status(status), m_retryAfter(retryAfterSeconds) {}

    ErrorCode code() const { return m_code; }
    int status() const { return m_status; }
    int retryAfterSeconds() const { return m_retryAfter; }

private:
    ErrorCode m_code;
    int m_status;
    int m_retryAfter;
};

// An ApiError for a failed system call: StorageFull for a full disk or quota, else Internal with the action
// and the system's text.
ApiError systemError(const std::string& action, int errorNumber);

} // namespace halvane::server
