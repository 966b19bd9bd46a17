#include "Session.h"

#include "TokenStore.h"

#include <HalvaneConnection.h>
#include <HalvaneError.h>

namespace halvane::host {

using orx::BaseTask;
using orx::Error;
using orx::HalvaneConnection;
using orx::HalvaneLoginTask;
using orx::HalvaneLogoutTask;
using orx::HalvaneMachineSettings;
using orx::HalvaneSettings;
using orx::HalvaneUserSettings;
using orx::Result;

void Session::connectTo(const QUrl& url) {
    HalvaneConnection& connection = HalvaneConnection::instance();
    connection.setSettings(HalvaneSettings(HalvaneMachineSettings(url), HalvaneUserSettings()));
    connection.setCredentials({}, {});
}

Result<Profile> Session::open(const QString& requestedProfile) {
    const Result<QString> name = Profiles::currentName(requestedProfile);
    ORX_RETURN_ON_ERROR(name.error());
    const Result<Profile> profile = Profiles::load(name.value());
    ORX_RETURN_ON_ERROR(profile.error());
    const Result<QByteArray> token = TokenStore::load(name.value());
    ORX_RETURN_ON_ERROR(token.error());
    connectTo(profile->url);
    HalvaneConnection::instance().setCredentials(profile->userName, token.value());
    return profile;
}

LoginTask::LoginTask(const Profile& profile, const QString& password, QObject* parent)
    : ComplexTask(QStringLiteral("Login(%1)").arg(profile.name), parent)
    , m_profile(profile)
    , m_password(password) {}

LoginTask::~LoginTask() = default;

Error LoginTask::initialize() {
    Session::connectTo(m_profile.url);
    execSubtask(std::make_unique<HalvaneLoginTask>(m_profile.userName, m_password),
                [this](HalvaneLoginTask* task) {
                    m_user = task->user();
                    m_expiresAt = task->expiresAt();
                    if (const Error error = keep(task->token()); error.hasError())
                        finish(error);
                });
    return {};
}

Error LoginTask::keep(const QByteArray& token) {
    ORX_RETURN_ON_ERROR(TokenStore::save(m_profile.name, token));
    ORX_RETURN_ON_ERROR(Profiles::save(m_profile));
    HalvaneConnection::instance().setCredentials(m_profile.userName, token);
    return {};
}

LogoutTask::LogoutTask(const Profile& profile, QObject* parent)
    : ComplexTask(QStringLiteral("Logout(%1)").arg(profile.name), parent), m_profile(profile) {}

LogoutTask::~LogoutTask() = default;

Error LogoutTask::initialize() {
    const auto forget = [this](BaseTask*) {
        if (const Error error = TokenStore::remove(m_profile.name); error.hasError())
            finish(error);
    };
    const auto onFailure = [this, forget](BaseTask* task) {
        if (isHalvaneError(task->error(), orx::HalvaneServerErrorCode::NotAuthenticated))
            forget(task);
        else
            finish(task->error());
    };
    execSubtask(std::unique_ptr<BaseTask>(std::make_unique<HalvaneLogoutTask>()), forget, onFailure);
    return {};
}

} // namespace halvane::host
