#pragma once

#include "MsProbe.h"

namespace orx {

//! Looks for the inner files of the kinds that are directories.
MsProbe probeMsDirectory(const QByteArray& path);

} // namespace orx
