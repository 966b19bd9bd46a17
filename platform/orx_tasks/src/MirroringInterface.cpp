#include "MirroringInterface.h"

namespace orx {

MirroringInterface::~MirroringInterface() = default;

} // namespace orx
