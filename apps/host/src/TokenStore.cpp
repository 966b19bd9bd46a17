#include "TokenStore.h"

#include "Profiles.h"

#include <AtomicFile.h>
#include <HalvanePaths.h>

#include <QEventLoop>
#include <QFile>

#include <qt6keychain/keychain.h>

#include <unistd.h>

namespace halvane::host {

using orx::AtomicFile;
using orx::Error;
using orx::ErrorCode;
using orx::HalvanePaths;
using orx::Result;

namespace {

const QString service = QStringLiteral("halvane");

// Without a session bus there is no keyring to ask, and asking would only cost time.
bool keyringMayExist() {
    if (HalvanePaths::configDirIsOverridden())
        return false;
    return qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS") ||
           QFile::exists(QStringLiteral("/run/user/%1/bus").arg(::getuid()));
}

bool runKeyringJob(QKeychain::Job& job, const QString& profileName) {
    QEventLoop loop;
    job.setAutoDelete(false);
    job.setKey(profileName);
    QObject::connect(&job, &QKeychain::Job::finished, &loop, &QEventLoop::quit);
    job.start();
    loop.exec();
    return job.error() == QKeychain::NoError;
}

bool saveInKeyring(const QString& profileName, const QByteArray& token) {
    if (!keyringMayExist())
        return false;
    QKeychain::WritePasswordJob job(service);
    job.setBinaryData(token);
    return runKeyringJob(job, profileName);
}

Error removeFile(const QString& profileName) {
    QFile file(TokenStore::filePath(profileName));
    if (!file.exists() || file.remove())
        return {};
    return Error(ErrorCode::FileNotWritable, QStringLiteral("The token file \"%1\" cannot be removed: %2.")
                                                 .arg(file.fileName(), file.errorString()));
}

} // namespace

QString TokenStore::filePath(const QString& profileName) {
    return Profiles::directory() + u'/' + profileName + QStringLiteral(".token");
}

Error TokenStore::save(const QString& profileName, const QByteArray& token) {
    if (saveInKeyring(profileName, token))
        return removeFile(profileName);
    ORX_RETURN_ON_ERROR(HalvanePaths::ensurePrivateDir(HalvanePaths::configDir()));
    ORX_RETURN_ON_ERROR(HalvanePaths::ensurePrivateDir(Profiles::directory()));
    return AtomicFile::write(filePath(profileName), token + '\n', AtomicFile::Access::OwnerOnly);
}

Result<QByteArray> TokenStore::load(const QString& profileName) {
    const Result<QByteArray> fromFile = AtomicFile::read(filePath(profileName), 64 * 1024);
    if (!fromFile.hasError())
        return fromFile.value().trimmed();
    if (!fromFile.error().is(ErrorCode::NotFound))
        return fromFile.error();
    if (keyringMayExist()) {
        QKeychain::ReadPasswordJob job(service);
        if (runKeyringJob(job, profileName) && !job.binaryData().isEmpty())
            return job.binaryData();
    }
    return Error(ErrorCode::NotAuthenticated,
                 QStringLiteral("Nobody is logged in with the profile \"%1\".").arg(profileName));
}

Error TokenStore::remove(const QString& profileName) {
    if (keyringMayExist()) {
        QKeychain::DeletePasswordJob job(service);
        if (!runKeyringJob(job, profileName) && job.error() != QKeychain::EntryNotFound &&
            job.error() != QKeychain::NoBackendAvailable && !QFile::exists(filePath(profileName)))
            return Error(ErrorCode::General,
                         QStringLiteral("The token of the profile \"%1\" cannot be removed from the "
                                        "keyring: %2.")
                             .arg(profileName, job.errorString()));
    }
    return removeFile(profileName);
}

} // namespace halvane::host
