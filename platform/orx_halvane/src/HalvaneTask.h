#pragma once

#include "orx_halvane_export.h"

#include <CustomComplexTask.h>
#include <JsonUtils.h>
#include <NetworkTask.h>

#include <optional>

namespace orx {

//! One call of the Halvane protocol: the request goes to HalvaneConnection's API URL with its token; the
//! reply's envelope becomes an Error of ErrorDomain::Server, or parseData() gets the whole reply object. A
//! reply that is no such envelope (HTML, truncated JSON, another shape), or whose envelope contradicts its
//! HTTP status, is NetworkErrorCode::InvalidReply; a failure status without an envelope (a proxy's page) is
//! NetworkErrorCode::HttpStatus. Fails with ErrorCode::NotAuthenticated, and sends nothing, when nobody is
//! logged in.
class ORX_HALVANE_EXPORT HalvaneTask : public NetworkTask {
    Q_OBJECT
public:
    explicit HalvaneTask(const QString& name, QObject* parent = nullptr);
    ~HalvaneTask() override;

protected:
    //! The envelope check; subclasses call it first and then read "data", which may be missing: that is for
    //! them to say. \a json is the whole reply.
    virtual Error parseData(const QJsonObject& json);
    //! An error about the content of "data" as NetworkErrorCode::InvalidReply that names the server; no
    //! error, and errors of other domains, as they are.
    static Error asInvalidReply(const Error& error);
    //! What a reply holds under "data" when its envelope tells of success. Thread: any.
    static std::optional<QJsonObject> successData(const QJsonObject& json);
    //! Adds \a body as the JSON body of \a request.
    static void setJsonBody(NetworkRequest& request, const QJsonObject& body);

    using NetworkTask::prepareRequest;
    Error initialize() override;
    QUrl baseUrl() const override;
    Error handleReply(const NetworkReply& reply) override;
    //! Most calls need somebody logged in; login and health do not.
    virtual bool needsAuthentication() const;

private:
    static Error notAServer(const QString& detail);
    static Error notAReply();
};

//! Base of all tasks made of several calls.
class ORX_HALVANE_EXPORT HalvaneComplexTask : public CustomComplexTask, public Authenticable {
    Q_OBJECT
public:
    HalvaneComplexTask(const QString& name, QObject* parent);
    explicit HalvaneComplexTask(QObject* parent);
    HalvaneComplexTask();
    ~HalvaneComplexTask() override;
};

} // namespace orx
