#pragma once

#include "HalvaneTask.h"

#include <QDateTime>

namespace orx {

struct ORX_HALVANE_EXPORT HalvaneUser {
    struct Group {
        int id = -1;
        QString name;
    };
    int id = -1;
    QString name;
    bool isAdmin = false;
    QList<Group> groups;
};

//! POST /login. Does not touch HalvaneConnection's credentials: the caller does. The password never appears
//! in errors or logs.
class ORX_HALVANE_EXPORT HalvaneLoginTask : public HalvaneTask {
    Q_OBJECT
public:
    HalvaneLoginTask(const QString& user, const QString& password, QObject* parent = nullptr);
    QByteArray token() const { return m_token; }
    QDateTime expiresAt() const { return m_expiresAt; }
    HalvaneUser user() const { return m_user; }

protected:
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
    Error parseData(const QJsonObject& json) override;
    bool needsAuthentication() const override { return false; }

private:
    QString m_userName;
    QString m_password;
    QByteArray m_token;
    QDateTime m_expiresAt;
    HalvaneUser m_user;
};

//! POST /logout.
class ORX_HALVANE_EXPORT HalvaneLogoutTask : public HalvaneTask {
    Q_OBJECT
public:
    explicit HalvaneLogoutTask(QObject* parent = nullptr);

protected:
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
};

//! GET /whoami.
class ORX_HALVANE_EXPORT HalvaneWhoAmITask : public HalvaneTask {
    Q_OBJECT
public:
    explicit HalvaneWhoAmITask(QObject* parent = nullptr);
    HalvaneUser user() const { return m_user; }
    QDateTime tokenExpiresAt() const { return m_expiresAt; }

protected:
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
    Error parseData(const QJsonObject& json) override;

private:
    HalvaneUser m_user;
    QDateTime m_expiresAt;
};

} // namespace orx
