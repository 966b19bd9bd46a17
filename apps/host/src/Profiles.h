#pragma once

#include "halvane_host_export.h"

#include <Result.h>

#include <QStringList>
#include <QUrl>

namespace halvane::host {

//! One server and who one is there. A value.
struct Profile {
    QString name;
    QUrl url;
    QString userName;
    //! PEM file of certificates that are trusted beside the system's; empty when there are none.
    QString caFile = {};
};

//! The profiles of this user: one INI file each below the configuration directory, so that several servers
//! stand side by side. Thread: any; several processes at once are safe.
class HALVANE_HOST_EXPORT Profiles {
public:
    //! Which profile a command works with: \a requested, else the environment variable HALVANE_PROFILE, else
    //! the one of the last login. ErrorCode::NotAuthenticated when there is none.
    static orx::Result<QString> currentName(const QString& requested);
    //! ErrorCode::NotAuthenticated, naming the profile and those that exist, when it does not exist.
    static orx::Result<Profile> load(const QString& name);
    //! Writes the profile, with a copy of its certificates, and makes it the one of the last login.
    static orx::Error save(const Profile& profile);
    static QStringList names();

    //! The name that a login without one gives its profile: \a requested, else HALVANE_PROFILE, else host and
    //! port of \a url. ErrorCode::InvalidArgument for a name that does not fit.
    static orx::Result<QString> nameForLogin(const QString& requested, const QUrl& url);
    //! Letters, digits, ".", "_" and "-", 1 to 64 of them, not beginning with ".".
    static orx::Error checkName(const QString& name);
    //! Reads a server's address as a person gives it: http or https, a host, no user or password, no query.
    //! ErrorCode::InvalidArgument with what is wrong. A trailing slash is dropped.
    static orx::Result<QUrl> parseServerUrl(const QString& text);
    //! The directory that holds the profiles' files.
    static QString directory();
};

} // namespace halvane::host
