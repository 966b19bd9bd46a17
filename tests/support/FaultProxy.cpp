#include "FaultProxy.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <utility>

namespace orx::testing {

namespace {

std::regex pathRegex(const std::string& path) {
    return std::regex(path.empty() ? ".*" : path);
}

std::string pathOf(const HttpHead& head) {
    return head.second.substr(0, head.second.find('?'));
}

bool isInterim(const HttpHead& head) {
    return head.status() >= 100 && head.status() < 200;
}

bool isReadable(const Socket& socket, int timeoutMs) {
    pollfd entry{socket.fd(), POLLIN, 0};
    return ::poll(&entry, 1, timeoutMs) > 0;
}

//! Blocks until one of the two has something to say; true when it is the first.
bool isFirstReadable(const Socket& first, const Socket& second) {
    std::array<pollfd, 2> entries{pollfd{first.fd(), POLLIN, 0}, pollfd{second.fd(), POLLIN, 0}};
    while (::poll(entries.data(), entries.size(), -1) < 0) {
    }
    return entries[0].revents != 0;
}

//! One side's bytes: what was received and not used yet.
class Incoming {
public:
    explicit Incoming(const Socket& socket) : m_socket(socket) {}

    //! False at the end of the connection.
    bool receive() {
        std::array<char, 64 * 1024> buffer{};
        const size_t size = m_socket.receive(buffer.data(), buffer.size());
        m_bytes.append(buffer.data(), size);
        return size > 0;
    }
    bool isEmpty() const { return m_bytes.empty(); }
    std::optional<HttpHead> takeHead() {
        auto head = HttpHead::parse(m_bytes);
        if (head)
            m_bytes.erase(0, head->text.size());
        return head;
    }
    //! What there is of the body that \a framing describes.
    std::string takeBody(HttpBodyFraming& framing) {
        const size_t used = framing.consume(m_bytes);
        std::string piece = m_bytes.substr(0, used);
        m_bytes.erase(0, used);
        return piece;
    }
    void clear() { m_bytes.clear(); }

private:
    const Socket& m_socket;
    std::string m_bytes;
};

} // namespace

void FaultProxy::Hold::waitUntilAnswered() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_answered || m_decision == Decision::Drop; });
}

bool FaultProxy::Hold::isAnswered() const {
    const std::lock_guard lock(m_mutex);
    return m_answered;
}

void FaultProxy::Hold::release() {
    decide(Decision::Release);
}

void FaultProxy::Hold::drop() {
    decide(Decision::Drop);
}

void FaultProxy::Hold::decide(Decision decision) {
    const std::lock_guard lock(m_mutex);
    if (m_decision == Decision::None)
        m_decision = decision;
    m_changed.notify_all();
}

bool FaultProxy::Hold::awaitDecision() {
    std::unique_lock lock(m_mutex);
    m_answered = true;
    m_changed.notify_all();
    m_changed.wait(lock, [this] { return m_decision != Decision::None; });
    return m_decision == Decision::Release;
}

//! Serves one connection of a client. Each step returns whether the connection goes on.
class FaultProxy::Relay {
public:
    Relay(FaultProxy& owner, Connection& connection)
        : m_proxy(owner)
        , m_client(connection.client)
        , m_server(connection.server)
        , m_fromClient(connection.client)
        , m_fromServer(connection.server) {}

    void run() {
        while (relayRequest()) {
        }
        if (m_isRepliedEarly)
            linger();
    }

private:
    using Action = Rule::Action;

    bool has(Action action) const { return m_rule && m_rule->action == action; }

    bool relayRequest() {
        auto head = m_fromClient.takeHead();
        for (; !head; head = m_fromClient.takeHead()) {
            if (!m_fromClient.receive())
                return false;
        }
        m_kind = {head->first, pathOf(*head)};
        m_rule = m_proxy.takeRule(m_kind.first, m_kind.second);
        m_proxy.count(m_kind, [](Traffic& traffic) { ++traffic.requests; });
        if (has(Action::DropBefore) || !connectToServer())
            return false;
        return m_server.send(head->text) && relayRequestBody(*head) && relayReply();
    }

    //! Closing while the client still sends would reset the connection and take the reply from it.
    void linger() {
        m_client.shutdownSending();
        while (m_fromClient.receive())
            m_fromClient.clear();
    }

    bool connectToServer() {
        const bool isStale = m_server.isOpen() && isReadable(m_server, 0);
        if (m_server.isOpen() && !isStale)
            return true;
        std::unique_lock lock(m_proxy.m_mutex);
        const std::string host = m_proxy.m_host;
        const std::uint16_t port = m_proxy.m_serverPort;
        lock.unlock();
        Socket fresh;
        try {
            fresh = Socket::connected(host, port);
        } catch (const std::exception&) {
            return false; // the server is gone: the client's connection ends
        }
        m_fromServer.clear();
        lock.lock();
        m_server = std::move(fresh);
        return !m_proxy.m_stopping;
    }

