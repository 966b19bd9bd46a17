#pragma once

#include <QStringList>

namespace orx {

//! Texts that a person should see although the operation succeeded; in the order in which they arose.
using Warnings = QStringList;

} // namespace orx
