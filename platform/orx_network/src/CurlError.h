#pragma once

#include <Error.h>

#include <curl/curl.h>

namespace orx {

struct NetworkRequest;

//! "host:port" of the request, for messages.
QString peerName(const NetworkRequest& request);

//! What the failure \a code of \a easy means, named for people. \a detail: libcurl's own text; it holds no
//! header values.
Error errorOfCurl(CURLcode code, CURL* easy, const NetworkRequest& request, const QString& detail);

//! Nothing moved for the request's silenceTimeout.
Error silenceError(const NetworkRequest& request);

//! An error of ErrorDomain::Network that says InvalidRequest.
Error invalidRequest(const QString& message);

//! The headers of the reply have no end.
Error headersTooLarge(const NetworkRequest& request);

//! The reply is larger than the request's maxReplySize.
Error replyTooLarge(const NetworkRequest& request);

} // namespace orx
