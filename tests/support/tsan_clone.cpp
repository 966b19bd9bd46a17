// Linked into the test programs under the thread sanitizer. QProcess starts children by a clone() that shares
// memory with its parent until the exec. The sanitizer's clone() of GCC 12 takes the child for a copy: parent
// and child both undo on the same thread what was done once before it, and from then on every lock of that
// thread is overlooked and correct programs are reported. Here the child becomes the copy it is taken for.
#include <cstdarg>
#include <cstdlib>
#include <dlfcn.h>
#include <sched.h>
#include <sys/types.h>

extern "C" __attribute__((visibility("default"))) int clone(int (*function)(void*), void* stack, int flags,
                                                            void* argument, ...) {
    using Clone = int (*)(int (*)(void*), void*, int, void*, pid_t*, void*, pid_t*);
    static const auto next = reinterpret_cast<Clone>(::dlsym(RTLD_NEXT, "clone"));
    if (!next)
        std::abort();
    va_list more;
    va_start(more, argument);
    pid_t* const parentId = va_arg(more, pid_t*);
    void* const threadStorage = va_arg(more, void*);
    pid_t* const childId = va_arg(more, pid_t*);
    va_end(more);
    if ((flags & CLONE_THREAD) == 0)
        flags &= ~(CLONE_VM | CLONE_VFORK);
    return next(function, stack, flags, argument, parentId, threadStorage, childId);
}
