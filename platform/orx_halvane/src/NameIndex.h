#pragma once

#include "HalvaneItems.h"

#include <QHash>

#include <memory>

namespace orx {

//! The largest id of each name in a list of files. One can be made of another for what was added to the list,
//! at a cost that grows with the square root of the list, not with the list: who adds files one by one, and
//! asks for a name before each, does not pay for all that is there each time. Immutable; thread: any.
class ORX_HALVANE_EXPORT NameIndex {
public:
    using Ptr = std::shared_ptr<const NameIndex>;

    static Ptr of(const QList<HalvaneFileItemSPtr>& files);
    //! This one's names and those of \a added.
    Ptr with(const QList<HalvaneFileItemSPtr>& added) const;
    //! -1 when no file has the name.
    int find(const QString& name) const;

    //! How many names this process has put or copied into indexes: what they have cost.
    static quint64 namesWritten();

private:
    using Ids = QHash<QString, int>;
    std::shared_ptr<const Ids> m_most = std::make_shared<const Ids>();
    //! Few, and they count before the others.
    Ids m_added;
};

} // namespace orx
