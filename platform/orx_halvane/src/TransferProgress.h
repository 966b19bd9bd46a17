#pragma once

#include "orx_halvane_export.h"

#include <QHash>
#include <QtGlobal>

#include <optional>

namespace orx {

//! Sums up the bytes of one transfer so that none counts twice, however often it is sent, and maps them to
//! per cent. Neither the sum nor the percentage ever falls. Pure; one thread.
class ORX_HALVANE_EXPORT TransferProgress {
public:
    //! What the percentages count up to.
    static constexpr int maximum = 100;

    explicit TransferProgress(qint64 totalBytes);

    //! Counts anew, up to \a totalBytes; what was shown stays until more has been done.
    void startOver(qint64 totalBytes);
    //! Bytes that were there before; they count as done.
    void addResumed(qint64 bytes);
    //! The running sum of one piece under way; starts again at 0 when the piece is sent again.
    void setUnderWay(int piece, qint64 bytes);
    //! The piece under way has ended, and \a bytes of it count for good.
    void settle(int piece, qint64 bytes);
    //! The transfer succeeded as a whole: only this makes it 100 per cent.
    void complete();

    qint64 total() const { return m_total; }
    //! Resumed bytes included; at most the total.
    qint64 done() const { return m_done; }
    qint64 resumed() const { return m_resumed; }
    //! The percentage when it has grown since the last call; 100 comes after complete() only, and then always
    //! once.
    std::optional<int> takePercent();

private:
    void update();
    qint64 m_total;
    qint64 m_resumed = 0;
    qint64 m_settled = 0;
    qint64 m_done = 0;
    int m_taken = 0;
    bool m_complete = false;
    QHash<int, qint64> m_underWay;
};

} // namespace orx
