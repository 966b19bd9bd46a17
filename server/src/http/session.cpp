#include "http/session.h"

#include "core/json_text.h"
#include "core/random.h"
#include "core/times.h"
#include "http/error_reply.h"

#include <boost/asio/async_result.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <atomic>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <utility>

namespace halvane::server {

namespace {

constexpr std::size_t pieceSize = 256 * 1024;
// What is left of a refused body is read up to this size, so that the client gets to see the reply.
constexpr std::uint64_t skippableBytes = 32 * 1024 * 1024;
constexpr std::size_t sendfileSlice = 8 * 1024 * 1024;
constexpr std::uint64_t alwaysCollectable = 64 * 1024;

std::string nextRequestId() {
    static const std::string process = randomHex(6);
    static std::atomic<std::uint64_t> count{0};
    return process + '-' + std::to_string(++count);
}

// A path may hold any byte; a log line is JSON.
std::string loggable(const std::string& path) {
    constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80)
            text += c;
        else
            text.append({'%', digits[byte >> 4], digits[byte & 15]});
    }
    return text;
}

} // namespace

struct Session::Exchange {
    explicit Exchange(Metrics& theMetrics) : metrics(theMetrics) { ++metrics.requestsRunning; }
    ~Exchange() { noLongerRunning(); }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    void noLongerRunning() {
        if (std::exchange(running, false))
            --metrics.requestsRunning;
    }

    Metrics& metrics;
    bool running = true;
    Request request;
    Response response;
    bool keepAlive = true;
    std::uint64_t bodyLeft = 0;
    std::uint64_t bytesReceived = 0;
    std::uint64_t bytesSent = 0;
    bool aborted = false;
    std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now();
};

Session::Session(SessionContext& context, std::shared_ptr<Connection> connection)
    : m_context(context), m_connection(std::move(connection)), m_timer(context.io) {
    ++m_context.metrics.connectionsOpen;
}

Session::~Session() {
    --m_context.metrics.connectionsOpen;
}

asio::awaitable<void> Session::run() {
    const auto self = shared_from_this();
    try {
        allow(m_context.options.headerTimeout);
        if (co_await m_connection->handshake())
            co_await serveRequests();
    } catch (const std::exception& error) {
        m_context.log.error("session", error.what());
    }
    close();
    m_timer.cancel();
}

void Session::close() {
    m_closed = true;
    m_connection->close();
}

void Session::stopWhenIdle() {
    if (m_idle)
        close();
}

asio::awaitable<void> Session::serveRequests() {
    bool goOn = true;
    while (goOn && !m_closed && !m_context.stopping) {
        RequestHead head;
        if (!co_await readHead(head))
            break;
        goOn = co_await serveOne(std::move(head));
    }
}

// False when the connection is to be closed; a malformed head has been answered then.
asio::awaitable<bool> Session::readHead(RequestHead& head) {
    HeaderParser parser(m_context.options.maximumHeaderBytes);
    std::optional<ApiError> refusal;
    m_idle = m_input.empty();
    allow(m_idle ? m_context.options.idleTimeout : m_context.options.headerTimeout);
    while (true) {
        try {
            if (!m_input.empty())
                m_input.erase(0, parser.feed(m_input));
        } catch (const ApiError& error) {
            refusal = error;
        }
        if (refusal || parser.isDone())
            break;
        const std::size_t old = m_input.size();
        m_input.resize(old + 16 * 1024);
        const std::size_t got =
            co_await m_connection->readSome(asio::buffer(m_input.data() + old, m_input.size() - old));
        m_input.resize(old + got);
        if (got == 0)
            co_return false;
        if (m_idle)
            allow(m_context.options.headerTimeout);
        m_idle = false;
    }
    m_idle = false;
    if (!refusal) {
        head = parser.head();
        co_return true;
    }
    Exchange exchange(m_context.metrics);
    exchange.request.id = nextRequestId();
    exchange.response = failure(*refusal);
    exchange.keepAlive = false;
    exchange.bodyLeft = skippableBytes;
    co_await send(exchange);
    m_input.clear();
    m_connection->endWriting();
    co_await skipBody(exchange);
    logRequest(exchange);
    co_return false;
}

