#include "CacheSource.h"

#include "CacheStore.h"

#include <ContentHash.h>

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>

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
constexpr int kMostKept = 64;
std::atomic<int> keptDescriptors = 0;

QString translated(const char* text) {
    return QCoreApplication::translate("orx::ResourceCache", text);
}

Error changedSource(const QString& shown) {
    return Error(
        ErrorCode::FileChanged,
        translated(
            "\"%1\" changed or was removed before it was copied into the cache; try again when nothing "
            "changes it any more.")
            .arg(shown));
}

} // namespace

//! One of the bounded number of descriptors of sources that wait.
class CacheSource::KeptDescriptor {
public:
    //! None when as many are kept as may be.
    static std::unique_ptr<KeptDescriptor> tryKeep(CacheDescriptor& descriptor) {
        if (++keptDescriptors <= kMostKept)
            return std::unique_ptr<KeptDescriptor>(new KeptDescriptor(std::move(descriptor)));
        --keptDescriptors;
        return nullptr;
    }
    ~KeptDescriptor() { --keptDescriptors; }
    KeptDescriptor(const KeptDescriptor&) = delete;
    KeptDescriptor& operator=(const KeptDescriptor&) = delete;
    int get() const { return m_descriptor.get(); }

private:
    explicit KeptDescriptor(CacheDescriptor descriptor) : m_descriptor(std::move(descriptor)) {}
    CacheDescriptor m_descriptor;
};

CacheSource::CacheSource(const QString& shown) : m_shown(shown) {}
CacheSource::~CacheSource() = default;

Result<std::shared_ptr<CacheSource>> CacheSource::open(const Path& path) {
    std::shared_ptr<CacheSource> source(new CacheSource(path.toString()));
    ORX_RETURN_ON_ERROR(source->openTop(path));
    return source;
}

Error CacheSource::openTop(const Path& path) {
    // A link may name the source; those within it are refused.
    m_path = QFile::encodeName(QFileInfo(path.toString()).canonicalFilePath());
    // Not to wait for the other end of a pipe.
    CacheDescriptor opened(::open(m_path.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!opened.isOpen() || ::fstat(opened.get(), &status) != 0) {
        if (errno == ENOENT)
            return Error(ErrorCode::NotFound, translated("\"%1\" does not exist.").arg(m_shown));
        return systemError("Could not open \"%1\"", m_shown);
    }
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode))
        return Error(ErrorCode::InvalidArgument,
                     translated("\"%1\" is a special file, which the cache does not keep.").arg(m_shown));
    m_top.type = S_ISDIR(status.st_mode) ? PathType::Dir : PathType::File;
    m_top.bytes = isDirectory() ? 0 : status.st_size;
    m_top.modifiedNs = modifiedNs(status);
    m_device = status.st_dev;
    m_inode = status.st_ino;
    m_kept = KeptDescriptor::tryKeep(opened);
    return Error();
}

bool CacheSource::isSame(const struct stat& status) const {
    return status.st_dev == m_device && status.st_ino == m_inode && modifiedNs(status) == m_top.modifiedNs &&
           (isDirectory() || status.st_size == m_top.bytes);
}

