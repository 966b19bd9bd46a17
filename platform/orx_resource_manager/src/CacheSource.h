#pragma once

#include "CachePayload.h"

#include <PathImpl.h>

#include <QMutex>

#include <memory>
#include <optional>

struct stat;

namespace orx {

//! A file or directory that is to be copied into the cache: opened at once, which costs the same whatever is
//! in it, and copied later. A file may be removed meanwhile and a directory renamed, as far as a bound on
//! open files allows; the others are opened again and must be the same. Links in it are refused. Thread: any
//! for list(), one for the others.
class CacheSource {
public:
    //! ErrorCode::NotFound, InvalidArgument (something special) or the system's error.
    static Result<std::shared_ptr<CacheSource>> open(const Path& path);
    CacheSource(const CacheSource&) = delete;
    CacheSource& operator=(const CacheSource&) = delete;
    ~CacheSource();

    bool isDirectory() const { return m_top.type == PathType::Dir; }
    //! Looks at what is in a directory: that is what is copied. Done once, however often it is called.
    //! ErrorCode::FileChanged when the directory changed since open(), InvalidArgument for links.
    Error list(const CacheFiles::CancelFlag& cancel);
    //! ErrorCode::InvalidArgument when it has more than \a maxBytes; of a directory that is known when it was
    //! listed.
    Error checkFits(std::optional<qint64> maxBytes) const;
    //! Makes \a name in \a parent a copy, shared with the source where the file system can, and hashes what
    //! it wrote; \a shown names the copy in messages. ErrorCode::FileChanged when the source changed since
    //! open() or, in a directory, since list(); ErrorCode::Canceled.
    Result<CachePayload> copyTo(int parent, const QByteArray& name, const QString& shown,
                                const CacheFiles::CancelFlag& cancel);

private:
    class KeptDescriptor;
    explicit CacheSource(const QString& shown);
    Error openTop(const Path& path);
    bool isSame(const struct stat& status) const;
    Result<CacheDescriptor> openAgain() const;
    Error listNow(const CacheFiles::CancelFlag& cancel);
    Result<CachePayload> copyFile(int parent, const QByteArray& name, const QString& shown,
                                  const CacheFiles::CancelFlag& cancel);
    Error copyItem(int top, int target, const QString& shown, CachePayload::Item& item,
                   const CacheFiles::CancelFlag& cancel);
    Result<CachePayload> copyTree(int target, const QString& shown, const CacheFiles::CancelFlag& cancel);

    const QString m_shown;
    QByteArray m_path;
    //! As it was when it was opened.
    quint64 m_device = 0;
    quint64 m_inode = 0;
    CachePayload::Item m_top;
    std::unique_ptr<KeptDescriptor> m_kept;
    //! Of a directory, from list() on.
    QMutex m_mutex;
    std::optional<Error> m_listed;
    CachePayload m_content;
};

} // namespace orx