asio::awaitable<bool> Session::serveOne(RequestHead head) {
    Exchange exchange(m_context.metrics);
    Request& request = exchange.request;
    request.method = std::move(head.method);
    request.path = head.target.substr(0, head.target.find('?'));
    request.headers = std::move(head.headers);
    request.contentLength = head.contentLength.value_or(0);
    request.id = nextRequestId();
    const auto peer = m_connection->peer().address();
    request.peer = peer.to_string();
    request.peerIsLoopback = peer.is_loopback();
    request.abort = [weak = weak_from_this(), &io = m_context.io] {
        asio::post(io, [weak] {
            if (const auto session = weak.lock())
                session->close();
        });
    };
    exchange.keepAlive = head.keepAlive;
    exchange.bodyLeft = request.contentLength;
    if (head.isChunked) {
        exchange.response = failure({ErrorCode::BadRequest, "The request needs a Content-Length.", 411});
        exchange.keepAlive = false;
        exchange.bodyLeft = skippableBytes;
    } else {
        if (head.expectsContinue && exchange.bodyLeft > 0 && m_input.empty()) {
            constexpr std::string_view text = "HTTP/1.1 100 Continue\r\n\r\n";
            co_await m_connection->write({asio::buffer(text), {}});
        }
        co_await answer(exchange);
    }
    if (exchange.aborted) {
        logRequest(exchange);
        co_return false;
    }
    // Read before the reply when that is cheap: clients that send their whole body first then find the
    // connection in order.
    if (exchange.bodyLeft > 0 && exchange.keepAlive && exchange.bodyLeft <= skippableBytes)
        co_await skipBody(exchange);
    exchange.keepAlive = exchange.keepAlive && exchange.bodyLeft == 0 && !m_context.stopping;
    const bool sent = co_await send(exchange);
    logRequest(exchange);
    if (sent && exchange.bodyLeft > 0) {
        m_connection->endWriting();
        exchange.bodyLeft = std::min(exchange.bodyLeft, skippableBytes);
        co_await skipBody(exchange);
    }
    co_return sent&& exchange.keepAlive;
}

asio::awaitable<void> Session::answer(Exchange& exchange) {
    Match match;
    try {
        match = m_context.router.match(exchange.request.method, exchange.request.path);
        if (exchange.request.contentLength > match.route->maximumBody)
            throw ApiError(ErrorCode::BadRequest,
                           "The request's body is larger than " + std::to_string(match.route->maximumBody) +
                               " bytes.",
                           413);
    } catch (const ApiError& error) {
        exchange.response = failure(error);
        match.route = nullptr;
    }
    if (match.route == nullptr)
        co_return;
    if (match.route->isQuick(match.values) && exchange.request.contentLength <= alwaysCollectable &&
        co_await answerQuickly(exchange, match))
        co_return;
    if (match.route->stream)
        co_await answerStreamed(exchange, match);
    else
        co_await answerCollected(exchange, match);
}

void SessionContext::beginQuickWorkSoon() {
    if (std::exchange(quickWorkWaits, true))
        return;
    asio::post(io, [this] {
        quickWorkWaits = false;
        router.beginQuickWork();
    });
}

// False when the ordinary handler has to answer; nothing of the body is consumed then.
asio::awaitable<bool> Session::answerQuickly(Exchange& exchange, const Match& match) {
    if (!co_await collectBody(exchange)) {
        exchange.aborted = true;
        co_return true;
    }
    allowForever();
    QuickReply reply;
    const auto initiate = [this, &exchange, &match, &reply](auto resume) {
        const auto shared = std::make_shared<decltype(resume)>(std::move(resume));
        const auto answered = [&reply, shared, &io = m_context.io](QuickReply made) {
            asio::post(io, [&reply, shared, made = std::move(made)]() mutable {
                reply = std::move(made);
                (*shared)();
            });
        };
        match.route->quick(exchange.request, match.values, answered);
        m_context.beginQuickWorkSoon();
    };
    co_await asio::async_initiate<const asio::use_awaitable_t<>, void()>(initiate, asio::use_awaitable);
    exchange.request.user = std::move(reply.user);
    if (reply.response) {
        exchange.response = std::move(*reply.response);
        exchange.request.body = {};
        co_return true;
    }
    m_input.insert(0, exchange.request.body);
    exchange.bodyLeft = std::exchange(exchange.bytesReceived, 0);
    exchange.request.body = {};
    co_return false;
}