    //! An answer that comes before the end of the request ends the sending, as it does with the server alone.
    bool relayRequestBody(const HttpHead& head) {
        HttpBodyFraming framing = HttpBodyFraming::ofRequest(head);
        m_isRequestComplete = framing.isComplete();
        std::uint64_t passed = 0;
        while (!m_isRequestComplete) {
            if (m_fromClient.isEmpty()) {
                if (isFirstReadable(m_server, m_client)) {
                    if (!m_fromServer.receive())
                        return false;
                    relayInterim();
                    if (m_replyHead)
                        return true;
                    continue;
                }
                if (!m_fromClient.receive())
                    return false;
            }
            std::string piece = m_fromClient.takeBody(framing);
            const bool goesOn = spoil(piece, passed, Action::CutRequest, Action::CorruptRequest);
            m_proxy.count(m_kind, [&](Traffic& traffic) { traffic.requestBytes += piece.size(); });
            if (!m_server.send(piece))
                return isReadable(m_server, 0); // the server may have said why
            if (!goesOn)
                return false;
            m_isRequestComplete = framing.isComplete();
        }
        return true;
    }

    //! Passes on replies such as 100 that come before the reply, up to the head of that.
    void relayInterim() {
        while (!m_replyHead) {
            auto head = m_fromServer.takeHead();
            if (!head)
                return;
            if (isInterim(*head))
                m_client.send(head->text);
            else
                m_replyHead = std::move(head);
        }
    }

    bool receiveReplyHead() {
        relayInterim();
        while (!m_replyHead) {
            if (!m_fromServer.receive())
                return false;
            relayInterim();
        }
        return true;
    }

    bool relayReply() {
        if (!receiveReplyHead())
            return false;
        const HttpHead head = *std::exchange(m_replyHead, std::nullopt);
        HttpBodyFraming framing = HttpBodyFraming::ofReply(head, m_kind.first);
        const bool keepsWhole = has(Action::Hold) || has(Action::DropAfter) || has(Action::Replace);
        return keepsWhole ? keepReply(head, framing) : passReply(head, framing);
    }

    bool passReply(const HttpHead& head, HttpBodyFraming& framing) {
        // Counted before the client can know of the end.
        if (framing.isComplete())
            countReply();
        if (!m_client.send(head.text))
            return false;
        std::uint64_t passed = 0;
        while (!framing.isComplete()) {
            if (m_fromServer.isEmpty() && !m_fromServer.receive())
                return endOfServer(framing);
            std::string piece = m_fromServer.takeBody(framing);
            if (framing.isComplete())
                countReply();
            const bool goesOn = spoil(piece, passed, Action::CutReply, Action::CorruptReply);
            m_proxy.count(m_kind, [&](Traffic& traffic) { traffic.replyBytes += piece.size(); });
            if (!m_client.send(piece) || !goesOn)
                return false;
        }
        m_isRepliedEarly = !m_isRequestComplete;
        return m_isRequestComplete;
    }

    bool keepReply(const HttpHead& head, HttpBodyFraming& framing) {
        std::string body;
        while (!framing.isComplete()) {
            if (m_fromServer.isEmpty() && !m_fromServer.receive()) {
                if (!framing.endsWithConnection())
                    return false;
                break;
            }
            body += m_fromServer.takeBody(framing);
        }
        countReply();
        if (has(Action::DropAfter) || (has(Action::Hold) && !m_rule->hold->awaitDecision()))
            return false;
        if (has(Action::Replace))
            return m_client.send(m_rule->reply) && m_isRequestComplete && framing.isComplete();
        m_proxy.count(m_kind, [&](Traffic& traffic) { traffic.replyBytes += body.size(); });
        return m_client.send(head.text + body) && m_isRequestComplete && framing.isComplete();
    }

    bool endOfServer(const HttpBodyFraming& framing) {
        if (framing.endsWithConnection())
            countReply();
        return false;
    }

    void countReply() {
        m_proxy.count(m_kind, [](Traffic& traffic) { ++traffic.replies; });
    }

    //! Cuts or corrupts the next \a piece of a body, of which \a passed bytes have gone; false when the
    //! connection ends after it.
    bool spoil(std::string& piece, std::uint64_t& passed, Action cut, Action corrupt) const {
        const std::uint64_t begin = std::exchange(passed, passed + piece.size());
        if (has(corrupt) && m_rule->offset >= begin && m_rule->offset < passed)
            piece[size_t(m_rule->offset - begin)] = char(~piece[size_t(m_rule->offset - begin)]);
        if (!has(cut) || passed < m_rule->offset)
            return true;
        piece.resize(size_t(m_rule->offset - begin));
        return false;
    }

    FaultProxy& m_proxy;
    const Socket& m_client;
    Socket& m_server;
    Incoming m_fromClient;
    Incoming m_fromServer;
    Kind m_kind;
    std::optional<Rule> m_rule;
    std::optional<HttpHead> m_replyHead;
    bool m_isRequestComplete = false;
    bool m_isRepliedEarly = false;
};

FaultProxy::FaultProxy(std::string host, std::uint16_t port)
    : m_host(std::move(host))
    , m_serverPort(port)
    , m_listener(Socket::listening())
    , m_port(m_listener.port())
    , m_thread([this] { run(); }) {}

