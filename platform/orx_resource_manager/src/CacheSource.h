#pragma once

#include "CachePayload.h"

#include <PathImpl.h>

#include <vector>

struct stat;

namespace orx {

//! A file or directory that is to be copied into the cache: opened at once, so that it may be removed, and
//! copied later. Of a directory the files are opened too, as far as a bound on open files allows; the others
//! must still be there, unchanged, when their turn comes. Links are refused. Thread: one at a time.
class CacheSource {
public:
    //! ErrorCode::NotFound, InvalidArgument (a link, something special) or the system's error.
    static Result<CacheSource> open(const Path& path);
    CacheSource(CacheSource&&) noexcept;
    CacheSource& operator=(CacheSource&&) noexcept;
    ~CacheSource();

    qint64 bytes() const { return m_bytes; }
    //! Makes \a name in \a parent a copy, shared with the source where the file system can, and hashes what
    //! it wrote. ErrorCode::FileChanged when the source changed since open(), ErrorCode::Canceled.
    Result<CachePayload> copyTo(int parent, const QByteArray& name, const CacheFiles::CancelFlag& cancel);

private:
    struct Item;
    CacheSource();
    Error openTop(const Path& path);
    Error walk(int directory, const QByteArray& prefix);
    Error addItem(int directory, const QByteArray& prefix, const QByteArray& name);
    Result<CacheDescriptor> openItem(const Item& item) const;
    Result<QByteArray> copyItem(Item& item, int parent, const QByteArray& name,
                                const CacheFiles::CancelFlag& cancel);
    Error copyTree(int target, CachePayload& payload, const CacheFiles::CancelFlag& cancel);
    QString shown(const Item& item) const;

    QString m_shown;
    //! Of a directory.
    CacheDescriptor m_top;
    bool m_isDirectory = false;
    qint64 m_bytes = 0;
    //! The file itself, or what is in the directory, parents first.
    std::vector<Item> m_items;
};

} // namespace orx
