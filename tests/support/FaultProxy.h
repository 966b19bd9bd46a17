#pragma once

#include "HttpFraming.h"
#include "Sockets.h"

#include <condition_variable>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <regex>
#include <thread>

namespace orx::testing {

//! A loopback proxy between a client and a real HTTP/1.1 server, which breaks what a test says and counts
//! what passes. Requests of one connection are served one after the other. Thread: any. Offsets and sizes of
//! bodies are those on the wire (with the framing of chunked bodies).
class FaultProxy {
public:
    //! Which requests a rule concerns: after the first \a skip ones that match, the next \a times. Of several
    //! rules the oldest that concerns a request has its way.
    struct Match {
        //! Empty: every one.
        std::string method = {};
        //! Regular expression for the whole path, without the query. Empty: every one.
        std::string path = {};
        int skip = 0;
        //! -1: all.
        int times = 1;
    };

    //! A reply that the proxy keeps.
    class Hold {
    public:
        //! Blocks until the server has answered the request, completely, and the reply is held (or was
        //! dropped when the proxy ended).
        void waitUntilAnswered();
        bool isAnswered() const;
        //! Lets the reply through, also when it has not come yet.
        void release();
        //! Ends the client's connection instead; the client never sees the reply.
        void drop();

    private:
        friend class FaultProxy;
        enum class Decision { None, Release, Drop };
        //! Of the proxy: the reply has come; whether it shall go on.
        bool awaitDecision();
        void decide(Decision decision);

        mutable std::mutex m_mutex;
        std::condition_variable m_changed;
        bool m_answered = false;
        Decision m_decision = Decision::None;
    };

    //! What has passed of the requests of one kind. Bodies count as far as they went.
    struct Traffic {
        //! Received from the client.
        int requests = 0;
        //! Answered by the server, whether or not the client got to see it.
        int replies = 0;
        std::uint64_t requestBytes = 0;
        std::uint64_t replyBytes = 0;
    };

    //! Listens on an ephemeral port of 127.0.0.1 and forwards to \a host: \a port.
    FaultProxy(std::string host, std::uint16_t port);
    //! Ends all connections; held replies are dropped.
    ~FaultProxy();

    std::uint16_t port() const { return m_port; }
    std::string url(const std::string& path = {}) const;
    //! For a server that came back at another port; concerns connections to the server made from now on.
    void setTarget(const std::string& host, std::uint16_t port);

    //! Holds the reply to the first request that matches.
    std::shared_ptr<Hold> holdReply(const Match& match);
    //! The server never sees the request.
    void dropBeforeForwarding(const Match& match);
    //! The server has answered, the client never learns.
    void dropAfterForwarding(const Match& match);
    //! Both sides see their connection end after \a bytes of the body.
    void cutRequestBody(const Match& match, std::uint64_t bytes);
    void cutReplyBody(const Match& match, std::uint64_t bytes);
    //! The server gets the request; the client gets this instead of its reply.
    void replaceReply(const Match& match, int status, const std::string& contentType,
                      const std::string& body);
    //! Inverts every bit of the byte at \a offset, if the body has one there.
    void corruptRequestBody(const Match& match, std::uint64_t offset);
    void corruptReplyBody(const Match& match, std::uint64_t offset);
    //! Removes all rules; what is held stays held.
    void clearRules();

    //! The sum over all requests of \a method (empty: all) whose path matches \a path (as in Match).
    Traffic traffic(const std::string& method = {}, const std::string& path = {}) const;
    //! Blocks until \a condition is true of traffic(method, path).
    void waitForTraffic(const std::string& method, const std::string& path,
                        const std::function<bool(const Traffic&)>& condition);
    //! Ends all connections that exist now, as a broken network does.
    void dropConnections();

private:
    class Relay;
    struct Rule {
        enum class Action {
            Hold,
            DropBefore,
            DropAfter,
            CutRequest,
            CutReply,
            Replace,
            CorruptRequest,
            CorruptReply
        };
        Action action;
        Match match;
        std::regex path;
        std::uint64_t offset = 0;
        std::string reply;
        std::shared_ptr<Hold> hold;
    };
    struct Connection {
        Socket client;
        Socket server;
        std::thread thread;
    };
    using Kind = std::pair<std::string, std::string>;

    void run();
    void addRule(const Match& match, Rule::Action action, std::uint64_t offset = 0,
                 const std::string& reply = {}, const std::shared_ptr<Hold>& hold = {});
    std::optional<Rule> takeRule(const std::string& method, const std::string& path);
    void count(const Kind& kind, const std::function<void(Traffic&)>& change);
    Traffic trafficLocked(const std::string& method, const std::string& path) const;

    mutable std::mutex m_mutex;
    std::condition_variable m_counted;
    std::string m_host;
    std::uint16_t m_serverPort;
    Socket m_listener;
    std::uint16_t m_port;
    bool m_stopping = false;
    std::list<Rule> m_rules;
    std::list<std::shared_ptr<Hold>> m_holds;
    std::map<Kind, Traffic> m_traffic;
    std::list<Connection> m_connections;
    std::thread m_thread;
};

} // namespace orx::testing
