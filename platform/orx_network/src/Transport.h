#pragma once

#include "NetworkRequest.h"

#include <QObject>

namespace orx {

//! A request on its way. Owned by who sent it; deleting it aborts the request, and the reply handler is not
//! called any more.
class ORX_NETWORK_EXPORT TransportCall {
public:
    virtual ~TransportCall();
    //! Continues after BodySink::Verdict::Pause.
    virtual void resume() = 0;
};

//! The seam between network tasks and the network: everything above it can be run against a scripted
//! transport. Thread: one transport belongs to one thread and is used on it only; reply handlers are called
//! from that thread's event loop, never from within send().
class ORX_NETWORK_EXPORT Transport {
public:
    using ReplyHandler = std::function<void(const NetworkReply&)>;

    virtual ~Transport();
    //! One attempt, no retry. The request waits its turn when too many are in flight; the wait does not count
    //! against its time-outs. \a handler is called at most once.
    virtual std::unique_ptr<TransportCall> send(const NetworkRequest& request, ReplyHandler handler) = 0;

    //! The transport of the calling thread: what setOverride() gave, else a CurlTransport made on first use.
    static Transport& ofThisThread();
    //! Puts \a transport (not owned; null: the real one again) in the place of this thread's transport. For
    //! tests.
    static void setOverride(Transport* transport);
};

} // namespace orx
