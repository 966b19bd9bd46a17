#include "NewFile.h"

#include "FilePlace.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace orx {

namespace {

QByteArray directoryOf(const QByteArray& path) {
    const qsizetype slash = path.lastIndexOf('/');
    return slash < 0 ? QByteArray(".") : path.left(slash + 1);
}

//! Through which a file without a name gets one.
bool hasDescriptorLinks() {
    static const bool has = ::access("/proc/self/fd", X_OK) == 0;
    return has;
}

bool knowsNoUnnamed(int reason) {
    return reason == EISDIR || FilePlace::isUnknown(reason);
}

} // namespace

NewFile::~NewFile() {
    if (m_descriptor >= 0)
        ::close(m_descriptor);
    if (!m_path.isEmpty())
        ::unlink(m_path.constData());
}

int NewFile::make(Kind kind, const QByteArray& target, mode_t mode) {
    m_target = target;
    if (kind == Kind::Hidden || !hasDescriptorLinks())
        return makeHidden(mode);
    m_descriptor = ::open(directoryOf(target).constData(), O_WRONLY | O_TMPFILE | O_CLOEXEC, mode);
    if (m_descriptor >= 0)
        return 0;
    return knowsNoUnnamed(errno) ? makeHidden(mode) : errno;
}

int NewFile::makeHidden(mode_t mode) {
    return FilePlace::makeBeside(m_target, m_path, [this, mode](const QByteArray& path) {
        m_descriptor = ::open(path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        return m_descriptor >= 0 ? 0 : errno;
    });
}

int NewFile::take(const MayReplace& mayReplace) {
    if (m_path.isEmpty()) {
        if (const int reason = takeUnnamed(bool(mayReplace)); reason != 0 || m_path.isEmpty())
            return reason;
    }
    // Closing can be where a network file system tells of a lost write.
    if (::close(std::exchange(m_descriptor, -1)) != 0)
        return errno;
    const int reason = mayReplace ? replace(mayReplace) : FilePlace::take(m_path, m_target);
    if (reason == 0)
        m_path.clear();
    return reason;
}

// A link replaces nothing: for that the file needs a name first.
int NewFile::takeUnnamed(bool isToReplace) {
    const int reason = linkTo(m_target);
    if (reason != EEXIST || !isToReplace)
        return reason;
    return FilePlace::makeBeside(m_target, m_path, [this](const QByteArray& path) { return linkTo(path); });
}

int NewFile::replace(const MayReplace& mayReplace) const {
    if (!mayReplace())
        return ECANCELED;
    return std::rename(m_path.constData(), m_target.constData()) == 0 ? 0 : errno;
}

int NewFile::linkTo(const QByteArray& path) const {
    const QByteArray self = "/proc/self/fd/" + QByteArray::number(m_descriptor);
    return ::linkat(AT_FDCWD, self.constData(), AT_FDCWD, path.constData(), AT_SYMLINK_FOLLOW) == 0 ? 0
                                                                                                    : errno;
}

// Security modules may hide or refuse what is named by way of /proc only.
bool NewFile::needsName(int reason) const {
    return m_path.isEmpty() && (reason == EPERM || reason == EXDEV || reason == ENOENT || reason == EACCES ||
                                FilePlace::isUnknown(reason));
}

} // namespace orx
