#include "HalvaneConnection.h"

#include <NetworkTask.h>

#include <QCoreApplication>
#include <QMutex>
#include <QMutexLocker>

namespace orx {

namespace {

bool isUsable(const QUrl& url) {
    const QString scheme = url.scheme().toLower();
    return url.isValid() && !url.host().isEmpty() &&
           (scheme == QStringLiteral("http") || scheme == QStringLiteral("https"));
}

//! Encoded, without a slash at its end.
QString basePathOf(const QUrl& url) {
    QString path = url.path(QUrl::FullyEncoded);
    while (path.endsWith(u'/'))
        path.chop(1);
    return path;
}

QByteArray apiUrlOf(const QUrl& given) {
    if (!isUsable(given))
        return QByteArray();
    QUrl url = given.adjusted(QUrl::RemoveUserInfo | QUrl::RemoveQuery | QUrl::RemoveFragment);
    url.setPath(basePathOf(url) + QStringLiteral("/api/v1"), QUrl::TolerantMode);
    return url.toEncoded();
}

QString serverKeyOf(const QUrl& url) {
    if (!isUsable(url))
        return QString();
    const QString scheme = url.scheme().toLower();
    // The default port is written out, so that a URL with it and one without name the same server.
    const int port = url.port(scheme == QStringLiteral("https") ? 443 : 80);
    QString host = url.host(QUrl::FullyEncoded).toLower();
    if (host.contains(u':') && !host.startsWith(u'['))
        host = u'[' + host + u']';
    // Two servers may be below one host and port.
    return QStringLiteral("%1://%2:%3").arg(scheme, host).arg(port) + basePathOf(url);
}

} // namespace

//! The texts are replaced by swapping: what was there is then freed here, where the thread sanitizer sees it,
//! and not inside Qt.
struct HalvaneConnection::Private {
    mutable QMutex mutex;
    HalvaneSettings settings;
    //! Made from the settings; encoded, so that no two threads share the parts of one URL.
    QByteArray apiUrl;
    QString serverKey;
    QString userName;
    QByteArray token;
};

HalvaneConnection::HalvaneConnection() : d(new Private) {}

HalvaneConnection::~HalvaneConnection() {
    delete d;
}

HalvaneConnection& HalvaneConnection::instance() {
    static HalvaneConnection connection;
    return connection;
}

HalvaneSettings HalvaneConnection::settings() const {
    const QMutexLocker lock(&d->mutex);
    return d->settings;
}

void HalvaneConnection::setSettings(const HalvaneSettings& settings) {
    const QUrl url = settings.machineSettingsPtr()->url();
    QByteArray apiUrl = apiUrlOf(url);
    QString serverKey = serverKeyOf(url);
    const QMutexLocker lock(&d->mutex);
    d->settings = settings;
    d->apiUrl.swap(apiUrl);
    d->serverKey.swap(serverKey);
}

QUrl HalvaneConnection::apiUrl() const {
    const QMutexLocker lock(&d->mutex);
    return QUrl::fromEncoded(d->apiUrl);
}

QString HalvaneConnection::serverKey() const {
    const QMutexLocker lock(&d->mutex);
    return d->serverKey;
}

QByteArray HalvaneConnection::token() const {
    const QMutexLocker lock(&d->mutex);
    return d->token;
}

QString HalvaneConnection::userName() const {
    const QMutexLocker lock(&d->mutex);
    return d->userName;
}

void HalvaneConnection::setCredentials(const QString& userName, const QByteArray& token) {
    QString newUserName = userName;
    QByteArray newToken = token;
    const QMutexLocker lock(&d->mutex);
    d->userName.swap(newUserName);
    d->token.swap(newToken);
}

Error HalvaneConnection::sendRequest(NetworkTask* task) {
    if (!task)
        return ORX_ECATCH(
            Error(ErrorCode::InvalidArgument,
                  QCoreApplication::translate("orx::HalvaneConnection", "There is no request to send.")));
    const QByteArray currentToken = token();
    if (currentToken.isEmpty())
        return ORX_ECATCH(
            Error(ErrorCode::NotAuthenticated,
                  QCoreApplication::translate("orx::HalvaneConnection",
                                              "Nobody is logged in at a Halvane server. Log in first.")));
    task->setAuthenticationToken(currentToken);
    task->exec();
    return Error();
}

} // namespace orx
