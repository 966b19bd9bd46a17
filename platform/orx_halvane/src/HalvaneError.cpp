#include "HalvaneError.h"

namespace orx {

Error halvaneError(HalvaneServerErrorCode code, const QString& message) {
    return Error(ErrorDomain::Server, int(code), message);
}

} // namespace orx
