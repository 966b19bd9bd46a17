#pragma once

#include "halvane_host_export.h"

#include <Result.h>
#include <UploadFileInputValidation.h>

namespace halvane::host {

//! What a user wants uploads of directories to take: the file upload.ini of the configuration directory, see
//! docs/cli.md. The defaults without one. ErrorCode::ParseError, naming the file, when it cannot be
//! understood (also for a key that is not known: a filter that does nothing would let go up what is not to).
HALVANE_HOST_EXPORT orx::Result<orx::UploadFilters> uploadFilters();

} // namespace halvane::host
