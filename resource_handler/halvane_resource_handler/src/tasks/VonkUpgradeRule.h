#pragma once

#include <QVersionNumber>

namespace orx {

//! Whether a packed acquisition of format version \a file is upgraded before it is uploaded by a program that
//! writes \a current: only the first segments count, and a version without segments counts as 0.
inline bool isVonkUpgradeNeeded(const QVersionNumber& file, const QVersionNumber& current) {
    return file.majorVersion() < current.majorVersion();
}

} // namespace orx
