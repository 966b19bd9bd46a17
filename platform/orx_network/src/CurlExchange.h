#pragma once

#include "NetworkRequest.h"
#include "Transport.h"

#include <curl/curl.h>

#include <array>

namespace orx {

class ExtraTrust;

//! One request with its libcurl handle: the options that it sets, the callbacks that libcurl makes, and the
//! reply that comes of them. Knows nothing of the multi handle and never removes itself from it: a callback
//! only notes that the transfer shall stop (stopError, abandoned).
class CurlExchange {
public:
    using Clock = std::chrono::steady_clock;

    CurlExchange(NetworkRequest networkRequest, Transport::ReplyHandler replyHandler);
    ~CurlExchange();
    Q_DISABLE_COPY_MOVE(CurlExchange)

    //! Gives \a handle, which is not owned, the options of the request; \a trust outlives the transfer. The
    //! error says what is wrong with the request.
    Error prepare(CURL* handle, ExtraTrust& trust);
    //! Takes over what libcurl says at the end; \a code counts only without a stopError. The handle is not
    //! used after that.
    void complete(CURLcode code);
    //! Calls the handler, once, with the reply; lets go of the request first.
    void deliver();

    //! When the transfer fails for silence; nothing while the sink makes the server wait.
    std::optional<Clock::time_point> silentAt() const;

    CURL* easy = nullptr;
    //! The caller has lost interest: neither sink nor handler may be called any more.
    bool abandoned = false;
    //! The sink said Pause.
    bool paused = false;
    bool resumeWanted = false;
    //! Why the transfer stops although libcurl goes on.
    Error stopError;

    const NetworkRequest& request() const { return m_request; }
    void touch() { m_lastActivity = Clock::now(); }

private:
    Error checkRequest() const;
    void setOptions();
    void setMethod();
    void setTrust(ExtraTrust& trust);
    Error setHeaders();
    template <typename Value>
    void set(CURLoption option, Value value);

    size_t onHeader(const char* line, size_t size);
    size_t onBody(const char* data, size_t size);
    size_t offerToSink(const char* data, size_t size);
    size_t keep(const char* data, size_t size);
    BodySink::Verdict beginSink();
    bool goesToSink() const;

    static size_t headerCallback(char* data, size_t size, size_t count, void* self);
    static size_t writeCallback(char* data, size_t size, size_t count, void* self);
    static size_t readCallback(char* buffer, size_t size, size_t count, void* self);
    static int seekCallback(void* self, curl_off_t offset, int origin);
    static int progressCallback(void* self, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent);

    NetworkRequest m_request;
    Transport::ReplyHandler m_handler;
    NetworkReply m_reply;
    curl_slist* m_headerList = nullptr;
    CURLcode m_setupCode = CURLE_OK;
    qint64 m_headerSize = 0;
    qint64 m_bodyOffset = 0;
    qint64 m_sent = 0;
    qint64 m_received = 0;
    bool m_sinkBegun = false;
    Clock::time_point m_lastActivity;
    std::array<char, CURL_ERROR_SIZE> m_detail{};
};

} // namespace orx
