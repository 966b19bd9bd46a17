#include "Profiles.h"

#include <AtomicFile.h>
#include <HalvanePaths.h>

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSettings>

namespace halvane::host {

using orx::AtomicFile;
using orx::Error;
using orx::ErrorCode;
using orx::HalvanePaths;
using orx::Result;

namespace {

const QString urlKey = QStringLiteral("server/url");
const QString userKey = QStringLiteral("server/user");
const QString lastKey = QStringLiteral("login/last_profile");
const QString suffix = QStringLiteral(".ini");

QString profileFile(const QString& name) {
    return Profiles::directory() + u'/' + name + suffix;
}

//! Where the certificates are kept that a profile trusts.
QString caFileOf(const QString& name) {
    return Profiles::directory() + u'/' + name + QStringLiteral(".ca.pem");
}

QString settingsFile() {
    return HalvanePaths::configDir() + QStringLiteral("/halvane.ini");
}

QString environmentProfile() {
    return qEnvironmentVariable("HALVANE_PROFILE");
}

Error writeSettings(QSettings& settings) {
    settings.sync();
    if (settings.status() == QSettings::NoError)
        return {};
    return Error(ErrorCode::FileNotWritable,
                 QStringLiteral("The settings file \"%1\" cannot be written.").arg(settings.fileName()));
}

//! So that the profile works on when the file it was given is gone.
Error keepCertificates(const Profile& profile) {
    const QString kept = caFileOf(profile.name);
    if (profile.caFile == kept)
        return {};
    if (profile.caFile.isEmpty()) {
        if (!QFile::exists(kept) || QFile::remove(kept))
            return {};
        return Error(
            ErrorCode::FileNotWritable,
            QStringLiteral("The certificates of another server, \"%1\", cannot be removed.").arg(kept));
    }
    const Result<QByteArray> certificates = AtomicFile::read(profile.caFile);
    ORX_RETURN_ON_ERROR(certificates.error());
    return AtomicFile::write(kept, certificates.value());
}

Error invalidUrl(const QString& text, const QString& reason) {
    return Error(ErrorCode::InvalidArgument,
                 QStringLiteral("\"%1\" is not the address of a server: %2. Write it as https://host or "
                                "http://host:port.")
                     .arg(text, reason));
}

} // namespace

QString Profiles::directory() {
    return HalvanePaths::configDir() + QStringLiteral("/profiles");
}

Error Profiles::checkName(const QString& name) {
    static const QRegularExpression fitting(QStringLiteral("\\A[A-Za-z0-9_-][A-Za-z0-9._-]{0,63}\\z"));
    if (fitting.match(name).hasMatch())
        return {};
    return Error(
        ErrorCode::InvalidArgument,
        QStringLiteral("\"%1\" is no name for a profile: use 1 to 64 letters, digits, \".\", \"_\" and "
                       "\"-\", not beginning with \".\".")
            .arg(name));
}

Result<QString> Profiles::currentName(const QString& requested) {
    QString name = requested.isEmpty() ? environmentProfile() : requested;
    if (name.isEmpty())
        name = QSettings(settingsFile(), QSettings::IniFormat).value(lastKey).toString();
    if (name.isEmpty())
        return Error(ErrorCode::NotAuthenticated, QStringLiteral("Nobody is logged in at any server."));
    ORX_RETURN_ON_ERROR(checkName(name));
    return name;
}

Result<Profile> Profiles::load(const QString& name) {
    const QSettings settings(profileFile(name), QSettings::IniFormat);
    Profile profile{name, QUrl(settings.value(urlKey).toString(), QUrl::StrictMode),
                    settings.value(userKey).toString(),
                    QFile::exists(caFileOf(name)) ? caFileOf(name) : QString()};
    if (profile.url.isValid() && !profile.url.isEmpty())
        return profile;
    if (QFile::exists(profileFile(name)))
        return Error(ErrorCode::NotAuthenticated,
                     QStringLiteral("The profile \"%1\" is damaged: \"%2\" names no server.")
                         .arg(name, profileFile(name)));
    const QStringList known = names();
    return Error(ErrorCode::NotAuthenticated,
                 known.isEmpty() ? QStringLiteral("There is no profile \"%1\".").arg(name)
                                 : QStringLiteral("There is no profile \"%1\"; there are: %2.")
                                       .arg(name, known.join(QStringLiteral(", "))));
}

Error Profiles::save(const Profile& profile) {
    ORX_RETURN_ON_ERROR(HalvanePaths::ensurePrivateDir(HalvanePaths::configDir()));
    ORX_RETURN_ON_ERROR(HalvanePaths::ensurePrivateDir(directory()));
    ORX_RETURN_ON_ERROR(keepCertificates(profile));
    QSettings file(profileFile(profile.name), QSettings::IniFormat);
    file.setValue(urlKey, profile.url.toString(QUrl::FullyEncoded));
    file.setValue(userKey, profile.userName);
    ORX_RETURN_ON_ERROR(writeSettings(file));
    QSettings settings(settingsFile(), QSettings::IniFormat);
    settings.setValue(lastKey, profile.name);
    return writeSettings(settings);
}

QStringList Profiles::names() {
    QStringList found;
    const QStringList files = QDir(directory()).entryList({u'*' + suffix}, QDir::Files, QDir::Name);
    for (const QString& file : files)
        found.append(file.chopped(suffix.size()));
    return found;
}

Result<QString> Profiles::nameForLogin(const QString& requested, const QUrl& url) {
    QString name = requested.isEmpty() ? environmentProfile() : requested;
    if (name.isEmpty()) {
        static const QRegularExpression other(QStringLiteral("[^A-Za-z0-9._-]+"));
        name = url.host(QUrl::FullyEncoded).replace(other, QStringLiteral("-"));
        if (url.port() != -1)
            name += u'-' + QString::number(url.port());
        name = name.left(64);
    }
    ORX_RETURN_ON_ERROR(checkName(name));
    return name;
}

Result<QUrl> Profiles::parseServerUrl(const QString& text) {
    if (!text.contains(QStringLiteral("://")))
        return invalidUrl(text, QStringLiteral("it does not begin with https:// or http://"));
    QUrl url(text, QUrl::StrictMode);
    if (!url.isValid())
        return invalidUrl(text, QStringLiteral("it is malformed"));
    if (url.scheme() != u"http" && url.scheme() != u"https")
        return invalidUrl(text, QStringLiteral("\"%1\" is neither https nor http").arg(url.scheme()));
    if (url.host().isEmpty())
        return invalidUrl(text, QStringLiteral("the host is missing"));
    if (!url.userInfo().isEmpty())
        return invalidUrl(url.toString(QUrl::RemoveUserInfo),
                          QStringLiteral("it must not hold a user or a password (use --user)"));
    if (url.hasQuery() || url.hasFragment())
        return invalidUrl(text, QStringLiteral("it must not hold a query or a fragment"));
    QString path = url.path(QUrl::FullyEncoded);
    while (path.endsWith(u'/'))
        path.chop(1);
    url.setPath(path, QUrl::StrictMode);
    return url;
}

} // namespace halvane::host
