#pragma once

#include "orx_halvane_export.h"

#include <QHash>
#include <QtGlobal>

#include <optional>

namespace orx {

//! Sums up the bytes of many files to one progress in thousandths. The value never falls. Pure; one thread.
class ORX_HALVANE_EXPORT TreeProgress {
public:
    static constexpr int maximum = 1000;

    //! \a part (0 to 1) of a file of \a bytes is done; \a key is any number of the file's own.
    void setUnderWay(int key, qint64 bytes, double part);
    //! The file is complete.
    void settle(int key, qint64 bytes);
    //! The file failed; nothing of it counts.
    void drop(int key);
    //! The bytes that are done; falls when a file fails.
    qint64 doneBytes() const { return qint64(m_settled + m_underWaySum); }
    //! The value out of \a totalBytes when it has grown since the last call; below the maximum.
    std::optional<int> take(qint64 totalBytes);

private:
    double m_settled = 0;
    double m_underWaySum = 0;
    QHash<int, double> m_underWay;
    int m_taken = 0;
};

} // namespace orx
