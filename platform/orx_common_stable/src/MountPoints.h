#pragma once

#include "orx_common_stable_export.h"

#include <QByteArray>
#include <QList>

namespace orx {

//! What is mounted where, as the kernel tells it in /proc/self/mountinfo (proc(5)): for kernels before 5.8
//! and for what emulates one, which do not say of an entry whether something is mounted there. Pure; paths
//! are bytes.
class ORX_COMMON_STABLE_EXPORT MountPoints {
public:
    //! \a mountinfo: the whole of it. Lines that cannot be understood count for nothing.
    explicit MountPoints(const QByteArray& mountinfo);

    //! The first mount point that is the canonical \a path or lies below it; empty when there is none.
    QByteArray within(const QByteArray& path) const;

private:
    QList<QByteArray> m_points;
};

} // namespace orx
