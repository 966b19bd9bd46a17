#pragma once

#include "orx_halvane_export.h"

#include <QSet>
#include <QString>

namespace orx {

//! The names that the items of one folder get in one directory. The server lets siblings share a name, a
//! directory does not: the first item of a name keeps it, each further one gets a free name that tells which
//! item it is: `run (file 12).mzML`, `2026 (folder 9)`. The names depend on the items alone, so that a second
//! download finds what the first one brought. Letter case counts. Pure.
class ORX_HALVANE_EXPORT LocalNames {
public:
    enum class Kind { File, Folder };

    //! Takes \a name as it is; false when it is taken already.
    bool take(const QString& name);
    //! A free name for an item whose own name is taken, and takes it. At most DownloadNames::maxBytes long.
    QString takeFree(const QString& name, Kind kind, int id);

private:
    QSet<QString> m_taken;
};

} // namespace orx
