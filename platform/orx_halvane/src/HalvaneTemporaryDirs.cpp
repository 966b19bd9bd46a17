#include "HalvaneTemporaryDirs.h"

#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QMutex>
#include <QMutexLocker>

#include <algorithm>

namespace orx {

namespace {

struct Registry {
    QMutex mutex;
    //! By the name that was given, since a removed directory has no canonical path any more.
    QHash<QString, QString> prefixes;
};

Registry& registry() {
    static Registry instance;
    return instance;
}

} // namespace

QString canonicalLocalPath(const QString& localPath) {
    const QFileInfo info(localPath);
    const QString canonical = info.canonicalFilePath();
    return canonical.isEmpty() ? QDir::cleanPath(info.absoluteFilePath()) : canonical;
}

void HalvaneTemporaryDirs::add(const QString& dir) {
    QString prefix = canonicalLocalPath(dir);
    if (!prefix.endsWith(u'/'))
        prefix += u'/';
    const QMutexLocker lock(&registry().mutex);
    registry().prefixes.insert(dir, prefix);
}

void HalvaneTemporaryDirs::remove(const QString& dir) {
    const QMutexLocker lock(&registry().mutex);
    registry().prefixes.remove(dir);
}

bool HalvaneTemporaryDirs::contains(const QString& canonicalPath) {
    const QMutexLocker lock(&registry().mutex);
    const auto& prefixes = registry().prefixes;
    return std::any_of(prefixes.begin(), prefixes.end(),
                       [&](const QString& prefix) { return canonicalPath.startsWith(prefix); });
}

} // namespace orx
