#pragma once

#include "orx_common_stable_export.h"

#include "Error.h"

#include <functional>
#include <memory>

namespace orx {

//! Work that goes on after the call that began it has returned, for who made the call and must know how it
//! ends. The caller opens a Scope around the call; what begins such work within asks begin(). Neither needs
//! to know the other. Thread: any.
class ORX_COMMON_STABLE_EXPORT BackgroundWork {
public:
    virtual ~BackgroundWork();
    //! The work has ended. Later calls change nothing; gone without it the work has failed.
    virtual void finished(const Error& error) = 0;
    //! Whether nobody wants the result any more.
    virtual bool isCanceled() const = 0;
    //! What the source of the work must be, in 64 lower-case hexadecimal digits; empty when that is not
    //! known.
    virtual QString sourceSha256() const { return {}; }

    //! For the innermost scope that is open on this thread; null when there is none, or it wants no work.
    static std::shared_ptr<BackgroundWork> begin();

    //! Belongs to one thread; scopes close in the reverse of the order in which they were opened.
    class ORX_COMMON_STABLE_EXPORT Scope {
    public:
        using Begin = std::function<std::shared_ptr<BackgroundWork>()>;

        explicit Scope(Begin begin);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        friend class BackgroundWork;
        Begin m_begin;
        Scope* m_outer;
    };
};

} // namespace orx
