#include "Session.h"

#include "ErrorText.h"
#include "Quantities.h"
#include "TokenStore.h"

#include <CurlTransport.h>
#include <HalvaneConnection.h>
#include <HalvaneError.h>
#include <NetworkError.h>

#include <algorithm>

namespace halvane::host {

using orx::BaseTask;
using orx::CurlTransport;
using orx::Error;
using orx::ErrorDomain;
using orx::HalvaneConnection;
using orx::HalvaneLoginTask;
using orx::HalvaneLogoutTask;
using orx::HalvaneMachineSettings;
using orx::HalvaneServerErrorCode;
using orx::HalvaneSettings;
using orx::HalvaneUserSettings;
using orx::NetworkErrorCode;
using orx::Result;

namespace {

Result<HalvaneUserSettings> userSettings() {
    HalvaneUserSettings settings;
    const QString text = qEnvironmentVariable("HALVANE_TIMEOUT");
    if (text.isEmpty())
        return settings;
    const Result<std::chrono::seconds> silence = parseAge(text);
    if (silence.hasError())
        return withMessage(silence.error(),
                           QStringLiteral("HALVANE_TIMEOUT cannot be used: %1").arg(silence.errorMessage()));
    settings.setTransferSilence(std::min<std::chrono::seconds>(silence.value(), std::chrono::hours(24)));
    return settings;
}

void trust(const Profile& profile) {
    CurlTransport::Options options;
    options.caFile = profile.caFile;
    CurlTransport::setDefaultOptions(options);
}

} // namespace

void Session::connectTo(const Profile& profile) {
    trust(profile);
    HalvaneConnection& connection = HalvaneConnection::instance();
    connection.setSettings(HalvaneSettings(HalvaneMachineSettings(profile.url), HalvaneUserSettings()));
    connection.setCredentials({}, {});
}

Result<Profile> Session::open(const QString& requestedProfile) {
    const Result<QString> name = Profiles::currentName(requestedProfile);
    ORX_RETURN_ON_ERROR(name.error());
    const Result<Profile> profile = Profiles::load(name.value());
    ORX_RETURN_ON_ERROR(profile.error());
    const Result<QByteArray> token = TokenStore::load(name.value());
    ORX_RETURN_ON_ERROR(token.error());
    const Result<HalvaneUserSettings> settings = userSettings();
    ORX_RETURN_ON_ERROR(settings.error());
    trust(profile.value());
    HalvaneConnection& connection = HalvaneConnection::instance();
    connection.setSettings(HalvaneSettings(HalvaneMachineSettings(profile->url), settings.value()));
    connection.setCredentials(profile->userName, token.value());
    return profile;
}

LoginTask::LoginTask(const Profile& profile, const QString& password, QObject* parent)
    : ComplexTask(QStringLiteral("Login(%1)").arg(profile.name), parent)
    , m_profile(profile)
    , m_password(password) {}

LoginTask::~LoginTask() = default;

Error LoginTask::initialize() {
    Session::connectTo(m_profile);
    auto login = std::make_unique<HalvaneLoginTask>(m_profile.userName, m_password);
    HalvaneLoginTask* raw = login.get();
    const auto onSuccess = [this, raw](BaseTask*) {
        m_user = raw->user();
        m_expiresAt = raw->expiresAt();
        if (const Error error = keep(raw->token()); error.hasError())
            finish(error);
    };
    execSubtask(std::unique_ptr<BaseTask>(std::move(login)), onSuccess,
                [this](BaseTask* task) { onRefused(task->error()); });
    return {};
}

// A server that does not know the call of its login is at another path than the address says.
void LoginTask::onRefused(const Error& error) {
    if (!isHalvaneError(error, HalvaneServerErrorCode::NotFound))
        return finish(error);
    const QString without = m_profile.url.adjusted(QUrl::RemovePath).toString();
    finish(Error(
        ErrorDomain::Network, int(NetworkErrorCode::HttpStatus),
        QStringLiteral("There is no Halvane server below \"%1\". Check the address; most servers are at "
                       "the host itself: %2")
            .arg(m_profile.url.toString(), without)));
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
        const Error error = task->error();
        const bool unreachable = error.domain() == ErrorDomain::Network;
        if (!unreachable && !isHalvaneError(error, HalvaneServerErrorCode::NotAuthenticated))
            return finish(error);
        forget(task);
        if (unreachable && !hasError() && !isCanceled())
            finish(
                withMessage(error, joinedSentences(error.errorMessage(),
                                                   QStringLiteral("The login is forgotten here, but remains "
                                                                  "valid at the server until it expires."))));
    };
    execSubtask(std::unique_ptr<BaseTask>(std::make_unique<HalvaneLogoutTask>()), forget, onFailure);
    return {};
}

} // namespace halvane::host
