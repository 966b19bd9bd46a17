#pragma once

#include "Coroutines.h"

#include <list>

namespace orx {

//! The waits of one run of a coroutine body. Thread: that of the task.
class CoroutineScope : public std::enable_shared_from_this<CoroutineScope> {
public:
    //! Of the body that runs on this thread now; null outside of bodies.
    static std::shared_ptr<CoroutineScope> current();

    //! While it lives, waits that begin on this thread belong to \a scope.
    class Entered {
    public:
        explicit Entered(const std::shared_ptr<CoroutineScope>& scope);
        ~Entered();
        Q_DISABLE_COPY_MOVE(Entered)

    private:
        std::shared_ptr<CoroutineScope> m_outer;
    };

    //! Ends all waits, those to come at once.
    void cancel();
    //! The same, for a task that is being destroyed: its body has nobody to tell its end.
    void abandon();
    bool isCanceled() const { return m_isCanceled; }
    bool isAbandoned() const { return m_isAbandoned; }

    void add(CancelableWait* wait) { m_waits.push_back(wait); }
    void remove(CancelableWait* wait) { m_waits.remove(wait); }

private:
    std::list<CancelableWait*> m_waits; //!< one, unless the body has started several coroutines
    bool m_isCanceled = false;
    bool m_isAbandoned = false;
};

} // namespace orx
