#include "HeldFile.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace orx {

HeldFile::~HeldFile() {
    close();
}

int HeldFile::open(int directory, const QByteArray& name, Missing missing) {
    int reason = 0;
    do {
        close();
        reason = openOnce(directory, name, missing);
    } while (reason == 0 && !isStillThere(directory, name));
    return reason;
}

int HeldFile::openOnce(int directory, const QByteArray& name, Missing missing) {
    const int flags = O_RDWR | O_NOFOLLOW | O_CLOEXEC | (missing == Missing::Make ? O_CREAT : 0);
    m_descriptor = ::openat(directory, name.constData(), flags, 0666);
    if (m_descriptor < 0)
        return errno;
    m_isLocked = ::flock(m_descriptor, LOCK_EX | LOCK_NB) == 0;
    if (m_isLocked || errno != EWOULDBLOCK)
        return 0;
    close();
    return EWOULDBLOCK;
}

bool HeldFile::isStillThere(int directory, const QByteArray& name) const {
    struct stat opened {};
    struct stat named {};
    return ::fstat(m_descriptor, &opened) == 0 &&
           ::fstatat(directory, name.constData(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           opened.st_ino == named.st_ino && opened.st_dev == named.st_dev;
}

void HeldFile::close() {
    if (m_descriptor >= 0)
        ::close(std::exchange(m_descriptor, -1));
    m_isLocked = false;
}

} // namespace orx