//! When no descriptor was kept it is found again by its path.
Result<CacheDescriptor> CacheSource::openAgain() const {
    CacheDescriptor opened(m_kept
                               ? ::fcntl(m_kept->get(), F_DUPFD_CLOEXEC, 0)
                               : ::open(m_path.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    if (!opened.isOpen() || ::fstat(opened.get(), &status) != 0 || !isSame(status))
        return changedSource(m_shown);
    return opened;
}

Error CacheSource::list(const CancelFlag& cancel) {
    const QMutexLocker lock(&m_mutex);
    if (!m_listed)
        m_listed = isDirectory() ? listNow(cancel) : Error();
    return *m_listed;
}

Error CacheSource::listNow(const CancelFlag& cancel) {
    const auto top = openAgain();
    if (top.hasError())
        return top.error();
    auto content = CachePayload::lookInto(top->get(), m_shown, &cancel);
    // Its parts go away while they are looked at when somebody removes it.
    if (content.hasError())
        return CacheStore::isMissing(content.error()) ? changedSource(m_shown) : content.error();
    m_content = std::move(*content);
    m_top.bytes = m_content.bytes;
    return Error();
}

Error CacheSource::checkFits(std::optional<qint64> maxBytes) const {
    if (!maxBytes || m_top.bytes <= *maxBytes)
        return Error();
    return Error(
        ErrorCode::InvalidArgument,
        translated("\"%1\" is larger than the cache may be (%2 bytes).").arg(m_shown).arg(*maxBytes));
}

namespace {

//! What messages call a file and its copy.
struct Names {
    QString source;
    QString target;
};

Error writeAll(int file, const char* data, qint64 size, const QString& target) {
    while (size > 0) {
        const ssize_t written = ::write(file, data, size_t(size));
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return systemError("Could not write \"%1\"", target);
        data += written;
        size -= written;
    }
    return Error();
}

//! Reads \a from once: hashes it and, unless \a to shares its blocks already, writes it there.
Result<QByteArray> copyAndHash(int from, int to, bool isShared, const Names& names,
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
            return systemError("Could not read \"%1\"", names.source);
        if (got == 0)
            return hash.hexDigest();
        hash.add(block.constData(), got);
        if (!isShared) {
            ORX_RETURN_ON_ERROR(writeAll(to, block.constData(), got, names.target));
            // Spreads the writing out, so that the flush at the end is short and memory stays free.
            ::sync_file_range(to, at, got, SYNC_FILE_RANGE_WRITE);
        }
        at += got;
    }
}

//! Makes \a name in \a parent a copy of \a from, which is to be what \a item tells. That tells of the copy
//! afterwards.
Error copyContent(int from, int parent, const QByteArray& name, CachePayload::Item& item, const Names& names,
                  const CancelFlag& cancel) {
    const auto isUnchanged = [&] {
        struct stat status {};
        return ::fstat(from, &status) == 0 && status.st_size == item.bytes &&
               modifiedNs(status) == item.modifiedNs;
    };
    if (!isUnchanged())
        return changedSource(names.source);
    const CacheDescriptor to(
        ::openat(parent, name.constData(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!to.isOpen())
        return systemError("Could not write \"%1\"", names.target);
    const bool isShared = ::ioctl(to.get(), FICLONE, from) == 0;
    auto digest = copyAndHash(isShared ? to.get() : from, to.get(), isShared, names, cancel);
    if (digest.hasError())
        return std::move(digest).error();
    struct stat written {};
    if (!isUnchanged() || ::fstat(to.get(), &written) != 0 || written.st_size != item.bytes)
        return changedSource(names.source);
    ORX_RETURN_ON_ERROR(setModified(to.get(), item.modifiedNs, names.target));
    // As the file system keeps it.
    if (::fstat(to.get(), &written) != 0)
        return systemError("Could not look at \"%1\"", names.target);
    item.modifiedNs = modifiedNs(written);
    item.sha256 = *digest;
    return Error();
}

} // namespace

Result<CachePayload> CacheSource::copyFile(int parent, const QByteArray& name, const QString& shown,
                                           const CancelFlag& cancel) {
    const auto from = openAgain();
    if (from.hasError())
        return from.error();
    CachePayload::Item item = m_top;
    ORX_RETURN_ON_ERROR(copyContent(from->get(), parent, name, item, {m_shown, shown}, cancel));
    CachePayload payload;
    payload.type = PathType::File;
    payload.bytes = item.bytes;
    payload.files = 1;
    payload.modifiedNs = item.modifiedNs;
    payload.sha256 = item.sha256;
    return payload;
}

Error CacheSource::copyItem(int top, int target, const QString& shown, CachePayload::Item& item,
                            const CancelFlag& cancel) {
    const QString below = u'/' + QFile::decodeName(item.path);
    const Names names{m_shown + below, shown + below};
    QByteArrayList components = item.path.split('/');
    const QByteArray name = components.takeLast();
    const auto parent = openDirectories(target, components, names.target);
    if (parent.hasError())
        return parent.error();
    if (item.type == PathType::Dir)
        return ::mkdirat(parent->get(), name.constData(), 0777) == 0
                   ? Error()
                   : systemError("Could not create the directory \"%1\"", names.target);
    const auto directory = openDirectories(top, components, names.source);
    const auto from = directory ? openFile(directory->get(), name, names.source) : directory.error();
    if (from.hasError())
        return changedSource(names.source);
    return copyContent(from->get(), parent->get(), name, item, names, cancel);
}

Result<CachePayload> CacheSource::copyTree(int target, const QString& shown, const CancelFlag& cancel) {
    const auto top = openAgain();
    if (top.hasError())
        return top.error();
    CachePayload copied = m_content;
    for (CachePayload::Item& item : copied.items)
        ORX_RETURN_ON_ERROR(copyItem(top->get(), target, shown, item, cancel));
    // What was added meanwhile or went after it was copied.
    const auto now = CachePayload::lookInto(top->get(), m_shown, &cancel);
    if (now.hasError())
        return now.error().isCanceled() ? now.error() : changedSource(m_shown);
    return m_content.differenceFrom(*now).isEmpty() ? Result<CachePayload>(std::move(copied))
                                                    : changedSource(m_shown);
}

Result<CachePayload> CacheSource::copyTo(int parent, const QByteArray& name, const QString& shown,
                                         const CancelFlag& cancel) {
    if (!isDirectory())
        return copyFile(parent, name, shown, cancel);
    ORX_RETURN_ON_ERROR(list(cancel));
    const auto target = ensureDirectory(parent, name, shown);
    return target ? copyTree(target->get(), shown, cancel) : target.error();
}

} // namespace orx
