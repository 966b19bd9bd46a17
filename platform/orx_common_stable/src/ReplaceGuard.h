#pragma once

#include "orx_common_stable_export.h"

#include <QString>

#include <functional>

class QObject;

namespace orx {

//! Has who copies ask once more whether a file may still be replaced, when its successor is whole, flushed
//! and about to take its place, or a directory, before its successor is begun (DirectoryMerge itself sees
//! what changes from then on). Where a Scope is open FileCopy and DirectoryMerge ask, and with them
//! FileUtils; false: what is there stays, and the copy fails with ErrorCode::FileChanged. Thread: any.
class ORX_COMMON_STABLE_EXPORT ReplaceGuard {
public:
    //! \a path is absolute. Called on the thread that copies, with nothing held.
    using MayReplace = std::function<bool(const QString& path)>;

    //! Belongs to one thread and is about what that does; scopes close in the reverse of the order in which
    //! they were opened.
    class ORX_COMMON_STABLE_EXPORT Scope {
    public:
        //! None: everything may be replaced, also within another scope.
        explicit Scope(MayReplace mayReplace);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        friend class ReplaceGuard;
        MayReplace m_mayReplace;
        Scope* m_outer;
    };
    //! Asks the innermost scope of this thread; true without one.
    static bool mayReplace(const QString& path);

    //! For what the end of the task \a task (BaseTask::doFinish()) replaces.
    static void attach(QObject& task, const MayReplace& mayReplace);
    //! None unless something was attached.
    static MayReplace of(const QObject& task);
};

} // namespace orx
