#include "TaskProbes.h"

#include <Coroutines.h>

#include <gtest/gtest.h>

#include <QCoroTask>
#include <QThread>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <thread>

using namespace orx;
using namespace orx::probes;

namespace {

//! Its body is a function of the test, which must not capture: a coroutine outlives the call of it.
class CoTask : public Task {
public:
    using Body = QCoro::Task<Error> (*)(CoTask*, EventLog*);
    CoTask(EventLog& eventLog, Body body) : Task(QStringLiteral("co")), m_log(eventLog), m_body(body) {
        setExecutionMode(ExecutionMode::Coroutine);
        eventLog.watch(this, u"task"_qs);
    }
    ~CoTask() override { m_isWhole = false; }
    bool isWhole() const { return m_isWhole; }
    using BaseTask::restart;

protected:
    QCoro::Task<Error> co_doExec() override { return m_body(this, &m_log); }

private:
    EventLog& m_log;
    Body m_body;
    bool m_isWhole = true;
};

//! Ends when the test says so.
class GateWait : public CancelableWait {
public:
    GateWait() = default;
    static GateWait* open; //!< the one that is waited for
    void letThrough() { ended(); }
    void result() const { checkCanceled(); }

private:
    void begin() override { open = this; }
    void abandon() override { open = nullptr; }
};
GateWait* GateWait::open = nullptr;

//! Tells when what a coroutine holds is released.
struct Held {
    explicit Held(EventLog* eventLog, const QString& text = QStringLiteral("released"))
        : log(eventLog), event(text) {}
    ~Held() { log->add(event); }
    Q_DISABLE_COPY_MOVE(Held)
    EventLog* log;
    QString event;
};

QCoro::Task<Error> waitAtTheGate(CoTask* task, EventLog* log) {
    const Held held(log);
    log->add(u"waits"_qs);
    GateWait gate;
    co_await gate;
    log->add(task->isWhole() ? u"goes on"_qs : u"touches a task that is gone"_qs);
    co_return Error();
}

} // namespace

TEST(CoroutineMode, HasTheValueTwo) {
    EXPECT_EQ(int(Task::ExecutionMode::Coroutine), 2);
}

TEST(CoroutineMode, ABodyThatDoesNotWaitEndsTheTaskWithinExec) {
    EventLog log;
    CoTask task(log, [](CoTask*, EventLog* events) -> QCoro::Task<Error> {
        events->add(u"body"_qs);
        co_return failure(u"no luck"_qs);
    });
    task.exec();
    EXPECT_EQ(log.str(), "task started, body, task finished, task idle");
    EXPECT_EQ(task.error().errorMessage(), u"no luck");
}

TEST(CoroutineMode, WithoutABodyOfItsOwnATaskSucceeds) {
    Task task(u"plain"_qs);
    task.setExecutionMode(Task::ExecutionMode::Coroutine);
    task.exec();
    EXPECT_TRUE(task.isSuccessful());
}

TEST(CoroutineMode, TheTaskRunsUntilTheWaitOfItsBodyHasEnded) {
    EventLog log;
    CoTask task(log, waitAtTheGate);
    task.exec();
    EXPECT_TRUE(task.isRunning());
    EXPECT_EQ(log.str(), "task started, waits");
    GateWait::open->letThrough();
    EXPECT_EQ(log.str(), "task started, waits, goes on, released, task finished, task idle");
    EXPECT_TRUE(task.isSuccessful());
}

TEST(CoroutineMode, ACoroutineMayWaitForAnother) {
    EventLog log;
    CoTask task(log, [](CoTask* self, EventLog* events) -> QCoro::Task<Error> {
        const Error inner = co_await waitAtTheGate(self, events);
        events->add(u"outer goes on"_qs);
        co_return inner.hasError() ? inner : failure(u"told by the outer one"_qs);
    });
    task.exec();
    GateWait::open->letThrough();
    EXPECT_EQ(log.str(), "task started, waits, goes on, released, outer goes on, task finished, task idle");
    EXPECT_EQ(task.error().errorMessage(), u"told by the outer one");
}

TEST(CoroutineMode, AnExceptionOfTheBodyIsAFailure) {
    EventLog log;
    CoTask task(log, [](CoTask*, EventLog*) -> QCoro::Task<Error> {
        co_await delay(std::chrono::milliseconds(0));
        throw std::runtime_error("out of luck");
        co_return Error();
    });
    task.exec();
    EXPECT_EQ(task.waitForFinished().errorMessage(), u"The task failed: out of luck");
}

