#pragma once

#include "halvane_host_export.h"

#include <Result.h>

#include <QString>

#include <chrono>

namespace halvane::host {

//! A size as a person writes it: "500M", "20G", "1T", "4096"; letters of either case, K is 1024 bytes. In
//! bytes. ErrorCode::InvalidArgument, showing the forms, for anything else and for what does not fit into 63
//! bits.
HALVANE_HOST_EXPORT orx::Result<qint64> parseSize(const QString& text);

//! An age as a person writes it: "90s", "30m", "12h", "30d", "8w". ErrorCode::InvalidArgument, showing the
//! forms, for anything else and for more than a thousand years.
HALVANE_HOST_EXPORT orx::Result<std::chrono::seconds> parseAge(const QString& text);

} // namespace halvane::host
