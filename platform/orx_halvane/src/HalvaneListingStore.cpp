#include "HalvaneListingStore.h"

namespace orx {

namespace {

//! What tells lists apart: copies of one list share it. Null for an empty one.
const void* identityOf(const QList<HalvaneFileItemSPtr>& files) {
    return files.isEmpty() ? nullptr : static_cast<const void*>(files.constData());
}

template <typename Item>
auto placeOf(QList<Item>& items, int id) {
    return std::lower_bound(items.begin(), items.end(), id,
                            [](const Item& item, int wanted) { return item->id() < wanted; });
}

//! New items have larger ids than all that were there before, so that they go to the end.
template <typename Item>
void merge(QList<Item>& items, const QList<Item>& changes) {
    for (const Item& change : changes) {
        const auto place = placeOf(items, change->id());
        if (place != items.end() && (*place)->id() == change->id())
            *place = change;
        else
            items.insert(place, change);
    }
}

//! Whether a file of \a files has another name in \a changes.
bool isAnyRenamed(QList<HalvaneFileItemSPtr>& files, const QList<HalvaneFileItemSPtr>& changes) {
    return std::any_of(changes.begin(), changes.end(), [&files](const HalvaneFileItemSPtr& change) {
        const auto place = placeOf(files, change->id());
        return place != files.end() && (*place)->id() == change->id() && (*place)->name() != change->name();
    });
}

} // namespace

std::shared_ptr<HalvaneListing> HalvaneListing::with(const HalvaneListing& changes) const {
    auto merged = std::make_shared<HalvaneListing>();
    merged->tag = changes.tag;
    merged->files = files;
    merged->folders = folders;
    if (const NameIndex::Ptr names = knownNames(); names && !isAnyRenamed(merged->files, changes.files))
        merged->m_names = names->with(changes.files);
    merge(merged->files, changes.files);
    merge(merged->folders, changes.folders);
    return merged;
}

int HalvaneListing::findFileId(const QString& name) const {
    const std::lock_guard lock(m_mutex);
    if (!m_names)
        m_names = NameIndex::of(files);
    return m_names->find(name);
}

NameIndex::Ptr HalvaneListing::knownNames() const {
    const std::lock_guard lock(m_mutex);
    return m_names;
}

HalvaneListingStore& HalvaneListingStore::instance() {
    static HalvaneListingStore store;
    return store;
}

HalvaneListingStore::HalvaneListingStore(qsizetype items, qsizetype listings)
    : m_maxItems(items), m_maxListings(listings) {}

HalvaneListingStore::ListingPtr HalvaneListingStore::find(const QByteArray& key) {
    const std::lock_guard lock(m_mutex);
    const auto found = m_byKey.constFind(key);
    if (found == m_byKey.cend())
        return nullptr;
    m_entries.splice(m_entries.begin(), m_entries, *found);
    return (*found)->listing;
}

void HalvaneListingStore::keep(const QByteArray& key, const ListingPtr& listing) {
    const std::lock_guard lock(m_mutex);
    if (const auto old = m_byKey.constFind(key); old != m_byKey.cend())
        remove(*old);
    if (listing->tag.isEmpty() || listing->size() > m_maxItems)
        return;
    m_entries.push_front({key, listing});
    m_byKey.insert(key, m_entries.begin());
    if (const void* list = identityOf(listing->files))
        m_byList.insert(list, m_entries.begin());
    m_items += listing->size();
    while (m_items > m_maxItems || qsizetype(m_entries.size()) > m_maxListings)
        remove(std::prev(m_entries.end()));
}

void HalvaneListingStore::remove(Entries::iterator entry) {
    m_items -= entry->listing->size();
    m_byKey.remove(entry->key);
    m_byList.remove(identityOf(entry->listing->files));
    m_entries.erase(entry);
}

HalvaneListingStore::ListingPtr HalvaneListingStore::holding(const QList<HalvaneFileItemSPtr>& files) const {
    const void* const list = identityOf(files);
    const std::lock_guard lock(m_mutex);
    const auto found = list ? m_byList.constFind(list) : m_byList.cend();
    return found == m_byList.cend() ? nullptr : (*found)->listing;
}

void HalvaneListingStore::clear() {
    const std::lock_guard lock(m_mutex);
    m_entries.clear();
    m_byKey.clear();
    m_byList.clear();
    m_items = 0;
}

} // namespace orx