TEST(CoroutineCancel, EndsTheWaitAtOnceAndRunsNothingBehindIt) {
    EventLog log;
    CoTask task(log, waitAtTheGate);
    task.exec();
    task.cancel();
    EXPECT_EQ(log.str(), "task started, waits, task canceled, released, task finished, task idle");
    EXPECT_EQ(task.error().code(), int(ErrorCode::Canceled));
}

TEST(CoroutineCancel, UnwindsEveryCoroutineThatWaits) {
    EventLog log;
    CoTask task(log, [](CoTask* self, EventLog* events) -> QCoro::Task<Error> {
        const Held held(events, u"outer released"_qs);
        co_return co_await waitAtTheGate(self, events);
    });
    task.exec();
    task.cancel();
    EXPECT_EQ(log.str(),
              "task started, waits, task canceled, released, outer released, task finished, task idle");
}

TEST(CoroutineCancel, BeforeAWaitEndsThatWaitAtOnce) {
    EventLog log;
    CoTask task(log, [](CoTask* self, EventLog* events) -> QCoro::Task<Error> {
        self->cancel();
        events->add(u"was cancelled"_qs);
        co_await delay(std::chrono::hours(1));
        events->add(u"goes on"_qs);
        co_return Error();
    });
    task.exec();
    EXPECT_EQ(log.str(), "task started, task canceled, was cancelled, task finished, task idle");
}

TEST(CoroutineCancel, EndsALaterWaitToo) {
    EventLog log;
    CoTask task(log, [](CoTask* self, EventLog* events) -> QCoro::Task<Error> {
        (void)co_await waitAtTheGate(self, events);
        co_return co_await waitAtTheGate(self, events);
    });
    task.exec();
    GateWait::open->letThrough();
    log.clear();
    task.cancel();
    EXPECT_EQ(log.str(), "task canceled, released, task finished, task idle");
}

TEST(CoroutineCancel, EndsTheWaitsOfSeveralCoroutinesOfOneBody) {
    EventLog log;
    CoTask task(log, [](CoTask* self, EventLog* events) -> QCoro::Task<Error> {
        auto first = waitAtTheGate(self, events);
        auto second = waitAtTheGate(self, events);
        (void)co_await first;
        co_return co_await second;
    });
    task.exec();
    task.cancel();
    EXPECT_EQ(log.count(u"released"_qs), 2);
    EXPECT_EQ(log.count(u"goes on"_qs), 0);
    EXPECT_TRUE(task.isIdle());
}

TEST(CoroutineCancel, OfAGroupReachesItsCoroutines) {
    EventLog log;
    EventLog told;
    GroupTask group;
    for (int i = 0; i < 3; ++i)
        group.addTask(std::make_unique<CoTask>(log, waitAtTheGate), {}, told.note(u"told"_qs));
    group.exec();
    group.cancel();
    EXPECT_EQ(told.count(u"told (canceled)"_qs), 3);
    EXPECT_EQ(log.count(u"released"_qs), 3);
    EXPECT_TRUE(group.isFinished());
}

TEST(CoroutineEnd, ATaskThatIsFinishedFromOutsideIsIdleWhenItsBodyHasEnded) {
    EventLog log;
    CoTask task(log, waitAtTheGate);
    task.exec();
    task.finish(failure(u"from outside"_qs));
    EXPECT_FALSE(task.isIdle());
    task.cancel();
    EXPECT_EQ(log.str(), "task started, waits, task finished, released, task idle");
    EXPECT_EQ(task.error().errorMessage(), u"from outside");
    EXPECT_FALSE(task.isCanceled());
}

TEST(CoroutineEnd, ATaskMayRunAgain) {
    EventLog log;
    class Again : public CoTask {
    public:
        using CoTask::CoTask;
        void again() {
            restart();
            start();
        }
    } task(log, waitAtTheGate);
    task.exec();
    task.cancel();
    log.clear();
    task.again();
    GateWait::open->letThrough();
    EXPECT_EQ(log.str(), "waits, goes on, released, task finished, task idle");
    EXPECT_TRUE(task.isSuccessful());
}

TEST(CoroutineDestruction, EndsTheWaitWithoutTouchingTheTask) {
    EventLog log;
    auto task = std::make_unique<CoTask>(log, waitAtTheGate);
    task->exec();
    task.reset();
    EXPECT_EQ(log.str(), "task started, waits, released");
    EXPECT_EQ(GateWait::open, nullptr);
}

TEST(CoroutineDestruction, OfTheOwnerEndsTheWaitToo) {
    EventLog log;
    auto group = std::make_unique<GroupTask>();
    group->addTask(std::make_unique<CoTask>(log, waitAtTheGate));
    group->exec();
    group.reset();
    EXPECT_EQ(log.str(), "task started, waits, released");
}

