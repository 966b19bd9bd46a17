#pragma once

#include "halvane_host_export.h"

#include <Result.h>
#include <RunSummary.h>

#include <QByteArray>
#include <QString>

#include <optional>

namespace halvane::host {

enum class PlotFormat { Svg, Png };

//! By the end of the name, whatever the case of its letters; nothing for other names.
HALVANE_HOST_EXPORT std::optional<PlotFormat> plotFormatOf(const QString& path);

//! A picture of the run's total ion current and base peak over retention time, under \a title: the content of
//! a file. ErrorCode::NotFound, with the reason, when the run has no trace; ParseError when
//! its times are none that can be drawn; General when this machine's
//! drawing library cannot make the format. One at a time in a process.
HALVANE_HOST_EXPORT orx::Result<QByteArray> drawRun(const orx::RunSummary& run, const QString& title,
                                                    PlotFormat format);

} // namespace halvane::host
