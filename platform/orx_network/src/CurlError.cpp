#include "CurlError.h"

#include "NetworkError.h"
#include "NetworkRequest.h"

namespace orx {

namespace {

Error networkError(NetworkErrorCode code, const QString& message) {
    return Error(ErrorDomain::Network, int(code), message);
}

QString secondsText(std::chrono::milliseconds duration) {
    return QString::number(double(duration.count()) / 1000.0);
}

bool isConnected(CURL* easy) {
    curl_off_t connected = 0;
    curl_easy_getinfo(easy, CURLINFO_CONNECT_TIME_T, &connected);
    // A kept connection took no time to connect.
    curl_off_t ready = 0;
    curl_easy_getinfo(easy, CURLINFO_PRETRANSFER_TIME_T, &ready);
    return connected > 0 || ready > 0;
}

Error timeOutError(CURL* easy, const NetworkRequest& request) {
    if (!isConnected(easy)) {
        return networkError(
            NetworkErrorCode::ConnectionFailed,
            QStringLiteral("No connection to %1 within %2 s. Check the server's address, whether the server "
                           "runs, and the network.")
                .arg(peerName(request), secondsText(request.connectTimeout)));
    }
    return networkError(
        NetworkErrorCode::TimedOut,
        QStringLiteral("The server %1 did not complete its reply within %2 s. Try again later.")
            .arg(peerName(request), secondsText(request.totalTimeout)));
}

Error tlsError(const NetworkRequest& request, const QString& detail) {
    return networkError(
        NetworkErrorCode::TlsFailed,
        QStringLiteral("No trusted encrypted connection to %1 (%2). Check that the address is right and "
                       "that the server's certificate is valid and known here.")
            .arg(peerName(request), detail));
}

Error lostError(const NetworkRequest& request, const QString& detail) {
    return networkError(
        NetworkErrorCode::ConnectionLost,
        QStringLiteral("The connection to %1 ended before the reply was complete (%2). Try again.")
            .arg(peerName(request), detail));
}

Error invalidReplyError(const NetworkRequest& request, const QString& detail) {
    return networkError(
        NetworkErrorCode::InvalidReply,
        QStringLiteral("What %1 answered is not a valid HTTP reply (%2). Check that the address is that "
                       "of the server.")
            .arg(peerName(request), detail));
}

//! libcurl says "receive error" of a body whose chunks are malformed too; a failed system call leaves its
//! number behind.
bool isMalformedBody(CURL* easy, const NetworkRequest& request) {
    long systemError = 0;
    curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &systemError);
    return systemError == 0 && request.url.scheme() == QLatin1String("http");
}

} // namespace

QString peerName(const NetworkRequest& request) {
    const int standardPort = request.url.scheme() == QLatin1String("https") ? 443 : 80;
    const QString host = request.url.host();
    const QString shown = host.contains(QLatin1Char(':')) ? QLatin1Char('[') + host + QLatin1Char(']') : host;
    return QStringLiteral("%1:%2").arg(shown).arg(request.url.port(standardPort));
}

Error silenceError(const NetworkRequest& request) {
    return networkError(
        NetworkErrorCode::TimedOut,
        QStringLiteral("Nothing came from %1 for %2 s. Check the network and whether the server still runs.")
            .arg(peerName(request), secondsText(request.silenceTimeout)));
}

Error invalidRequest(const QString& message) {
    return networkError(NetworkErrorCode::InvalidRequest, message);
}

Error headersTooLarge(const NetworkRequest& request) {
    return invalidReplyError(request, QStringLiteral("its headers are too large"));
}

Error replyTooLarge(const NetworkRequest& request) {
    return networkError(
        NetworkErrorCode::InvalidReply,
        QStringLiteral(
            "The reply of %1 is larger than the %2 bytes that are accepted. Check that the address "
            "is that of the server.")
            .arg(peerName(request))
            .arg(request.maxReplySize));
}

Error errorOfCurl(CURLcode code, CURL* easy, const NetworkRequest& request, const QString& detail) {
    switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
        return networkError(
            NetworkErrorCode::ConnectionFailed,
            QStringLiteral("There is no known address for %1 (%2). Check the spelling of the server's "
                           "address and the network.")
                .arg(peerName(request), detail));
    case CURLE_COULDNT_CONNECT:
    case CURLE_INTERFACE_FAILED:
    case CURLE_PROXY:
        return networkError(
            NetworkErrorCode::ConnectionFailed,
            QStringLiteral(
                "Nobody answers at %1 (%2). Check the server's address and whether the server runs.")
                .arg(peerName(request), detail));
    case CURLE_OPERATION_TIMEDOUT:
        return timeOutError(easy, request);
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_USE_SSL_FAILED:
        return tlsError(request, detail);
    case CURLE_RECV_ERROR:
        return isMalformedBody(easy, request) ? invalidReplyError(request, detail)
                                              : lostError(request, detail);
    case CURLE_SEND_ERROR:
    case CURLE_SEND_FAIL_REWIND:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_SSL_SHUTDOWN_FAILED:
        return lostError(request, detail);
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_BAD_CONTENT_ENCODING:
        return invalidReplyError(request, detail);
    case CURLE_URL_MALFORMAT:
        return invalidRequest(
            QStringLiteral("The URL of a request to %1 is malformed (%2). Check the server's address.")
                .arg(peerName(request), detail));
    default:
        return Error(ErrorCode::General, QStringLiteral("The request to %1 could not be carried out (%2).")
                                             .arg(peerName(request), detail));
    }
}

} // namespace orx
