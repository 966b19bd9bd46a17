#include "MsDataFileUtils.h"

#include "ProbeMemory.h"
#include "ProbeParts.h"

#include <QFileInfo>

namespace orx {

namespace {

//! By the name of the companion; empty for any other name.
QString wantedOwner(const QString& companion) {
    constexpr QLatin1String scan(".scan"), binary(".ibd");
    if (companion.endsWith(QLatin1String(".wiff") + scan, Qt::CaseInsensitive))
        return companion.chopped(scan.size());
    if (companion.endsWith(binary, Qt::CaseInsensitive))
        return companion.chopped(binary.size()) + QStringLiteral(".imzML");
    return {};
}

QString validOwner(const QString& wanted, const QString& companion) {
    std::vector<MsProbe::Witness> witnesses;
    const QString owner = findFile(wanted, witnesses).path;
    if (owner.isEmpty())
        return {};
    const MsDataCheck check = MsDataFileUtils::checkMsData(owner);
    const QString file = QFileInfo(companion).absoluteFilePath();
    return check.isValid() && check.companions.contains(file) ? owner : QString();
}

} // namespace

bool MsDataFileUtils::isValidMsData(const QString& path) {
    return checkMsData(path).isValid();
}

MsDataCheck MsDataFileUtils::checkMsData(const QString& path) {
    return ProbeMemory::instance().check(path);
}

bool MsDataFileUtils::mayBeCompanion(const QString& path) {
    return !wantedOwner(path).isEmpty();
}

QString MsDataFileUtils::ownerOfCompanion(const QString& path) {
    const QString wanted = wantedOwner(path);
    return wanted.isEmpty() ? QString() : validOwner(wanted, path);
}

} // namespace orx
