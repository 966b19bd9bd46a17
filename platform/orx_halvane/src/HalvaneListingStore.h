#pragma once

#include "NameIndex.h"

#include <QHash>

#include <list>
#include <memory>
#include <mutex>
#include <optional>

namespace orx {

//! The parsed reply of one listing call. Immutable once it is shared, items included. Thread: any.
struct ORX_HALVANE_EXPORT HalvaneListing {
    //! The reply's entity tag; empty when it had none.
    QByteArray tag;
    //! The server's order; one of the two lists is used.
    QList<HalvaneFileItemSPtr> files;
    QList<HalvaneFolderTreeNodeSPtr> folders;

    qsizetype size() const { return files.size() + folders.size(); }
    //! This listing with the items of \a changes, which are new or in the place of the ones with their ids.
    //! Both are in the order of the ids, and so is the result; it has the tag of \a changes. Unless a file of
    //! this listing got another name, an index of its names goes along.
    std::shared_ptr<HalvaneListing> with(const HalvaneListing& changes) const;
    //! As HalvaneConnectionUtils::findFileIdInFiles(), by an index that is made at the first question.
    int findFileId(const QString& name) const;

private:
    //! Null when nobody has asked.
    NameIndex::Ptr knownNames() const;

    mutable std::mutex m_mutex;
    mutable NameIndex::Ptr m_names;
};

//! Listings of this process, so that a folder that has not changed is not sent and read again: whoever asks
//! sends the entity tag that is kept, and takes the kept listing when the server says that it still holds.
//! Nothing is ever taken without asking. Bounded; what was not used for longest goes first. Thread: any.
class ORX_HALVANE_EXPORT HalvaneListingStore {
public:
    using ListingPtr = std::shared_ptr<const HalvaneListing>;
    //! All kept listings together; an item takes up to about a kilobyte.
    static constexpr qsizetype maxItems = 100'000;
    static constexpr qsizetype maxListings = 1'000;

    static HalvaneListingStore& instance();
    explicit HalvaneListingStore(qsizetype items = maxItems, qsizetype listings = maxListings);

    //! Null when there is none. \a key names the server, the login and the call.
    ListingPtr find(const QByteArray& key);
    //! In the place of what was there. A listing without a tag, or larger than the whole store, is not kept.
    void keep(const QByteArray& key, const ListingPtr& listing);
    //! The kept listing that \a files came from; null when it is another list, or has gone.
    ListingPtr holding(const QList<HalvaneFileItemSPtr>& files) const;
    void clear();

private:
    struct Entry {
        QByteArray key;
        ListingPtr listing;
    };
    using Entries = std::list<Entry>;
    void remove(Entries::iterator entry);

    const qsizetype m_maxItems;
    const qsizetype m_maxListings;
    mutable std::mutex m_mutex;
    //! Last used first.
    Entries m_entries;
    QHash<QByteArray, Entries::iterator> m_byKey;
    QHash<const void*, Entries::iterator> m_byList;
    qsizetype m_items = 0;
};

} // namespace orx
