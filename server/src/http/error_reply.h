// Failures as replies.
#pragma once

#include "core/logging.h"
#include "http/message.h"

#include <exception>

namespace halvane::server {

// The reply to what a handler threw. A fault of the server is logged with its details, and the client is told
// the request id only: the details may name paths of the server.
Response errorReply(const std::exception_ptr& failure, Log& log, const std::string& requestId);

} // namespace halvane::server
