#pragma once

#include <Result.h>

#include <QByteArray>
#include <QByteArrayList>

#include <atomic>
#include <functional>
#include <utility>

struct stat;

namespace orx {

//! An open file or directory, closed at the end.
class CacheDescriptor {
public:
    CacheDescriptor() = default;
    explicit CacheDescriptor(int descriptor) : m_descriptor(descriptor) {}
    CacheDescriptor(CacheDescriptor&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}
    CacheDescriptor& operator=(CacheDescriptor&& other) noexcept {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    ~CacheDescriptor();
    int get() const { return m_descriptor; }
    bool isOpen() const { return m_descriptor >= 0; }

private:
    int m_descriptor = -1;
};

//! What the cache does to directories. Names are resolved one component at a time below an open directory and
//! links are never followed, so that nothing planted in the cache leads out of it. \a shown names the thing
//! in messages. Thread: any; blocks on the disk.
namespace CacheFiles {

//! Of a file that is copied or hashed at one time.
constexpr qint64 kBlockBytes = 1024 * 1024;

using CancelFlag = std::atomic<bool>;

Error systemError(const char* what, const QString& shown);
qint64 modifiedNs(const struct stat& status);
//! Modification times are kept in full, so that a file changed within a second differs.
Error setModified(int file, qint64 modifiedNs, const QString& shown);

//! ErrorCode::InvalidArgument for a link.
Result<CacheDescriptor> openDirectory(int parent, const QByteArray& name, const QString& shown);
//! Makes it, for the owner only, when it is missing; the parent is not flushed.
Result<CacheDescriptor> ensureDirectory(int parent, const QByteArray& name, const QString& shown);
//! Below \a top, through all of \a components.
Result<CacheDescriptor> openDirectories(int top, const QByteArrayList& components, const QString& shown);
Result<CacheDescriptor> ensureDirectories(int top, const QByteArrayList& components, const QString& shown);
//! A regular file for reading; ErrorCode::InvalidArgument for anything else.
Result<CacheDescriptor> openFile(int parent, const QByteArray& name, const QString& shown);
Error flush(int descriptor, const QString& shown);

//! Calls for each name in \a directory, in no order; the visitor's error ends it.
Error forEachName(int directory, const QString& shown, const std::function<Error(const QByteArray&)>& visit);
//! Removes a file, a link or a directory with everything in it. A missing one is fine.
Error removeTree(int parent, const QByteArray& name, const QString& shown);

} // namespace CacheFiles

} // namespace orx
