#include "Commands.h"

#include "Interruption.h"
#include "Output.h"
#include "PasswordInput.h"
#include "Runner.h"

#include <AtomicFile.h>
#include <ErrorText.h>
#include <ExitCodes.h>
#include <ListItemsTask.h>
#include <MakeFolderTask.h>
#include <RunUntilIdle.h>

namespace halvane::cli {

using host::ExitCode;
using host::ListItemsTask;
using host::LoginTask;
using host::LogoutTask;
using host::MakeFolderTask;
using host::Profile;
using host::Profiles;
using host::RemoteItem;
using host::Resources;
using host::Session;
using orx::Error;
using orx::Result;

namespace {

bool isLoopback(const QString& hostName) {
    return hostName == u"localhost" || hostName == u"::1" || hostName.startsWith(QStringLiteral("127."));
}

} // namespace

Error Runner::runQuietly(orx::BaseTask& task) {
    m_interruption.watch(&task);
    Error error = host::runUntilIdle(task);
    m_interruption.watch(nullptr);
    return error;
}

Error Runner::run(orx::BaseTask& task) {
    Error error = runQuietly(task);
    if (!error.hasError())
        m_output.warnings(error.warnings());
    return error;
}

int Runner::transferFailed(const Error& error, const QString& summary) {
    const QString goOn = QStringLiteral("Run the same command again to go on where it stopped.");
    if (error.isCanceled())
        return m_output.error(error, host::joinedSentences(QStringLiteral("Interrupted."), goOn));
    const ExitCode code = host::exitCodeOf(error);
    const bool canGoOn = code == ExitCode::Network || code == ExitCode::ServerTrouble;
    if (canGoOn && !summary.isEmpty())
        return m_output.error(error, host::joinedSentences(host::errorText(error), goOn));
    return m_output.error(error);
}

Result<std::unique_ptr<Resources>> Runner::startResources() {
    auto resources = Resources::start();
    ORX_RETURN_ON_ERROR(resources.error());
    ORX_RETURN_ON_ERROR(Session::open(m_global.profile).error());
    return resources;
}

void Runner::warnOfPlainHttp(const QUrl& url) const {
    if (url.scheme() == u"http" && !isLoopback(url.host()))
        m_output.warnings(
            {QStringLiteral("%1 is not encrypted: the password and all data can be read on the way.")
                 .arg(url.toString())});
}

namespace {

// The certificates to trust: those that were given, else those that the profile has for the same address.
Result<QString> trustedFile(const QString& profileName, const LoginCommand& command) {
    if (!command.caFile.isEmpty()) {
        ORX_RETURN_ON_ERROR(orx::AtomicFile::read(command.caFile).error());
        return command.caFile;
    }
    const Result<Profile> known = Profiles::load(profileName);
    return !known.hasError() && known->url == command.url ? known->caFile : QString();
}

} // namespace

int Runner::operator()(const LoginCommand& command) {
    const Result<QString> profileName = Profiles::nameForLogin(m_global.profile, command.url);
    if (profileName.hasError())
        return m_output.error(profileName.error());
    const Result<QString> caFile = trustedFile(profileName.value(), command);
    if (caFile.hasError())
        return m_output.error(caFile.error());
    warnOfPlainHttp(command.url);
    const QString question =
        QStringLiteral("Password of %1 at %2: ").arg(m_output.shown(command.user), command.url.toString());
    const Result<QString> password =
        command.passwordFromStdin ? passwordFromStandardInput() : promptForPassword(question);
    if (password.hasError())
        return m_output.error(password.error());
    const Profile profile{profileName.value(), command.url, command.user, caFile.value()};
    LoginTask task(profile, password.value());
    if (const Error error = run(task); error.hasError()) {
        // The remedy that other commands give for a refusal is what was just tried.
        const bool isRefusal = error.domain() != orx::ErrorDomain::Network && !error.errorMessage().isEmpty();
        return isRefusal ? m_output.error(error, error.errorMessage()) : m_output.error(error);
    }
    m_output.session(profile, task.user(), task.expiresAt(), QStringLiteral("logged_in"));
    return int(ExitCode::Success);
}

int Runner::operator()(const LogoutCommand&) {
    const Result<Profile> profile = Session::open(m_global.profile);
    if (profile.hasError())
        return m_output.error(profile.error());
    LogoutTask task(profile.value());
    if (const Error error = run(task); error.hasError())
        return m_output.error(error);
    m_output.loggedOut(profile.value());
    return int(ExitCode::Success);
}

int Runner::operator()(const WhoAmICommand&) {
    const Result<Profile> profile = Session::open(m_global.profile);
    if (profile.hasError())
        return m_output.error(profile.error());
    orx::HalvaneWhoAmITask task;
    if (const Error error = run(task); error.hasError())
        return m_output.error(error);
    m_output.session(profile.value(), task.user(), task.tokenExpiresAt(), QStringLiteral("logged_in"));
    return int(ExitCode::Success);
}

int Runner::operator()(const MkdirCommand& command) {
    if (const auto session = Session::open(m_global.profile); session.hasError())
        return m_output.error(session.error());
    MakeFolderTask task(command.path,
                        command.parents ? MakeFolderTask::Parents::Make : MakeFolderTask::Parents::MustExist);
    const Error error = run(task);
    for (const RemoteItem& folder : task.createdFolders())
        m_output.item(folder, folder.path, QStringLiteral("created"),
                      QStringLiteral("made %1 (%2)").arg(m_output.shown(folder.path), folder.reference()));
    if (error.hasError())
        return m_output.error(error);
    if (task.createdFolders().isEmpty())
        m_output.item(task.folder(), task.folder().path, QStringLiteral("exists"),
                      QStringLiteral("%1 was there already (%2)")
                          .arg(m_output.shown(task.folder().path), task.folder().reference()));
    return int(ExitCode::Success);
}

int Runner::operator()(const LsCommand& command) {
    if (const auto session = Session::open(m_global.profile); session.hasError())
        return m_output.error(session.error());
    ListItemsTask task(command.reference);
    if (const Error error = run(task); error.hasError())
        return m_output.error(error);
    m_output.listing(task.items(), command.longFormat);
    return int(ExitCode::Success);
}

int runCommand(const CommandLine& commandLine, const Output& output, Interruption& interruption) {
    return std::visit(Runner(commandLine, output, interruption), commandLine.command);
}

} // namespace halvane::cli
