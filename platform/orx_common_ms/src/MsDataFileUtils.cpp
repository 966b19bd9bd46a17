#include "MsDataFileUtils.h"

#include "ProbeMemory.h"

namespace orx {

bool MsDataFileUtils::isValidMsData(const QString& path) {
    return checkMsData(path).isValid();
}

MsDataCheck MsDataFileUtils::checkMsData(const QString& path) {
    return ProbeMemory::instance().check(path);
}

} // namespace orx
