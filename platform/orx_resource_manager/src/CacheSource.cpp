#include "CacheSource.h"

#include <ContentHash.h>

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orx {

using namespace CacheFiles;

namespace {

//! Of all sources that wait, so that many small additions do not use up the process's descriptors.
constexpr int kMostOpenFiles = 64;
std::atomic<int> openFiles = 0;

QString translated(const char* text) {
    return QCoreApplication::translate("orx::ResourceCache", text);
}

Error changedSource(const QString& shown) {
    return Error(ErrorCode::FileChanged,
                 translated("\"%1\" changed or was removed before it was copied into the cache.").arg(shown));
}

Error notKept(const QString& shown) {
    return Error(ErrorCode::InvalidArgument,
                 translated("\"%1\" is a link or a special file, which the cache does not keep.").arg(shown));
}

//! One of the bounded number of descriptors of sources.
class KeptFile {
public:
    KeptFile() = default;
    explicit KeptFile(CacheDescriptor file) : m_file(std::move(file)) {}
    KeptFile(KeptFile&&) noexcept = default;
    KeptFile& operator=(KeptFile&&) noexcept = default;
    ~KeptFile() {
        if (m_file.isOpen())
            --openFiles;
    }
    //! Whether one more may be kept; counts it.
    static bool reserve() {
        if (++openFiles <= kMostOpenFiles)
            return true;
        --openFiles;
        return false;
    }
    bool isOpen() const { return m_file.isOpen(); }
    CacheDescriptor take() {
        if (m_file.isOpen())
            --openFiles;
        return std::move(m_file);
    }

private:
    CacheDescriptor m_file;
};

} // namespace

struct CacheSource::Item {
    //! Below the directory; of a file as the source, its path.
    QByteArray path;
    PathType type = PathType::Unknown;
    qint64 bytes = 0;
    qint64 modifiedNs = 0;
    dev_t device = 0;
    ino_t inode = 0;
    KeptFile file;

    bool isSame(const struct stat& status) const {
        return status.st_dev == device && status.st_ino == inode && status.st_size == bytes &&
               CacheFiles::modifiedNs(status) == modifiedNs;
    }
};

CacheSource::CacheSource() = default;
CacheSource::CacheSource(CacheSource&&) noexcept = default;
CacheSource& CacheSource::operator=(CacheSource&&) noexcept = default;
CacheSource::~CacheSource() = default;

Result<CacheSource> CacheSource::open(const Path& path) {
    CacheSource source;
    source.m_shown = path.toString();
    ORX_RETURN_ON_ERROR(source.openTop(path));
    return source;
}

Error CacheSource::openTop(const Path& path) {
    // A link may name the source; those within it are refused.
    const QByteArray name = QFile::encodeName(QFileInfo(path.toString()).canonicalFilePath());
    struct stat status {};
    if (::lstat(name.constData(), &status) != 0) {
        if (errno == ENOENT)
            return Error(ErrorCode::NotFound, translated("\"%1\" does not exist.").arg(m_shown));
        return systemError("Could not open \"%1\"", m_shown);
    }
    m_isDirectory = S_ISDIR(status.st_mode);
    if (!m_isDirectory)
        return addItem(AT_FDCWD, QByteArray(), name);
    auto top = openDirectory(AT_FDCWD, name, m_shown);
    if (top.hasError())
        return std::move(top).error();
    m_top = std::move(*top);
    return walk(m_top.get(), QByteArray());
}

Error CacheSource::walk(int directory, const QByteArray& prefix) {
    return forEachName(directory, m_shown,
                       [&](const QByteArray& name) { return addItem(directory, prefix, name); });
}

Error CacheSource::addItem(int directory, const QByteArray& prefix, const QByteArray& name) {
    Item item;
    item.path = prefix + name;
    const bool keep = KeptFile::reserve();
    CacheDescriptor opened(
        ::openat(directory, name.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    const int failure = opened.isOpen() ? 0 : errno;
    struct stat status {};
    const bool known = opened.isOpen() && ::fstat(opened.get(), &status) == 0;
    const bool isFile = known && S_ISREG(status.st_mode);
    if (keep && !isFile)
        --openFiles;
    if (failure == ELOOP || (known && !isFile && !S_ISDIR(status.st_mode)))
        return notKept(shown(item));
    errno = failure;
    if (!known)
        return systemError("Could not open \"%1\"", shown(item));
    item.type = isFile ? PathType::File : PathType::Dir;
    item.bytes = isFile ? status.st_size : 0;
    item.modifiedNs = CacheFiles::modifiedNs(status);
    item.device = status.st_dev;
    item.inode = status.st_ino;
    m_bytes += item.bytes;
    if (!isFile) {
        const QByteArray below = item.path + '/';
        m_items.push_back(std::move(item));
        return walk(opened.get(), below);
    }
    if (keep)
        item.file = KeptFile(std::move(opened));
    m_items.push_back(std::move(item));
    return Error();
}

QString CacheSource::shown(const Item& item) const {
    return m_isDirectory ? m_shown + u'/' + QFile::decodeName(item.path) : m_shown;
}

//! Those of which no descriptor was kept are found again by their path and are to be the same.
Result<CacheDescriptor> CacheSource::openItem(const Item& item) const {
    QByteArrayList components;
    QByteArray name = item.path;
    if (m_isDirectory) {
        components = item.path.split('/');
        name = components.takeLast();
    }
    CacheDescriptor parent;
    if (m_isDirectory) {
        auto directory = openDirectories(m_top.get(), components, shown(item));
        if (directory.hasError())
            return changedSource(shown(item));
        parent = std::move(*directory);
    }
    auto file = openFile(m_isDirectory ? parent.get() : AT_FDCWD, name, shown(item));
    if (file.hasError())
        return changedSource(shown(item));
    return file;
}

namespace {

Error writeAll(int file, const char* data, qint64 size, const QString& shown) {
    while (size > 0) {
        const ssize_t written = ::write(file, data, size_t(size));
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return systemError("Could not copy \"%1\" into the cache", shown);
        data += written;
        size -= written;
    }
    return Error();
}

//! Reads \a from once: hashes it and, unless \a to shares its blocks already, writes it there.
Result<QByteArray> copyAndHash(int from, int to, bool isShared, const QString& shown,
                               const CancelFlag& cancel) {
    ContentHash hash;
    QByteArray block(kBlockBytes, Qt::Uninitialized);
    ::posix_fadvise(from, 0, 0, POSIX_FADV_SEQUENTIAL);
    for (qint64 at = 0;;) {
        if (cancel)
            return Error(ErrorCode::Canceled, translated("Cancelled."));
        const ssize_t got = ::pread(from, block.data(), size_t(block.size()), at);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return systemError("Could not read \"%1\"", shown);
        if (got == 0)
            return hash.hexDigest();
        hash.add(block.constData(), got);
        if (!isShared) {
            ORX_RETURN_ON_ERROR(writeAll(to, block.constData(), got, shown));
            // Spreads the writing out, so that the flush at the end is short and memory stays free.
            ::sync_file_range(to, at, got, SYNC_FILE_RANGE_WRITE);
        }
        at += got;
    }
}

} // namespace

Result<QByteArray> CacheSource::copyItem(Item& item, int parent, const QByteArray& name,
                                         const CancelFlag& cancel) {
    CacheDescriptor from = item.file.take();
    if (!from.isOpen()) {
        auto opened = openItem(item);
        if (opened.hasError())
            return std::move(opened).error();
        from = std::move(*opened);
    }
    struct stat status {};
    if (::fstat(from.get(), &status) != 0 || !item.isSame(status))
        return changedSource(shown(item));
    const CacheDescriptor to(
        ::openat(parent, name.constData(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!to.isOpen())
        return systemError("Could not copy \"%1\" into the cache", shown(item));
    const bool isShared = ::ioctl(to.get(), FICLONE, from.get()) == 0;
    auto digest = copyAndHash(isShared ? to.get() : from.get(), to.get(), isShared, shown(item), cancel);
    if (digest.hasError())
        return digest;
    struct stat written {};
    if (::fstat(from.get(), &status) != 0 || !item.isSame(status) || ::fstat(to.get(), &written) != 0 ||
        written.st_size != item.bytes)
        return changedSource(shown(item));
    ORX_RETURN_ON_ERROR(setModified(to.get(), item.modifiedNs, shown(item)));
    // As the file system keeps it.
    if (::fstat(to.get(), &written) != 0)
        return systemError("Could not look at the copy of \"%1\"", shown(item));
    item.modifiedNs = CacheFiles::modifiedNs(written);
    return digest;
}

Error CacheSource::copyTree(int target, CachePayload& payload, const CancelFlag& cancel) {
    for (Item& item : m_items) {
        QByteArrayList components = item.path.split('/');
        const QByteArray name = components.takeLast();
        const auto parent = openDirectories(target, components, shown(item));
        if (parent.hasError())
            return parent.error();
        CachePayload::Item made{item.path, item.type, item.bytes, 0, {}};
        if (item.type == PathType::Dir) {
            if (::mkdirat(parent->get(), name.constData(), 0777) != 0)
                return systemError("Could not copy \"%1\" into the cache", shown(item));
        } else {
            auto digest = copyItem(item, parent->get(), name, cancel);
            if (digest.hasError())
                return std::move(digest).error();
            made.modifiedNs = item.modifiedNs;
            made.sha256 = *digest;
            ++payload.files;
        }
        payload.bytes += made.bytes;
        payload.items.push_back(std::move(made));
    }
    std::sort(payload.items.begin(), payload.items.end(),
              [](const auto& a, const auto& b) { return a.path < b.path; });
    return Error();
}

Result<CachePayload> CacheSource::copyTo(int parent, const QByteArray& name, const CancelFlag& cancel) {
    CachePayload payload;
    payload.type = m_isDirectory ? PathType::Dir : PathType::File;
    if (!m_isDirectory) {
        Item& item = m_items.front();
        auto digest = copyItem(item, parent, name, cancel);
        if (digest.hasError())
            return std::move(digest).error();
        payload.bytes = item.bytes;
        payload.files = 1;
        payload.modifiedNs = item.modifiedNs;
        payload.sha256 = *digest;
        return payload;
    }
    const auto target = ensureDirectory(parent, name, m_shown);
    if (target.hasError())
        return target.error();
    ORX_RETURN_ON_ERROR(copyTree(target->get(), payload, cancel));
    return payload;
}

} // namespace orx
