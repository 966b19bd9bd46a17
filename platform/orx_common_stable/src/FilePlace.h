#pragma once

#include "orx_common_stable_export.h"

#include "Error.h"

#include <QByteArray>

namespace orx {

//! How something that was made beside its place takes it, so that it appears whole or not at all. Paths are
//! bytes, since names need not be valid text. Thread: any.
class ORX_COMMON_STABLE_EXPORT FilePlace {
public:
    //! A name beside \a target that nobody uses; hidden, so that listings made meanwhile do not take it for
    //! data.
    static QByteArray temporaryBeside(const QByteArray& target);
    //! Renames the file or directory \a temporary to \a target, where nothing must be, in one step. Zero, or
    //! what was wrong: EEXIST, ENOTEMPTY or another errno.
    static int take(const QByteArray& temporary, const QByteArray& target);
};

} // namespace orx
