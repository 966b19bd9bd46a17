#pragma once

#include "orx_tasks_export.h"

#include "WorkerPool.h"

#include <QCoroTask>
#include <QObject>

#include <chrono>
#include <concepts>
#include <coroutine>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <utility>

namespace orx {

class CoroutineScope;

//! What a wait throws when the task whose body waits was cancelled or destroyed: the coroutine and those that
//! wait for it unwind, so that what they hold is released and nothing after the wait touches the task. Not to
//! be caught but for cleaning up, and then thrown on. No std::exception on purpose.
struct ORX_TASKS_EXPORT WaitCanceled {};

//! Base of what the coroutine body of a task (Task::co_doExec()), and coroutines called by it, may wait for.
//! A wait belongs to the task whose body began it, and ends with WaitCanceled when that task is cancelled or
//! destroyed, at once if that was before. Other awaitables must not be used in a body: nothing would end
//! their wait. Outside of such a body a wait is not cancelled by anybody. One use, as a local variable of the
//! coroutine that waits; thread: that of the task.
class ORX_TASKS_EXPORT CancelableWait {
public:
    CancelableWait();
    virtual ~CancelableWait();
    Q_DISABLE_COPY_MOVE(CancelableWait)

    bool isCanceled() const noexcept;
    void suspend(std::coroutine_handle<> coroutine);
    //! Classes that derive have result() too, which calls checkCanceled() first; what it returns is what
    //! `co_await` gives.

protected:
    //! Starts what is waited for; ended() is called when it is there, not before this has returned.
    virtual void begin() = 0;
    //! The wait was cancelled: ended() is not called any more.
    virtual void abandon() = 0;
    //! Goes on with the coroutine, which destroys this object.
    void ended();
    //! Throws WaitCanceled if the wait was cancelled.
    void checkCanceled() const;

private:
    friend class CoroutineScope;
    const std::shared_ptr<CoroutineScope> m_scope;
    std::coroutine_handle<> m_coroutine;
    bool m_isCanceled = false;
};

//! Makes waits what a coroutine may wait for. The object that the language itself would use may be copied by
//! compilers; a wait stays where it is.
template <std::derived_from<CancelableWait> Wait>
auto operator co_await(Wait& wait) {
    struct Awaiter {
        Wait* wait;
        bool await_ready() const noexcept { return wait->isCanceled(); }
        void await_suspend(std::coroutine_handle<> coroutine) { wait->suspend(coroutine); }
        decltype(auto) await_resume() { return wait->result(); }
    };
    return Awaiter{&wait};
}

//! See onWorker().
template <typename Value>
class WorkerWait : public CancelableWait {
public:
    using Job = std::function<Value(const std::stop_token&)>;
    explicit WorkerWait(Job job) : m_job(std::move(job)) {}
    Value result() {
        checkCanceled();
        return std::move(**m_result);
    }

private:
    void begin() override {
        m_context = std::make_unique<QObject>();
        WorkerPool::instance().submit(
            [job = std::exchange(m_job, {}), result = m_result, token = m_stop.get_token()] {
                if (!token.stop_requested())
                    result->emplace(job(token));
            },
            m_context.get(), [this] { ended(); });
    }
    void abandon() override {
        m_stop.request_stop();
        m_context.reset();
    }

    Job m_job;
    std::stop_source m_stop;
    std::shared_ptr<std::optional<Value>> m_result = std::make_shared<std::optional<Value>>();
    std::unique_ptr<QObject> m_context;
};

//! See delay().
class ORX_TASKS_EXPORT DelayWait : public CancelableWait {
public:
    explicit DelayWait(std::chrono::milliseconds delay);
    ~DelayWait() override;
    void result() const { checkCanceled(); }

private:
    void begin() override;
    void abandon() override;

    std::chrono::milliseconds m_delay;
    std::unique_ptr<QObject> m_context;
};

//! Waits while \a job runs on a worker and gives its result. A cancelled wait does not wait for a job that
//! runs: the job owns what it works on, and asks its stop token now and then when it is long.
template <typename Value>
QCoro::Task<Value> onWorker(std::function<Value(const std::stop_token&)> job) {
    WorkerWait<Value> wait(std::move(job));
    co_return co_await wait;
}

//! Waits for \a time, at least until the next turn of the event loop.
ORX_TASKS_EXPORT QCoro::Task<> delay(std::chrono::milliseconds time);

} // namespace orx
