#pragma once

#include "Profiles.h"

#include <ComplexTask.h>
#include <HalvaneSessionTasks.h>

namespace halvane::host {

//! Makes the process talk to the server of a profile as its user.
class HALVANE_HOST_EXPORT Session {
public:
    //! Loads the profile \a requestedProfile (see Profiles::currentName) with its token into the connection.
    //! ErrorCode::NotAuthenticated when there is no such profile or no token, ErrorCode::InvalidArgument for
    //! a time in HALVANE_TIMEOUT that is none. May block on the keyring. What the profile trusts counts for
    //! the threads that have not sent a request yet.
    static orx::Result<Profile> open(const QString& requestedProfile);
    //! Points the connection at the server of \a profile with nobody logged in.
    static void connectTo(const Profile& profile);
};

//! Logs in at the server of the profile and, on success, keeps profile and token and makes the profile the
//! current one. A failure changes nothing that is kept. Thread: the main one.
class HALVANE_HOST_EXPORT LoginTask : public orx::ComplexTask {
    Q_OBJECT
public:
    LoginTask(const Profile& profile, const QString& password, QObject* parent = nullptr);
    ~LoginTask() override;
    //! After success.
    const orx::HalvaneUser& user() const { return m_user; }
    QDateTime expiresAt() const { return m_expiresAt; }

protected:
    orx::Error initialize() override;

private:
    void onRefused(const orx::Error& error);
    orx::Error keep(const QByteArray& token);

    Profile m_profile;
    QString m_password;
    orx::HalvaneUser m_user;
    QDateTime m_expiresAt;
};

//! Makes the token void at the server and forgets it here. It is forgotten too when the server does not know
//! it any more; when the server cannot be reached nothing is forgotten and the task fails. Thread: the main
//! one.
class HALVANE_HOST_EXPORT LogoutTask : public orx::ComplexTask {
    Q_OBJECT
public:
    explicit LogoutTask(const Profile& profile, QObject* parent = nullptr);
    ~LogoutTask() override;

protected:
    orx::Error initialize() override;

private:
    Profile m_profile;
};

} // namespace halvane::host
