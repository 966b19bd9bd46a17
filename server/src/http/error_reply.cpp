#include "http/error_reply.h"

namespace halvane::server {

Response errorReply(const std::exception_ptr& failure, Log& log, const std::string& requestId) {
    try {
        std::rethrow_exception(failure);
    } catch (const ApiError& error) {
        if (error.code() != ErrorCode::Internal || error.status() != 500)
            return server::failure(error);
        log.error("fault", "request " + requestId + ": " + error.what());
    } catch (const std::exception& error) {
        log.error("fault", "request " + requestId + ": " + error.what());
    }
    return server::failure(
        {ErrorCode::Internal,
         "The server failed; its log has the details under the request id " + requestId + "."});
}

} // namespace halvane::server
