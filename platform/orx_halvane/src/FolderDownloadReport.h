#pragma once

#include "HalvaneDownloadFolderTask.h"

namespace orx {

//! What came of the items of a folder download, and what the download as a whole ends with. Pure.
class ORX_HALVANE_EXPORT FolderDownloadReport {
public:
    //! So many failures in a row for reasons that are no item's own end the download.
    static constexpr int hopelessInARow = 8;
    //! So many further failures, and so many warnings of items, are told; beyond that they are counted.
    static constexpr int toldAsWarnings = 100;

    void addFailure(const QString& path, const Error& error);
    void addSuccess() { m_inARow = 0; }
    //! Of failed items; those of the others reach the task by themselves.
    void addWarnings(const Warnings& warnings);
    QList<HalvaneDownloadFailure> failures() const { return m_failures; }
    //! Whether everything else would fail as well.
    bool isHopeless() const { return m_hopeless; }
    //! The first failure, or no error; warnings in either case. \a notTried: files that were given up.
    Error outcome(int notTried) const;

private:
    Error firstFailure(int notTried) const;
    void tellOthers(Error& outcome) const;

    QList<HalvaneDownloadFailure> m_failures;
    Warnings m_warnings;
    int m_untoldWarnings = 0;
    int m_inARow = 0;
    bool m_hopeless = false;
};

} // namespace orx
