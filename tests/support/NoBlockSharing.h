#pragma once

#include <cerrno>
#include <cstdarg>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

// No sharing of blocks, so that there is a half of a copy on every file system. Belongs into one source of a
// program, whose definition takes the place of the C library's for the libraries too.
extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (request == FICLONE) {
        errno = EOPNOTSUPP;
        return -1;
    }
    return int(::syscall(SYS_ioctl, descriptor, request, argument));
}
