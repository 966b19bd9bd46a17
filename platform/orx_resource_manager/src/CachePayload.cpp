#include "CachePayload.h"

#include <ContentHash.h>

#include <QCoreApplication>
#include <QFile>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orx {

using namespace CacheFiles;

namespace {

QString translated(const char* text) {
    return QCoreApplication::translate("orx::ResourceCache", text);
}

Error changed(const QString& shown) {
    return Error(ErrorCode::FileChanged,
                 translated("\"%1\" changed while it was read; try again when nothing changes it any more.")
                     .arg(shown));
}

Error canceled() {
    return Error(ErrorCode::Canceled, translated("Cancelled."));
}

QString below(const QString& shown, const QByteArray& path) {
    return shown + u'/' + QFile::decodeName(path);
}

//! An item of the tree, or an error for what is neither file nor directory.
Result<CachePayload::Item> lookAt(int parent, const QByteArray& name, const QString& shown) {
    struct stat status {};
    if (::fstatat(parent, name.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT || errno == ENOTDIR)
            return Error(ErrorCode::NotFound, translated("\"%1\" is not there.").arg(shown));
        return systemError("Could not look at \"%1\"", shown);
    }
    CachePayload::Item item;
    if (S_ISDIR(status.st_mode)) {
        item.type = PathType::Dir;
    } else if (S_ISREG(status.st_mode)) {
        item.type = PathType::File;
        item.bytes = status.st_size;
        item.modifiedNs = modifiedNs(status);
    } else {
        return Error(
            ErrorCode::InvalidArgument,
            translated("\"%1\" is a link or a special file, which the cache does not keep.").arg(shown));
    }
    return item;
}

class TreeLook {
public:
    TreeLook(CachePayload& payload, const CancelFlag* cancel) : m_payload(payload), m_cancel(cancel) {}

    Error visit(int directory, const QByteArray& prefix, const QString& shown) {
        return forEachName(directory, shown, [&](const QByteArray& name) -> Error {
            if (m_cancel != nullptr && *m_cancel)
                return canceled();
            auto item = lookAt(directory, name, below(shown, name));
            if (item.hasError())
                return item.error();
            item->path = prefix + name;
            const bool isDirectory = item->type == PathType::Dir;
            m_payload.bytes += item->bytes;
            m_payload.files += isDirectory ? 0 : 1;
            m_payload.items.push_back(*item);
            if (!isDirectory)
                return Error();
            const auto child = openDirectory(directory, name, below(shown, name));
            return child ? visit(child->get(), item->path + '/', below(shown, name)) : child.error();
        });
    }

private:
    CachePayload& m_payload;
    const CancelFlag* m_cancel;
};

//! The open directory that holds the item, and the name in it.
Result<std::pair<CacheDescriptor, QByteArray>> locate(int top, const QByteArray& path, const QString& shown) {
    QByteArrayList components = path.split('/');
    const QByteArray name = components.takeLast();
    auto directory = openDirectories(top, components, shown);
    if (directory.hasError())
        return std::move(directory).error();
    return std::pair(std::move(*directory), name);
}

using OnBytes = std::function<bool(qint64)>;

Result<QByteArray> digest(int file, const QString& shown, const CancelFlag* cancel, const OnBytes& onBytes) {
    ContentHash hash;
    QByteArray block(kBlockBytes, Qt::Uninitialized);
    ::posix_fadvise(file, 0, 0, POSIX_FADV_SEQUENTIAL);
    for (qint64 at = 0;;) {
        if (cancel != nullptr && *cancel)
            return canceled();
        const ssize_t got = ::pread(file, block.data(), size_t(block.size()), at);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return systemError("Could not read \"%1\"", shown);
        if (got == 0)
            return hash.hexDigest();
        hash.add(block.constData(), got);
        at += got;
        if (onBytes && !onBytes(got))
            return canceled();
    }
}

Result<QByteArray> digestOf(int parent, const QByteArray& name, const QString& shown, qint64 bytes,
                            qint64 modified, const CancelFlag* cancel, const OnBytes& onBytes) {
    const auto file = openFile(parent, name, shown);
    if (file.hasError())
        return file.error();
    auto result = digest(file->get(), shown, cancel, onBytes);
    struct stat status {};
    if (result && ::fstat(file->get(), &status) != 0)
        return systemError("Could not look at \"%1\"", shown);
    if (result && (status.st_size != bytes || modifiedNs(status) != modified))
        return changed(shown);
    return result;
}

} // namespace

