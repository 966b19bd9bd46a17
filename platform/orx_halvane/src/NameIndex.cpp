#include "NameIndex.h"

#include <algorithm>
#include <atomic>

namespace orx {

namespace {

std::atomic<quint64> written = 0;

//! Indexes are made in one go up to this size.
constexpr qsizetype alwaysFew = 16;

bool areFew(qsizetype added, qsizetype most) {
    return added <= alwaysFew || added * added <= most;
}

} // namespace

NameIndex::Ptr NameIndex::of(const QList<HalvaneFileItemSPtr>& files) {
    return NameIndex().with(files);
}

NameIndex::Ptr NameIndex::with(const QList<HalvaneFileItemSPtr>& added) const {
    auto made = std::make_shared<NameIndex>(*this);
    for (const HalvaneFileItemSPtr& file : added)
        made->m_added.insert(file->name(), std::max(made->find(file->name()), file->id()));
    written += quint64(made->m_added.size());
    if (!areFew(made->m_added.size(), m_most->size())) {
        auto all = std::make_shared<Ids>(*m_most);
        all->insert(made->m_added);
        written += quint64(all->size());
        made->m_most = std::move(all);
        made->m_added.clear();
    }
    return made;
}

int NameIndex::find(const QString& name) const {
    const auto found = m_added.constFind(name);
    return found != m_added.cend() ? *found : m_most->value(name, -1);
}

quint64 NameIndex::namesWritten() {
    return written;
}

} // namespace orx
