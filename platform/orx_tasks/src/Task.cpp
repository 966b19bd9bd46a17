#include "Task.h"
#include "BaseTask_p.h"
#include "CoroutineScope.h"
#include "TasksLog.h"
#include "WorkerPool.h"

#include <QCoroTask>
#include <QPointer>

#include <condition_variable>
#include <exception>
#include <mutex>
#include <utility>

namespace orx {

const QLoggingCategory& tasksLog() {
    static const QLoggingCategory category("orx.tasks");
    return category;
}

namespace {

thread_local std::stop_token stopTokenOfBody;

//! Waits for the end of a body and tells it, unless the task was destroyed meanwhile.
QCoro::Task<> watch(QCoro::Task<Error> body, std::shared_ptr<CoroutineScope> scope,
                    std::function<void(const Error&)> ended) {
    Error error;
    try {
        error = co_await body;
    } catch (const WaitCanceled&) {
        error = Error(ErrorCode::Canceled, Task::tr("The operation was cancelled."));
    } catch (const std::exception& exception) {
        error = Error(ErrorCode::General,
                      Task::tr("The task failed: %1").arg(QString::fromLocal8Bit(exception.what())));
    } catch (...) {
        error = Error(ErrorCode::General, Task::tr("The task failed."));
    }
    if (!scope->isAbandoned())
        ended(error);
}

} // namespace

//! One run of a body on a worker, shared by the worker's job and the task, so that neither depends on the
//! other's life.
class Task::WorkerBody {
public:
    //! Thread: worker. Does nothing when the body was given up before.
    void run(const std::function<Error()>& body) {
        {
            const std::lock_guard lock(m_mutex);
            if (m_phase == Phase::GivenUp)
                return;
            m_phase = Phase::Running;
        }
        stopTokenOfBody = m_stop.get_token();
        Error result = body();
        stopTokenOfBody = std::stop_token();
        const std::lock_guard lock(m_mutex);
        m_result = std::move(result);
        m_phase = Phase::Returned;
        m_changed.notify_all();
    }

    //! Thread: owner. Asks a body that runs to return soon.
    void requestStop() { m_stop.request_stop(); }

    //! Thread: owner. Gives the body up unless it has begun; returns whether it never will run.
    bool giveUpWaiting() {
        const std::lock_guard lock(m_mutex);
        if (m_phase == Phase::Waiting)
            m_phase = Phase::GivenUp;
        return m_phase == Phase::GivenUp;
    }

    //! Thread: owner. After this the body neither runs nor ever will. Returns whether it was running.
    bool giveUp() {
        std::unique_lock lock(m_mutex);
        const bool wasRunning = m_phase == Phase::Running;
        if (m_phase == Phase::Waiting)
            m_phase = Phase::GivenUp;
        m_changed.wait(lock, [this] { return m_phase != Phase::Running; });
        return wasRunning;
    }

    Error takeResult() {
        const std::lock_guard lock(m_mutex);
        return std::move(m_result);
    }

private:
    enum class Phase { Waiting, Running, Returned, GivenUp };
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::stop_source m_stop;
    Phase m_phase = Phase::Waiting;
    Error m_result;
};

struct Task::Private {
    ExecutionMode mode = ExecutionMode::Direct;
    std::shared_ptr<WorkerBody> body;          //!< from start() until its result was taken over
    std::shared_ptr<CoroutineScope> coroutine; //!< from start() until the body has ended
};

Task::Task(const QString& name, QObject* parent) : BaseTask(name, parent), d(std::make_unique<Private>()) {}

Task::~Task() {
    Task::requestStop();
    if (d->body && d->body->giveUp())
        qCCritical(tasksLog).noquote()
            << "task" << name() << "was destroyed while its body ran: its destructor must call stopBody()";
}

std::stop_token Task::stopTokenOfThisThread() {
    return stopTokenOfBody;
}

Task::ExecutionMode Task::executionMode() const {
    return d->mode;
}

void Task::setExecutionMode(ExecutionMode mode) {
    d->mode = mode;
}

bool Task::isIdle() const {
    return BaseTask::isIdle() && !d->body && !d->coroutine;
}

Error Task::initialize() {
    return Error();
}

Error Task::doExec() {
    return Error();
}

QCoro::Task<Error> Task::co_doExec() {
    co_return Error();
}

void Task::run() {
    const QPointer<Task> guard(this);
    const int thisRun = BaseTask::d->run;
    Error error = initialize();
    if (!guard || !isRunning() || BaseTask::d->run != thisRun)
        return;
    if (error.hasError())
        finish(error);
    else if (isCanceled())
        runCanceled();
    else
        start();
}

void Task::start() {
    if (d->mode == ExecutionMode::Direct) {
        const QPointer<Task> guard(this);
        const int thisRun = BaseTask::d->run;
        const Error error = doExec();
        if (guard && BaseTask::d->run == thisRun)
            finish(error);
        return;
    }
    if (d->mode == ExecutionMode::Coroutine) {
        runCoroutine();
        return;
    }
    auto body = std::make_shared<WorkerBody>();
    d->body = body;
    WorkerPool::instance().submit([this, body] { body->run([this] { return doExec(); }); }, this,
                                  [this, body, thisRun = BaseTask::d->run] { takeOver(body, thisRun); });
}

void Task::runCoroutine() {
    const auto scope = std::make_shared<CoroutineScope>();
    d->coroutine = scope;
    const CoroutineScope::Entered entered(scope);
    const auto ended = [this, scope, ofRun = BaseTask::d->run](const Error& error) {
        coroutineEnded(scope, ofRun, error);
    };
    (void)watch(co_doExec(), scope, ended); // the frame lives until the body has ended
}

void Task::coroutineEnded(const std::shared_ptr<CoroutineScope>& scope, int ofRun, const Error& error) {
    if (d->coroutine != scope)
        return;
    d->coroutine.reset();
    const QPointer<Task> guard(this);
    if (BaseTask::d->run == ofRun)
        finish(error);
    if (guard)
        checkIdle();
}

void Task::takeOver(const std::shared_ptr<WorkerBody>& body, int ofRun) {
    if (d->body != body)
        return;
    d->body.reset();
    const QPointer<Task> guard(this);
    if (BaseTask::d->run == ofRun)
        finish(body->takeResult());
    if (guard)
        checkIdle();
}

void Task::doCancel() {
    if (d->body && d->body->giveUpWaiting()) {
        d->body.reset();
        finish(Error());
    }
}

void Task::cancelDescendants() {
    if (d->body)
        d->body->requestStop();
    if (const auto coroutine = d->coroutine)
        coroutine->cancel();
}

void Task::requestStop() {
    BaseTask::requestStop();
    if (d->body)
        d->body->requestStop();
    if (const auto coroutine = std::exchange(d->coroutine, nullptr))
        coroutine->abandon();
}

void Task::awaitBody() {
    if (d->body) {
        d->body->giveUp();
        d->body.reset();
    }
}

} // namespace orx
