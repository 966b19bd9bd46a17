#pragma once

#include <QLoggingCategory>

namespace orx {

//! Everything that this library logs: category "orx.halvane_resource_handler_debug", info level and above
//! unless the logging rules say otherwise.
Q_DECLARE_LOGGING_CATEGORY(halvaneResourceHandlerLog)

} // namespace orx
