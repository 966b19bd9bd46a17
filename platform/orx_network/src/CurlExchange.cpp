#include "CurlExchange.h"

#include "CurlError.h"
#include "ExtraTrust.h"

#include <algorithm>
#include <cstring>

namespace orx {

namespace {

//! For bodies that are worth few system calls; small requests do with libcurl's own 16 and 64 KiB.
constexpr long largeBuffer = 512 * 1024;
constexpr qint64 smallBody = 64 * 1024;
//! Of all header lines of one reply, interim ones and trailers included.
constexpr qint64 headerLimit = 256 * 1024;

Error abortedBySink() {
    return Error(ErrorCode::Canceled, QStringLiteral("The download was stopped."));
}

bool isLoopback(const QString& host) {
    return host == QLatin1String("localhost") || host == QLatin1String("::1") ||
           host.startsWith(QLatin1String("127."));
}

bool hasLineBreak(const QByteArray& text) {
    return text.contains('\r') || text.contains('\n') || text.contains('\0');
}

const char* methodName(NetworkRequest::Method method) {
    switch (method) {
    case NetworkRequest::Method::Head:
        return "HEAD";
    case NetworkRequest::Method::Get:
        return "GET";
    case NetworkRequest::Method::Post:
        return "POST";
    case NetworkRequest::Method::Put:
        return "PUT";
    case NetworkRequest::Method::Delete:
        return "DELETE";
    }
    return "GET";
}

//! libcurl's notation of a header line; "Name;" stands for one with an empty value.
QByteArray headerLine(const HttpHeader& header) {
    return header.second.isEmpty() ? header.first + ';' : header.first + ": " + header.second;
}

} // namespace

CurlExchange::CurlExchange(NetworkRequest networkRequest, Transport::ReplyHandler replyHandler)
    : m_request(std::move(networkRequest)), m_handler(std::move(replyHandler)) {}

CurlExchange::~CurlExchange() {
    curl_slist_free_all(m_headerList);
}

Error CurlExchange::prepare(CURL* handle, ExtraTrust& trust) {
    ORX_RETURN_ON_ERROR(checkRequest());
    easy = handle;
    ORX_RETURN_ON_ERROR(setHeaders());
    setOptions();
    setMethod();
    setTrust(trust);
    touch();
    if (m_setupCode != CURLE_OK)
        return invalidRequest(
            QStringLiteral("A request to %1 could not be set up (%2).")
                .arg(peerName(m_request), QString::fromLatin1(curl_easy_strerror(m_setupCode))));
    return Error();
}

Error CurlExchange::checkRequest() const {
    const QUrl& url = m_request.url;
    const bool isHttp = url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https");
    if (!url.isValid() || !isHttp || url.host().isEmpty())
        return invalidRequest(
            QStringLiteral("\"%1\" is not an address of a server. It must look like https://host:port.")
                .arg(url.toDisplayString(QUrl::RemoveUserInfo)));
    return Error();
}

Error CurlExchange::setHeaders() {
    // The name alone removes the header: libcurl would wait for the server's permission before large bodies.
    m_headerList = curl_slist_append(m_headerList, "Expect:");
    for (const HttpHeader& header : m_request.headers) {
        if (header.first.isEmpty() || hasLineBreak(header.first) || hasLineBreak(header.second))
            return invalidRequest(
                QStringLiteral(
                    "The header \"%1\" of a request to %2 holds a character that headers must not have.")
                    .arg(QString::fromLatin1(header.first.toPercentEncoding()), peerName(m_request)));
        m_headerList = curl_slist_append(m_headerList, headerLine(header).constData());
    }
    set(CURLOPT_HTTPHEADER, m_headerList);
    return Error();
}

template <typename Value>
void CurlExchange::set(CURLoption option, Value value) {
    const CURLcode code = curl_easy_setopt(easy, option, value);
    if (m_setupCode == CURLE_OK)
        m_setupCode = code;
}

void CurlExchange::setOptions() {
    set(CURLOPT_PRIVATE, this);
    set(CURLOPT_ERRORBUFFER, m_detail.data());
    set(CURLOPT_URL, m_request.url.toEncoded(QUrl::RemoveFragment | QUrl::RemoveUserInfo).constData());
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_PATH_AS_IS, 1L);
    set(CURLOPT_HTTP_VERSION, long(CURL_HTTP_VERSION_1_1));
    set(CURLOPT_USERAGENT, "orx-network");
    set(CURLOPT_NOSIGNAL, 1L);
    // Without it, ending a request during name resolution waits for the resolver.
    set(CURLOPT_QUICK_EXIT, 1L);
    set(CURLOPT_TCP_NODELAY, 1L);
    set(CURLOPT_TCP_KEEPALIVE, 1L);
    set(CURLOPT_CONNECTTIMEOUT_MS, long(m_request.connectTimeout.count()));
    set(CURLOPT_TIMEOUT_MS, long(m_request.totalTimeout.count()));
    // A proxy named by the environment cannot reach this machine's own loopback interface.
    if (isLoopback(m_request.url.host()))
        set(CURLOPT_NOPROXY, "*");
    // On a kept connection that ends without an answer libcurl sends any request again by itself.
    if (!m_request.isSafe() && !m_request.idempotent)
        set(CURLOPT_FRESH_CONNECT, 1L);
    if (m_request.sink)
        set(CURLOPT_BUFFERSIZE, largeBuffer);
    set(CURLOPT_HEADERFUNCTION, &CurlExchange::headerCallback);
    set(CURLOPT_HEADERDATA, this);
    set(CURLOPT_WRITEFUNCTION, &CurlExchange::writeCallback);
    set(CURLOPT_WRITEDATA, this);
    set(CURLOPT_NOPROGRESS, 0L);
    set(CURLOPT_XFERINFOFUNCTION, &CurlExchange::progressCallback);
    set(CURLOPT_XFERINFODATA, this);
}

