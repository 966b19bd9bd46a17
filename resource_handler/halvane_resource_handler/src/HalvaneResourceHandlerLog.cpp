#include "HalvaneResourceHandlerLog.h"

namespace orx {

Q_LOGGING_CATEGORY(halvaneResourceHandlerLog, "orx.halvane_resource_handler_debug", QtInfoMsg)

} // namespace orx