asio::awaitable<void> Session::answerCollected(Exchange& exchange, const Match& match) {
    const std::uint64_t size = exchange.bodyLeft;
    const bool counted = size > alwaysCollectable;
    if (counted && m_context.collectedBytes + size > m_context.options.maximumCollectedBytes) {
        exchange.response =
            failure({ErrorCode::TooManyRequests, "The server has too many large requests at once.", 429, 1});
        co_return;
    }
    m_context.collectedBytes += counted ? size : 0;
    if (co_await collectBody(exchange)) {
        allowForever();
        const auto initiate = [this, &exchange, &match](auto resume) {
            auto shared = std::make_shared<decltype(resume)>(std::move(resume));
            m_context.workers.post(
                [this, &exchange, &match, shared, id = exchange.request.id, &io = m_context.io] {
                    const Respond respond = [&exchange, shared, &io](Response response) {
                        asio::post(io, [&exchange, shared, response = std::move(response)]() mutable {
                            exchange.response = std::move(response);
                            (*shared)();
                        });
                    };
                    try {
                        match.route->handler(exchange.request, match.values, respond);
                    } catch (...) {
                        respond(errorReply(std::current_exception(), m_context.log, id));
                    }
                });
        };
        co_await asio::async_initiate<const asio::use_awaitable_t<>, void()>(initiate, asio::use_awaitable);
    } else {
        exchange.aborted = true;
    }
    exchange.request.body = {};
    m_context.collectedBytes -= counted ? size : 0;
}

asio::awaitable<bool> Session::collectBody(Exchange& exchange) {
    std::string& body = exchange.request.body;
    const std::size_t buffered = std::min<std::size_t>(m_input.size(), exchange.bodyLeft);
    body.assign(m_input, 0, buffered);
    m_input.erase(0, buffered);
    std::size_t filled = buffered;
    body.resize(exchange.bodyLeft);
    allow(m_context.options.silenceTimeout);
    const auto limit = std::chrono::steady_clock::now() + 2 * m_context.options.silenceTimeout;
    while (filled < body.size()) {
        const std::size_t got =
            co_await m_connection->readSome(asio::buffer(body.data() + filled, body.size() - filled));
        if (got == 0 || std::chrono::steady_clock::now() > limit)
            co_return false;
        filled += got;
        allow(m_context.options.silenceTimeout);
    }
    exchange.bytesReceived = filled;
    exchange.bodyLeft = 0;
    co_return true;
}