void CurlExchange::setMethod() {
    using Method = NetworkRequest::Method;
    const bool hasBody =
        m_request.body || m_request.method == Method::Put || m_request.method == Method::Post;
    if (m_request.method == Method::Head) {
        set(CURLOPT_NOBODY, 1L);
    } else if (hasBody) {
        const qint64 size = m_request.body ? m_request.body->size() : 0;
        set(CURLOPT_UPLOAD, 1L);
        set(CURLOPT_CUSTOMREQUEST, methodName(m_request.method));
        set(CURLOPT_INFILESIZE_LARGE, curl_off_t(size));
        set(CURLOPT_READFUNCTION, &CurlExchange::readCallback);
        set(CURLOPT_READDATA, this);
        // Lets libcurl itself send the body again when a kept connection turns out to be closed.
        set(CURLOPT_SEEKFUNCTION, &CurlExchange::seekCallback);
        set(CURLOPT_SEEKDATA, this);
        if (size > smallBody)
            set(CURLOPT_UPLOAD_BUFFERSIZE, largeBuffer);
    } else if (m_request.method == Method::Delete) {
        set(CURLOPT_CUSTOMREQUEST, methodName(m_request.method));
    }
}

void CurlExchange::setTrust(ExtraTrust& trust) {
    // libcurl shares the parsed certificates between connections only without a directory of them.
    set(CURLOPT_CAPATH, static_cast<char*>(nullptr));
    set(CURLOPT_CA_CACHE_TIMEOUT, 86'400L);
    if (const CURLcode code = trust.applyTo(easy); m_setupCode == CURLE_OK)
        m_setupCode = code;
}

void CurlExchange::complete(CURLcode code) {
    if (code == CURLE_OK && !stopError.hasError() && goesToSink() && !m_sinkBegun && !abandoned) {
        if (beginSink() == BodySink::Verdict::Abort)
            stopError = abortedBySink();
    }
    if (stopError.hasError()) {
        m_reply.error = stopError;
    } else if (code != CURLE_OK) {
        const char* detail = m_detail.front() ? m_detail.data() : curl_easy_strerror(code);
        m_reply.error = errorOfCurl(code, easy, m_request, QString::fromLocal8Bit(detail).trimmed());
    }
    easy = nullptr;
}

void CurlExchange::deliver() {
    const Transport::ReplyHandler handler = std::exchange(m_handler, nullptr);
    const NetworkReply reply = std::exchange(m_reply, {});
    m_request = {};
    if (handler && !abandoned)
        handler(reply);
}

std::optional<CurlExchange::Clock::time_point> CurlExchange::silentAt() const {
    if (paused || m_request.silenceTimeout <= std::chrono::milliseconds::zero())
        return std::nullopt;
    return m_lastActivity + m_request.silenceTimeout;
}

bool CurlExchange::goesToSink() const {
    return m_request.sink && m_reply.status >= 200 && m_reply.status < 300;
}

size_t CurlExchange::onHeader(const char* line, size_t size) {
    touch();
    m_headerSize += qint64(size);
    if (m_headerSize > headerLimit) {
        stopError = headersTooLarge(m_request);
        return 0;
    }
    const QByteArray text = QByteArray(line, qsizetype(size)).trimmed();
    if (text.startsWith("HTTP/")) {
        // Also after an interim reply such as 100, whose headers do not count.
        long status = 0;
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
        m_reply.status = int(status);
        m_reply.headers.clear();
        return size;
    }
    const qsizetype colon = text.indexOf(':');
    if (colon > 0)
        m_reply.headers.append({text.left(colon).trimmed(), text.mid(colon + 1).trimmed()});
    return size;
}

size_t CurlExchange::onBody(const char* data, size_t size) {
    if (abandoned || stopError.hasError())
        return size + 1;
    touch();
    return goesToSink() ? offerToSink(data, size) : keep(data, size);
}

BodySink::Verdict CurlExchange::beginSink() {
    m_sinkBegun = true;
    return m_request.sink->begin(m_reply.status, m_reply.headers);
}

size_t CurlExchange::offerToSink(const char* data, size_t size) {
    BodySink::Verdict verdict = m_sinkBegun ? BodySink::Verdict::Taken : beginSink();
    if (verdict == BodySink::Verdict::Taken && !abandoned)
        verdict = m_request.sink->take(data, qint64(size));
    switch (verdict) {
    case BodySink::Verdict::Taken:
        return size;
    case BodySink::Verdict::Pause:
        paused = true;
        return CURL_WRITEFUNC_PAUSE;
    case BodySink::Verdict::Abort:
        break;
    }
    stopError = abortedBySink();
    return size + 1;
}

size_t CurlExchange::keep(const char* data, size_t size) {
    QByteArray& body = m_reply.body;
    curl_off_t announced = -1;
    if (body.isEmpty())
        curl_easy_getinfo(easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    if (std::max(qint64(announced), qint64(body.size()) + qint64(size)) > m_request.maxReplySize) {
        stopError = replyTooLarge(m_request);
        return size + 1;
    }
    if (announced > 0)
        body.reserve(qsizetype(announced));
    body.append(data, qsizetype(size));
    return size;
}

size_t CurlExchange::headerCallback(char* data, size_t size, size_t count, void* self) {
    return static_cast<CurlExchange*>(self)->onHeader(data, size * count);
}

size_t CurlExchange::writeCallback(char* data, size_t size, size_t count, void* self) {
    return static_cast<CurlExchange*>(self)->onBody(data, size * count);
}

size_t CurlExchange::readCallback(char* buffer, size_t size, size_t count, void* self) {
    auto* exchange = static_cast<CurlExchange*>(self);
    if (exchange->abandoned)
        return CURL_READFUNC_ABORT;
    if (!exchange->m_request.body)
        return 0;
    const QByteArray& body = *exchange->m_request.body;
    const qint64 length = std::min(qint64(size * count), qint64(body.size()) - exchange->m_bodyOffset);
    std::memcpy(buffer, body.constData() + exchange->m_bodyOffset, size_t(length));
    exchange->m_bodyOffset += length;
    return size_t(length);
}

int CurlExchange::seekCallback(void* self, curl_off_t offset, int origin) {
    if (origin != SEEK_SET)
        return CURL_SEEKFUNC_CANTSEEK;
    static_cast<CurlExchange*>(self)->m_bodyOffset = offset;
    return CURL_SEEKFUNC_OK;
}

int CurlExchange::progressCallback(void* self, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent) {
    auto* exchange = static_cast<CurlExchange*>(self);
    if (exchange->abandoned || exchange->stopError.hasError())
        return 1;
    if (received != exchange->m_received || sent != exchange->m_sent)
        exchange->touch();
    exchange->m_received = received;
    if (std::exchange(exchange->m_sent, sent) != sent && exchange->m_request.onBytesSent)
        exchange->m_request.onBytesSent(sent);
    return 0;
}

} // namespace orx
