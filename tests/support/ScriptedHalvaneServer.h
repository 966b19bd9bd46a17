#pragma once

#include "ScriptedHalvaneService.h"

#include <HalvaneError.h>
#include <NetworkError.h>
#include <Transport.h>

#include <QRegularExpression>

namespace orx::testing {

//! What happens to a request instead of its plain answer.
struct ScriptedFault {
    enum class Kind {
        Reply,         //!< the service sees nothing; this reply comes
        TruncatedJson, //!< the service acts; only the first half of its reply's body comes, as if whole
        TruncatedBody, //!< the service acts; after some bytes of the body the connection is lost
        ReplyLost,     //!< the service acts; the connection is lost before its reply
        NetworkError,  //!< the service sees nothing; there is no reply
        Hang,          //!< the service sees nothing; nothing ever comes
        Hold           //!< the service acts; its reply waits for release()
    };
    Kind kind = Kind::Hang;
    ScriptedReply reply;
    NetworkErrorCode error = NetworkErrorCode::ConnectionLost;
    qint64 bytes = 0;

    //! A failure in the protocol's envelope.
    static ScriptedFault failure(int status, HalvaneServerErrorCode code, const QString& message);
    //! A page such as a proxy makes.
    static ScriptedFault html(int status = 200);
    static ScriptedFault raw(int status, const QByteArray& body);
    static ScriptedFault truncatedJson() { return {Kind::TruncatedJson, {}, {}, 0}; }
    static ScriptedFault truncatedBody(qint64 bytes) { return {Kind::TruncatedBody, {}, {}, bytes}; }
    static ScriptedFault replyLost() { return {Kind::ReplyLost, {}, NetworkErrorCode::ConnectionLost, 0}; }
    static ScriptedFault networkError(NetworkErrorCode code) { return {Kind::NetworkError, {}, code, 0}; }
    static ScriptedFault hang() { return {}; }
    static ScriptedFault hold() { return {Kind::Hold, {}, {}, 0}; }
};

//! A Halvane server in memory at the network seam: while it lives it is the transport of its thread, and
//! HalvaneConnection talks to it. Replies come from the event loop, in the order of the requests. Faults are
//! scripted by patterns of "METHOD /path", in which * stands for any characters.
class ScriptedHalvaneServer final : public Transport {
public:
    //! Forever, as a number of times.
    static constexpr int Always = -1;

    ScriptedHalvaneServer();
    ~ScriptedHalvaneServer() override;

    std::unique_ptr<TransportCall> send(const NetworkRequest& request, ReplyHandler handler) override;

    //! Logs in: HalvaneConnection has the URL and the token of this server afterwards.
    void connectClient();

    ScriptedHalvaneService& service() { return m_service; }
    const ScriptedHalvaneService& service() const { return m_service; }

    //! The next \a times requests that match meet \a fault; an earlier script goes first.
    void script(const QString& pattern, const ScriptedFault& fault, int times = 1);
    //! Held replies go out, in order.
    void release();
    int heldCount() const;
    //! Requests that were sent and have neither been answered nor aborted.
    int inFlightCount() const { return int(m_calls.size()); }
    //! The most requests that were in flight at one time.
    int peakInFlight() const { return m_peak; }

    //! Every attempt, in the order of arrival: "METHOD /path".
    QStringList log() const;
    const QList<ScriptedRequest>& requests() const { return m_requests; }
    QList<ScriptedRequest> requests(const QString& pattern) const;
    int count(const QString& pattern) const { return int(requests(pattern).size()); }
    void clearLog() { m_requests.clear(); }
    //! Called for every attempt before it is answered; may be empty.
    std::function<void(const ScriptedRequest&)> onRequest;

private:
    class Call;
    struct Script {
        QRegularExpression pattern;
        ScriptedFault fault;
        int times;
    };

    std::optional<ScriptedFault> takeFault(const QString& line);
    void answer(Call* call, const ScriptedRequest& request);

    ScriptedHalvaneService m_service;
    QList<Script> m_scripts;
    QList<ScriptedRequest> m_requests;
    QList<Call*> m_calls;
    int m_peak = 0;
};

} // namespace orx::testing