// Every piece is read, hashed and written by one worker without a stop as long as the socket has data.
asio::awaitable<void> Session::answerStreamed(Exchange& exchange, const Match& match) {
    std::unique_ptr<BodySink> sink;
    std::exception_ptr failed;
    bool ended = false;
    const int socket = m_connection->directSocket();
    // What is taken counts as read also when the sink refuses it.
    const auto take = [&](Bytes data) {
        exchange.bodyLeft -= data.size();
        exchange.bytesReceived += data.size();
        if (!sink)
            sink = match.route->stream(exchange.request, match.values);
        if (!data.empty())
            sink->write(data);
        if (exchange.bodyLeft == 0) {
            exchange.response = sink->finish();
            sink.reset();
        }
    };
    const auto pump = [&] {
        try {
            const std::string buffered =
                m_input.substr(0, std::min<std::size_t>(m_input.size(), exchange.bodyLeft));
            m_input.erase(0, buffered.size());
            take(bytesOf(buffered));
            thread_local std::vector<std::byte> buffer(pieceSize);
            while (exchange.bodyLeft > 0 && socket >= 0) {
                const std::span<std::byte> room = sink->room();
                const std::span<std::byte> into = room.empty() ? std::span(buffer) : room;
                const ssize_t got = ::recv(
                    socket, into.data(), std::min<std::uint64_t>({into.size(), pieceSize, exchange.bodyLeft}),
                    MSG_DONTWAIT);
                if (got < 0 && (errno == EAGAIN || errno == EINTR))
                    return;
                ended = got <= 0;
                if (ended)
                    return;
                take(into.first(static_cast<std::size_t>(got)));
            }
        } catch (...) {
            failed = std::current_exception();
        }
    };
    while (true) {
        allowForever();
        co_await onWorker(pump);
        if (failed || ended || exchange.bodyLeft == 0)
            break;
        allow(m_context.options.silenceTimeout);
        if (socket >= 0) {
            co_await m_connection->readable();
        } else {
            m_input.resize(pieceSize);
            m_input.resize(co_await m_connection->readSome(asio::buffer(m_input)));
            ended = m_input.empty();
        }
        if (m_closed || ended)
            break;
    }
    sink.reset();
    exchange.aborted = ended || (m_closed && !failed);
    if (failed)
        exchange.response = errorReply(failed, m_context.log, exchange.request.id);
}

asio::awaitable<void> Session::skipBody(Exchange& exchange) {
    const std::size_t buffered = std::min<std::size_t>(m_input.size(), exchange.bodyLeft);
    m_input.erase(0, buffered);
    exchange.bodyLeft -= buffered;
    std::vector<char> buffer(std::min<std::uint64_t>(exchange.bodyLeft, 64 * 1024));
    allow(m_context.options.headerTimeout);
    while (exchange.bodyLeft > 0) {
        const std::size_t want = std::min<std::uint64_t>(buffer.size(), exchange.bodyLeft);
        const std::size_t got = co_await m_connection->readSome(asio::buffer(buffer.data(), want));
        if (got == 0)
            co_return;
        exchange.bodyLeft -= got;
    }
}

