#pragma once

#include <Transport.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QList>
#include <QPointer>
#include <QTimer>

#include <deque>

namespace orx::testing {

//! A transport without a network: it keeps a log of the requests and answers each with the next reply of its
//! script, from the event loop. Without one the request hangs. Takes the place of this thread's transport as
//! long as it lives.
class ScriptedTransport : public Transport {
public:
    ScriptedTransport() { Transport::setOverride(this); }
    ~ScriptedTransport() override { Transport::setOverride(nullptr); }

    std::unique_ptr<TransportCall> send(const NetworkRequest& request, ReplyHandler handler) override {
        log.append(request);
        auto call = std::make_unique<Call>(*this);
        if (!script.empty()) {
            QTimer::singleShot(0, &call->context,
                               [handler = std::move(handler), reply = script.front()] { handler(reply); });
            script.pop_front();
        }
        return call;
    }

    void thenStatus(int status, const QByteArray& body = {}, const QList<HttpHeader>& headers = {}) {
        NetworkReply reply;
        reply.status = status;
        reply.body = body;
        reply.headers = headers;
        script.push_back(reply);
    }
    void thenError(const Error& error) {
        NetworkReply reply;
        reply.error = error;
        script.push_back(reply);
    }

    QList<NetworkRequest> log;
    std::deque<NetworkReply> script;
    //! Requests that were sent and whose call has not been deleted.
    int openCalls = 0;

private:
    struct Call : TransportCall {
        explicit Call(ScriptedTransport& owner) : transport(owner) { ++transport.openCalls; }
        ~Call() override { --transport.openCalls; }
        void resume() override {}
        ScriptedTransport& transport;
        QObject context;
    };
};

} // namespace orx::testing
