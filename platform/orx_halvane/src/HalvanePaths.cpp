#include "HalvanePaths.h"

#include <AtomicFile.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <cerrno>

#include <sys/stat.h>

namespace orx {

namespace {

constexpr const char* kConfigVariable = "HALVANE_CONFIG_DIR";
constexpr const char* kCacheVariable = "HALVANE_CACHE_DIR";

QString directory(const char* variable, QStandardPaths::StandardLocation location) {
    const QString given = qEnvironmentVariable(variable);
    const QString dir =
        given.isEmpty() ? QStandardPaths::writableLocation(location) + QStringLiteral("/halvane") : given;
    return QDir::cleanPath(QDir(dir).absolutePath());
}

} // namespace

QString HalvanePaths::configDir() {
    return directory(kConfigVariable, QStandardPaths::GenericConfigLocation);
}

QString HalvanePaths::cacheDir() {
    return directory(kCacheVariable, QStandardPaths::GenericCacheLocation);
}

bool HalvanePaths::configDirIsOverridden() {
    return !qEnvironmentVariableIsEmpty(kConfigVariable);
}

Error HalvanePaths::ensurePrivateDir(const QString& dir) {
    const QFileInfo info(dir);
    if (info.isDir())
        return Error();
    const QString parent = info.absolutePath();
    if (parent != info.absoluteFilePath())
        ORX_RETURN_ON_ERROR(ensurePrivateDir(parent));
    if (::mkdir(QFile::encodeName(dir).constData(), S_IRWXU) != 0) {
        const int failure = errno;
        // Another process may have made it meanwhile.
        if (failure == EEXIST && QFileInfo(dir).isDir())
            return Error();
        return ORX_ECATCH(Error::fromErrno(
            failure, QCoreApplication::translate("orx::HalvanePaths", "Could not create the directory \"%1\"")
                         .arg(dir)));
    }
    return ORX_ECATCH(AtomicFile::syncDirectory(parent));
}

} // namespace orx
