#pragma once

#include "HalvaneSettings.h"

#include <Error.h>

namespace orx {

class NetworkTask;

//! The server that this process talks to and who it is there. Thread: any; the state is copied in and out.
class ORX_HALVANE_EXPORT HalvaneConnection {
public:
    static HalvaneConnection& instance();

    HalvaneSettings settings() const;
    void setSettings(const HalvaneSettings& settings);
    //! The base of every call: the server's URL with "/api/v1" appended; invalid when the URL is.
    QUrl apiUrl() const;
    //! Names the server in the history and the journal: scheme, host and port, lower-case, without a user, a
    //! path or a trailing slash.
    QString serverKey() const;

    //! Empty: nobody is logged in.
    QByteArray token() const;
    QString userName() const;
    void setCredentials(const QString& userName, const QByteArray& token);
    bool isAuthenticated() const { return !token().isEmpty(); }

    //! Checks that somebody is logged in (ErrorCode::NotAuthenticated otherwise, the task is not started) and
    //! executes \a task, which stays the caller's.
    Error sendRequest(NetworkTask* task);

private:
    HalvaneConnection();
    ~HalvaneConnection();
    struct Private;
    Private* d;
};

} // namespace orx
