#include "HalvaneListingStore.h"

namespace orx {

namespace {

//! What tells lists apart: copies of one list share it. Null for an empty one.
const void* identityOf(const QList<HalvaneFileItemSPtr>& files) {
    return files.isEmpty() ? nullptr : static_cast<const void*>(files.constData());
}

//! New items have larger ids than all that were there before, so that they go to the end.
template <typename Item>
void merge(QList<Item>& items, const QList<Item>& changes) {
    const auto isBefore = [](const Item& item, const Item& other) { return item->id() < other->id(); };
    for (const Item& change : changes) {
        const auto place = std::lower_bound(items.begin(), items.end(), change, isBefore);
        if (place != items.end() && (*place)->id() == change->id())
            *place = change;
        else
            items.insert(place, change);
    }
}

} // namespace

std::shared_ptr<HalvaneListing> HalvaneListing::with(const HalvaneListing& changes) const {
    auto merged = std::make_shared<HalvaneListing>();
    merged->tag = changes.tag;
    merged->files = files;
    merged->folders = folders;
    merge(merged->files, changes.files);
    merge(merged->folders, changes.folders);
    return merged;
}

int HalvaneListing::findFileId(const QString& name) const {
    std::call_once(m_indexed, [this] {
        m_index.reserve(files.size());
        for (const HalvaneFileItemSPtr& file : files) {
            int& id = m_index.insert(file->name(), m_index.value(file->name(), -1)).value();
            id = std::max(id, file->id());
        }
    });
    return m_index.value(name, -1);
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