std::string Session::headText(const Exchange& exchange) const {
    const Response& response = exchange.response;
    const std::uint64_t length = response.bodyLength ? *response.bodyLength
                                 : response.file     ? response.file->length
                                                     : response.body.size();
    std::string text =
        "HTTP/1.1 " + std::to_string(response.status) + ' ' + reasonPhrase(response.status) + "\r\n";
    for (const auto& [name, value] : response.headers)
        text.append(name).append(": ").append(value).append("\r\n");
    if (response.status != 304)
        text.append("Content-Length: ").append(std::to_string(length)).append("\r\n");
    text.append("X-Request-Id: ").append(exchange.request.id).append("\r\n");
    text.append(exchange.keepAlive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n");
    return text;
}

asio::awaitable<bool> Session::send(Exchange& exchange) {
    const Response& response = exchange.response;
    const std::string head = headText(exchange);
    allow(m_context.options.silenceTimeout +
          std::chrono::milliseconds(response.body.size() / 64)); // at 64 kB/s
    bool sent = co_await m_connection->write({asio::buffer(head), asio::buffer(response.body)});
    exchange.bytesSent = response.body.size();
    if (sent && response.file) {
        sent = m_connection->directSocket() >= 0 ? co_await sendFile(*response.file)
                                                 : co_await copyFile(*response.file);
        exchange.bytesSent = response.file->length;
    }
    exchange.aborted = !sent;
    co_return sent;
}

asio::awaitable<bool> Session::sendFile(const FileSlice& file) {
    auto offset = static_cast<off_t>(file.offset);
    std::uint64_t left = file.length;
    bool failed = false;
    const int socket = m_connection->directSocket();
    const auto pump = [&] {
        std::size_t budget = sendfileSlice;
        while (left > 0 && budget > 0) {
            const ssize_t sent =
                ::sendfile(socket, file.file->get(), &offset, std::min<std::uint64_t>(left, budget));
            if (sent < 0 && (errno == EAGAIN || errno == EINTR))
                return;
            failed = sent <= 0; // 0: the file is shorter than the catalogue says
            if (failed)
                return;
            left -= static_cast<std::uint64_t>(sent);
            budget -= static_cast<std::size_t>(sent);
        }
    };
    while (left > 0 && !failed && !m_closed) {
        co_await onWorker(pump);
        if (left == 0 || failed)
            break;
        allow(m_context.options.silenceTimeout);
        co_await m_connection->writable();
    }
    co_return left == 0;
}

asio::awaitable<bool> Session::copyFile(FileSlice file) {
    std::vector<std::byte> buffer(pieceSize / 4);
    bool failed = false;
    while (file.length > 0) {
        const auto piece = std::span(buffer).first(std::min<std::uint64_t>(buffer.size(), file.length));
        const auto read = [&] {
            const ssize_t got =
                ::pread(file.file->get(), piece.data(), piece.size(), static_cast<off_t>(file.offset));
            failed = got != static_cast<ssize_t>(piece.size());
        };
        co_await onWorker(read);
        allow(m_context.options.silenceTimeout);
        if (failed || !co_await m_connection->write({asio::buffer(piece.data(), piece.size()), {}}))
            co_return false;
        file.offset += piece.size();
        file.length -= piece.size();
    }
    co_return true;
}

asio::awaitable<void> Session::onWorker(std::function<void()> job) {
    const auto initiate = [this, &job](auto resume) {
        auto shared = std::make_shared<decltype(resume)>(std::move(resume));
        m_context.workers.post([&job, shared, &io = m_context.io] {
            job();
            asio::post(io, [shared] { (*shared)(); });
        });
    };
    co_await asio::async_initiate<const asio::use_awaitable_t<>, void()>(initiate, asio::use_awaitable);
}

void Session::allow(std::chrono::milliseconds time) {
    m_deadline = std::chrono::steady_clock::now() + time;
    armDeadline();
}

void Session::allowForever() {
    m_deadline = std::chrono::steady_clock::time_point::max();
}

// One timer that looks at the deadline when it fires: moving the deadline costs nothing.
void Session::armDeadline() {
    if (m_timerArmed && m_timer.expiry() <= m_deadline)
        return;
    m_timerArmed = true;
    m_timer.expires_at(m_deadline);
    m_timer.async_wait([weak = weak_from_this()](boost::system::error_code error) {
        const auto session = weak.lock();
        if (!session || error)
            return;
        session->m_timerArmed = false;
        if (session->m_closed || session->m_deadline == std::chrono::steady_clock::time_point::max())
            return;
        if (session->m_deadline <= std::chrono::steady_clock::now())
            session->close();
        else
            session->armDeadline();
    });
}

void Session::logRequest(Exchange& exchange) const {
    using namespace std::chrono;
    const auto microseconds =
        duration_cast<std::chrono::microseconds>(steady_clock::now() - exchange.begin).count();
    Metrics& metrics = m_context.metrics;
    ++metrics.requestsByStatusClass[static_cast<std::size_t>(exchange.response.status / 100)];
    metrics.requestMicroseconds += static_cast<std::uint64_t>(microseconds);
    metrics.bytesReceived += exchange.bytesReceived;
    metrics.bytesSent += exchange.bytesSent;
    std::string line;
    {
        JsonObject object(line);
        object.field("time", isoText(currentTime())).field("level", "info").field("event", "request");
        object.field("id", exchange.request.id)
            .field("peer", exchange.request.peer)
            .field("user", exchange.request.user);
        object.field("method", exchange.request.method).field("path", loggable(exchange.request.path));
        object.field("status", static_cast<std::int64_t>(exchange.response.status));
        object.field("bytes_in", static_cast<std::int64_t>(exchange.bytesReceived));
        object.field("bytes_out", static_cast<std::int64_t>(exchange.bytesSent));
        object.field("microseconds", static_cast<std::int64_t>(microseconds))
            .field("aborted", exchange.aborted);
    }
    m_context.log.write(std::move(line));
    exchange.noLongerRunning();
}

} // namespace halvane::server