TEST(CoroutineDestruction, WithinTheBodyEndsItAtItsNextWait) {
    EventLog log;
    auto* const task = new CoTask(log, [](CoTask* self, EventLog* events) -> QCoro::Task<Error> {
        delete self;
        const Held held(events);
        co_await delay(std::chrono::milliseconds(0));
        events->add(u"goes on"_qs);
        co_return Error();
    });
    task->exec();
    EXPECT_EQ(log.str(), "task started, released");
}

TEST(CoroutineDestruction, InTheReceiverOfFinishedIsSafe) {
    EventLog log;
    auto* const task = new CoTask(log, waitAtTheGate);
    QObject::connect(task, &BaseTask::finished, task, [task] { delete task; });
    task->exec();
    GateWait::open->letThrough();
    EXPECT_EQ(log.str(), "task started, waits, goes on, released, task finished");
}

TEST(CoroutineWaits, ForAJobRunItOnAWorkerAndGoOnOnTheTasksThread) {
    EventLog log;
    CoTask task(log, [](CoTask* self, EventLog* events) -> QCoro::Task<Error> {
        WorkerWait<QThread*>::Job job = [](const std::stop_token&) { return QThread::currentThread(); };
        QThread* const worker = co_await onWorker<QThread*>(std::move(job));
        events->add(worker != self->thread() ? u"on another"_qs : u"on the same"_qs);
        events->add(QThread::currentThread() == self->thread() ? u"back"_qs : u"lost"_qs);
        co_return Error();
    });
    task.exec();
    EXPECT_FALSE(task.waitForFinished().hasError());
    EXPECT_EQ(log.str(), "task started, on another, back, task finished, task idle");
}

TEST(CoroutineWaits, ForAJobNeedNoEventLoop) {
    bool isSuccessful = false;
    std::thread thread([&isSuccessful] {
        EventLog log;
        CoTask task(log, [](CoTask*, EventLog*) -> QCoro::Task<Error> {
            WorkerWait<int>::Job job = [](const std::stop_token&) { return 42; };
            const int value = co_await onWorker<int>(std::move(job));
            co_return value == 42 ? Error() : failure(u"wrong value"_qs);
        });
        task.exec();
        isSuccessful = !task.waitForFinished().hasError() && task.isSuccessful();
    });
    thread.join();
    EXPECT_TRUE(isSuccessful);
}

TEST(CoroutineWaits, ForAJobThatRunsEndAtOnceWhenCancelledAndTheJobIsTold) {
    static std::atomic<int> phase;
    phase = 0;
    EventLog log;
    CoTask task(log, [](CoTask*, EventLog*) -> QCoro::Task<Error> {
        WorkerWait<int>::Job job = [](const std::stop_token& stop) {
            std::mutex mutex;
            std::condition_variable_any changed;
            std::unique_lock lock(mutex);
            phase = 1;
            changed.wait(lock, stop, [] { return false; });
            phase = 2;
            return 0;
        };
        (void)co_await onWorker<int>(std::move(job));
        co_return Error();
    });
    task.exec();
    while (phase < 1)
        std::this_thread::yield();
    task.cancel();
    EXPECT_TRUE(task.isIdle());
    while (phase < 2)
        std::this_thread::yield();
}

TEST(CoroutineWaits, ForAJobMayBeDestroyedAtAnyMoment) {
    for (int i = 0; i < 200; ++i) {
        EventLog log;
        auto task = std::make_unique<CoTask>(log, [](CoTask*, EventLog* events) -> QCoro::Task<Error> {
            const Held held(events);
            WorkerWait<QString>::Job job = [](const std::stop_token&) { return QStringLiteral("value"); };
            const QString value = co_await onWorker<QString>(std::move(job));
            co_return value.isEmpty() ? failure(u"empty"_qs) : Error();
        });
        task->exec();
        if (i % 3 == 1)
            (void)task->waitForFinished(0);
        if (i % 3 == 2)
            task->cancel();
        task.reset();
        EXPECT_EQ(log.count(u"released"_qs), 1);
    }
}

TEST(CoroutineWaits, ForATimeEndWithTheCancellation) {
    EventLog log;
    CoTask task(log, [](CoTask*, EventLog*) -> QCoro::Task<Error> {
        co_await delay(std::chrono::hours(1));
        co_return Error();
    });
    task.exec();
    EXPECT_EQ(task.waitForFinished(0).code(), int(ErrorCode::TimedOut));
    task.cancel();
    EXPECT_TRUE(task.isFinished());
}