FaultProxy::~FaultProxy() {
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
        m_listener.shutdown();
        for (const auto& hold : m_holds)
            hold->drop();
    }
    dropConnections();
    m_thread.join();
    for (Connection& connection : m_connections)
        connection.thread.join();
}

std::string FaultProxy::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(m_port) + path;
}

void FaultProxy::setTarget(const std::string& host, std::uint16_t port) {
    const std::lock_guard lock(m_mutex);
    m_host = host;
    m_serverPort = port;
}

void FaultProxy::dropConnections() {
    const std::lock_guard lock(m_mutex);
    for (const Connection& connection : m_connections) {
        connection.client.shutdown();
        connection.server.shutdown();
    }
}

void FaultProxy::run() {
    for (;;) {
        Socket accepted = m_listener.accept();
        const std::lock_guard lock(m_mutex);
        if (m_stopping || !accepted.isOpen())
            return;
        Connection& connection = m_connections.emplace_back();
        connection.client = std::move(accepted);
        connection.thread = std::thread([this, &connection] {
            Relay(*this, connection).run();
            // The mutex: nobody may shut down a number that belongs to another socket already.
            const std::lock_guard guard(m_mutex);
            connection.client.close();
            connection.server.close();
        });
    }
}

void FaultProxy::addRule(const Match& match, Rule::Action action, std::uint64_t offset,
                         const std::string& reply, const std::shared_ptr<Hold>& hold) {
    const std::lock_guard lock(m_mutex);
    m_rules.push_back({action, match, pathRegex(match.path), offset, reply, hold});
}

std::optional<FaultProxy::Rule> FaultProxy::takeRule(const std::string& method, const std::string& path) {
    const std::lock_guard lock(m_mutex);
    for (auto rule = m_rules.begin(); rule != m_rules.end(); ++rule) {
        const bool concerns = (rule->match.method.empty() || rule->match.method == method) &&
                              std::regex_match(path, rule->path);
        if (!concerns)
            continue;
        if (rule->match.skip > 0) {
            --rule->match.skip;
            continue;
        }
        Rule taken = *rule;
        if (rule->match.times > 0 && --rule->match.times == 0)
            m_rules.erase(rule);
        return taken;
    }
    return std::nullopt;
}

std::shared_ptr<FaultProxy::Hold> FaultProxy::holdReply(const Match& match) {
    auto hold = std::make_shared<Hold>();
    Match first = match;
    first.times = 1;
    {
        const std::lock_guard lock(m_mutex);
        m_holds.push_back(hold);
    }
    addRule(first, Rule::Action::Hold, 0, {}, hold);
    return hold;
}

void FaultProxy::dropBeforeForwarding(const Match& match) {
    addRule(match, Rule::Action::DropBefore);
}

void FaultProxy::dropAfterForwarding(const Match& match) {
    addRule(match, Rule::Action::DropAfter);
}

void FaultProxy::cutRequestBody(const Match& match, std::uint64_t bytes) {
    addRule(match, Rule::Action::CutRequest, bytes);
}

void FaultProxy::cutReplyBody(const Match& match, std::uint64_t bytes) {
    addRule(match, Rule::Action::CutReply, bytes);
}

void FaultProxy::replaceReply(const Match& match, int status, const std::string& contentType,
                              const std::string& body) {
    const std::string reply = "HTTP/1.1 " + std::to_string(status) +
                              " Replaced\r\nContent-Type: " + contentType +
                              "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    addRule(match, Rule::Action::Replace, 0, reply);
}

void FaultProxy::corruptRequestBody(const Match& match, std::uint64_t offset) {
    addRule(match, Rule::Action::CorruptRequest, offset);
}

void FaultProxy::corruptReplyBody(const Match& match, std::uint64_t offset) {
    addRule(match, Rule::Action::CorruptReply, offset);
}

void FaultProxy::clearRules() {
    const std::lock_guard lock(m_mutex);
    m_rules.clear();
}

void FaultProxy::count(const Kind& kind, const std::function<void(Traffic&)>& change) {
    const std::lock_guard lock(m_mutex);
    change(m_traffic[kind]);
    m_counted.notify_all();
}

FaultProxy::Traffic FaultProxy::trafficLocked(const std::string& method, const std::string& path) const {
    const std::regex expression = pathRegex(path);
    Traffic sum;
    for (const auto& [kind, traffic] : m_traffic) {
        if ((!method.empty() && kind.first != method) || !std::regex_match(kind.second, expression))
            continue;
        sum.requests += traffic.requests;
        sum.replies += traffic.replies;
        sum.requestBytes += traffic.requestBytes;
        sum.replyBytes += traffic.replyBytes;
    }
    return sum;
}

FaultProxy::Traffic FaultProxy::traffic(const std::string& method, const std::string& path) const {
    const std::lock_guard lock(m_mutex);
    return trafficLocked(method, path);
}

void FaultProxy::waitForTraffic(const std::string& method, const std::string& path,
                                const std::function<bool(const Traffic&)>& condition) {
    std::unique_lock lock(m_mutex);
    m_counted.wait(lock, [&] { return condition(trafficLocked(method, path)); });
}

} // namespace orx::testing