Result<CachePayload> CachePayload::look(int parent, const QByteArray& name, const QString& shown,
                                        Depth depth) {
    auto top = lookAt(parent, name, shown);
    if (top.hasError())
        return std::move(top).error();
    if (top->type == PathType::Dir && depth == Depth::Everything) {
        const auto directory = openDirectory(parent, name, shown);
        return directory ? lookInto(directory->get(), shown) : directory.error();
    }
    CachePayload payload;
    payload.type = top->type;
    payload.bytes = top->bytes;
    payload.modifiedNs = top->modifiedNs;
    payload.files = top->type == PathType::File ? 1 : 0;
    return payload;
}

Result<CachePayload> CachePayload::lookInto(int directory, const QString& shown, const CancelFlag* cancel) {
    CachePayload payload;
    payload.type = PathType::Dir;
    ORX_RETURN_ON_ERROR(TreeLook(payload, cancel).visit(directory, QByteArray(), shown));
    std::sort(payload.items.begin(), payload.items.end(),
              [](const Item& a, const Item& b) { return a.path < b.path; });
    return payload;
}

Error CachePayload::hash(int parent, const QByteArray& name, const QString& shown, const CancelFlag* cancel,
                         const OnBytes& onBytes) {
    if (type == PathType::File) {
        auto result = digestOf(parent, name, shown, bytes, modifiedNs, cancel, onBytes);
        if (result.hasError())
            return std::move(result).error();
        sha256 = *result;
        return Error();
    }
    const auto top = openDirectory(parent, name, shown);
    if (top.hasError())
        return top.error();
    for (Item& item : items) {
        if (item.type != PathType::File)
            continue;
        const QString itemShown = below(shown, item.path);
        const auto place = locate(top->get(), item.path, itemShown);
        if (place.hasError())
            return place.error();
        auto result = digestOf(place->first.get(), place->second, itemShown, item.bytes, item.modifiedNs,
                               cancel, onBytes);
        if (result.hasError())
            return std::move(result).error();
        item.sha256 = *result;
    }
    return Error();
}

Error CachePayload::flush(int parent, const QByteArray& name, const QString& shown) const {
    if (type == PathType::File) {
        const auto file = openFile(parent, name, shown);
        return file ? CacheFiles::flush(file->get(), shown) : file.error();
    }
    const auto top = openDirectory(parent, name, shown);
    if (top.hasError())
        return top.error();
    for (const Item& item : items) {
        const QString itemShown = below(shown, item.path);
        const auto place = locate(top->get(), item.path, itemShown);
        if (place.hasError())
            return place.error();
        const auto opened = item.type == PathType::File
                                ? openFile(place->first.get(), place->second, itemShown)
                                : openDirectory(place->first.get(), place->second, itemShown);
        if (opened.hasError())
            return opened.error();
        ORX_RETURN_ON_ERROR(CacheFiles::flush(opened->get(), itemShown));
    }
    return CacheFiles::flush(top->get(), shown);
}

QString CachePayload::differenceFrom(const CachePayload& disk) const {
    if (type != disk.type)
        return translated("it is not of the recorded kind");
    if (type == PathType::File) {
        if (bytes != disk.bytes)
            return translated("it has %1 bytes instead of %2").arg(disk.bytes).arg(bytes);
        return modifiedNs == disk.modifiedNs ? QString() : translated("its modification time changed");
    }
    const auto same = [](const Item& a, const Item& b) {
        return a.path == b.path && a.type == b.type && a.bytes == b.bytes && a.modifiedNs == b.modifiedNs;
    };
    const auto [recorded, found] =
        std::mismatch(items.begin(), items.end(), disk.items.begin(), disk.items.end(), same);
    if (recorded == items.end() && found == disk.items.end())
        return QString();
    const Item& named = recorded != items.end() ? *recorded : *found;
    return translated("\"%1\" in it is missing, was added or was changed").arg(QFile::decodeName(named.path));
}

} // namespace orx
