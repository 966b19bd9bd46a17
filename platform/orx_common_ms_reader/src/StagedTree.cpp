#include "StagedTree.h"

#include "StagedFile.h"

#include <FilePlace.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orx::vonk {

namespace {

Descriptor openDirectory(int parent, const QByteArray& name) {
    return Descriptor(::openat(parent, name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

QString parentOf(const QString& path) {
    return path.left(std::max<qsizetype>(0, path.lastIndexOf(QLatin1Char('/'))));
}

QByteArray nameOf(const QString& path) {
    return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1).toUtf8();
}

bool setTime(int descriptor, const PackedTime& time) {
    timespec times[2] = {};
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = time_t(time.seconds);
    times[1].tv_nsec = time.nanoseconds;
    return ::futimens(descriptor, times) == 0;
}

qint64 roomFor(const QList<VonkEntry>& entries) {
    constexpr qint64 block = 4096;
    qint64 bytes = 16 * block;
    for (const VonkEntry& entry : entries)
        bytes += (entry.size + block - 1) / block * block + block;
    return bytes;
}

} // namespace

Result<StagedTree> StagedTree::create(const QString& path, const QList<VonkEntry>& entries) {
    StagedTree tree;
    tree.m_path = path;
    tree.m_target = encodedPath(path);
    struct stat info = {};
    if (::lstat(tree.m_target.constData(), &info) == 0)
        return ORX_ECATCH(writeFailure(EEXIST, path));
    auto room = DiskRoom::take(QFileInfo(path).absolutePath(), roomFor(entries), path);
    ORX_RETURN_ON_ERROR(room.error());
    tree.m_room = std::move(*room);
    const QByteArray staging = FilePlace::temporaryBeside(tree.m_target);
    if (::mkdir(staging.constData(), 0777) != 0)
        return ORX_ECATCH(writeFailure(errno, path));
    tree.m_staging = staging;
    tree.m_root = openDirectory(AT_FDCWD, staging);
    if (!tree.m_root.isOpen())
        return ORX_ECATCH(tree.failure());
    return tree;
}

StagedTree::~StagedTree() {
    if (!m_staging.isEmpty())
        QDir(QFile::decodeName(m_staging)).removeRecursively();
}

Error StagedTree::begin(const VonkEntry& entry) {
    if (!entry.isFile())
        return enter(entry.path);
    ORX_RETURN_ON_ERROR(enter(parentOf(entry.path)));
    m_file = Descriptor(::openat(*m_directory, nameOf(entry.path).constData(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    return m_file.isOpen() ? Error() : failure();
}

Error StagedTree::write(std::span<const char> bytes) {
    if (writeFully(*m_file, bytes) < 0)
        return failure();
    m_room->written(qint64(bytes.size()));
    return {};
}

Error StagedTree::endFile(const VonkEntry& entry) {
    if (!setTime(*m_file, entry.modified) || ::fsync(*m_file) != 0 || !m_file.close())
        return failure();
    return {};
}

//! Goes to \a directory from the root, making what is missing.
Error StagedTree::enter(const QString& directory) {
    if (m_directory.isOpen() && directory == m_directoryPath)
        return {};
    Descriptor current(::fcntl(*m_root, F_DUPFD_CLOEXEC, 0));
    QString path;
    for (const QString& component : directory.split(QLatin1Char('/'))) {
        path += (path.isEmpty() ? QString() : QStringLiteral("/")) + component;
        const QByteArray name = component.toUtf8();
        if (::mkdirat(*current, name.constData(), 0777) == 0)
            m_directories.append(path);
        else if (errno != EEXIST)
            return failure();
        current = openDirectory(*current, name);
        if (!current.isOpen())
            return failure();
    }
    m_directory = std::move(current);
    m_directoryPath = directory;
    return {};
}

//! Inner ones first: what is made in a directory changes its time.
Error StagedTree::finishDirectories(const QList<VonkEntry>& entries) {
    QHash<QString, PackedTime> times;
    for (const VonkEntry& entry : entries) {
        if (!entry.isFile())
            times.insert(entry.path, entry.modified);
    }
    for (auto directory = m_directories.crbegin(); directory != m_directories.crend(); ++directory) {
        ORX_RETURN_ON_ERROR(enter(*directory));
        const auto time = times.constFind(*directory);
        if (time != times.constEnd() && !setTime(*m_directory, *time))
            return failure();
        if (::fsync(*m_directory) != 0)
            return failure();
    }
    return ::fsync(*m_root) == 0 ? Error() : failure();
}

Error StagedTree::commit(const QList<VonkEntry>& entries) {
    ORX_RETURN_ON_ERROR(finishDirectories(entries));
    ORX_RETURN_ON_ERROR(takeForGood(m_staging, m_target, m_path));
    m_staging.clear();
    return {};
}

Error StagedTree::failure() const {
    return writeFailure(errno, m_path);
}

} // namespace orx::vonk
