#pragma once

#include "HalvaneUploadJournal.h"

namespace orx {

//! Holds a record of the upload journal for this process and releases it when it goes, wherever that is, so
//! that a later run can go on with it. Releases and removals happen on a worker; one that fails is logged.
//! Thread: one at a time, any.
class ORX_HALVANE_EXPORT JournalHold {
public:
    JournalHold() = default;
    explicit JournalHold(qint64 rowId) : m_rowId(rowId) {}
    ~JournalHold() { release(); }
    JournalHold(JournalHold&& other) noexcept : m_rowId(std::exchange(other.m_rowId, -1)) {}
    JournalHold& operator=(JournalHold&& other) noexcept;

    //! Releases now. Nothing when nothing is held.
    void release();
    //! Removes the record: all of its upload is done, and the one who asked for it hears of it. Nothing when
    //! nothing is held.
    void remove();
    //! Does not release any more: somebody else holds the record, or it was removed.
    qint64 dismiss() { return std::exchange(m_rowId, -1); }
    qint64 rowId() const { return m_rowId; }

    //! Thread: a worker. Returns when all that was released or removed up to now is so in the journal;
    //! called before a record is looked for.
    static void awaitReleases();

private:
    qint64 m_rowId = -1;
};

} // namespace orx
