#include "MsDataFileUtils.h"

#include "ProbeMemory.h"
#include "ProbeParts.h"

#include <QFileInfo>

namespace orx {

namespace {

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

QString MsDataFileUtils::ownerOfCompanion(const QString& path) {
    constexpr QLatin1String scan(".scan"), binary(".ibd");
    if (path.endsWith(QLatin1String(".wiff") + scan, Qt::CaseInsensitive))
        return validOwner(path.chopped(scan.size()), path);
    if (path.endsWith(binary, Qt::CaseInsensitive))
        return validOwner(path.chopped(binary.size()) + QStringLiteral(".imzML"), path);
    return {};
}

} // namespace orx
