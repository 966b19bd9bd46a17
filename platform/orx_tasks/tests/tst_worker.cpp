#include "FullPool.h"
#include "OwnerInbox.h"
#include "TaskProbes.h"
#include "WorkerPool.h"

#include <gtest/gtest.h>

#include <QEventLoop>

#include <atomic>
#include <future>
#include <latch>
#include <optional>
#include <thread>

using namespace orx;
using namespace orx::probes;

namespace {

std::unique_ptr<ScriptedTask> workerTask(std::function<Error(ScriptedTask*)> body) {
    auto task = std::make_unique<ScriptedTask>(QStringLiteral("worker"));
    task->setExecutionMode(Task::ExecutionMode::Worker);
    task->onExec = std::move(body);
    return task;
}

//! A body that runs until its task is to stop.
struct Endless {
    std::latch begun{1};
    std::atomic<bool> returned = false;

    std::unique_ptr<ScriptedTask> task() {
        return workerTask([this](ScriptedTask* self) {
            begun.count_down();
            while (!self->isCancelRequested())
                std::this_thread::yield();
            returned = true;
            return Error();
        });
    }
};

} // namespace

TEST(WorkerTask, RunsItsBodyOnAnotherThreadAndEndsOnTheOwners) {
    std::thread::id bodyThread, finishThread;
    auto task = workerTask([&](ScriptedTask*) {
        bodyThread = std::this_thread::get_id();
        return failure(u"from the worker"_qs);
    });
    QObject::connect(task.get(), &BaseTask::finished, [&] { finishThread = std::this_thread::get_id(); });
    task->exec();
    EXPECT_TRUE(task->isRunning());
    EXPECT_EQ(task->waitForFinished().errorMessage(), u"from the worker");
    EXPECT_NE(bodyThread, std::this_thread::get_id());
    EXPECT_EQ(finishThread, std::this_thread::get_id());
}

TEST(WorkerTask, EndsThroughTheEventLoop) {
    auto task = workerTask([](ScriptedTask*) { return Error(); });
    QEventLoop loop;
    QObject::connect(task.get(), &BaseTask::idle, &loop, &QEventLoop::quit);
    task->exec();
    loop.exec();
    EXPECT_TRUE(task->isFinished());
}

TEST(WorkerTask, IsAwaitedOnAPlainThreadWithoutADispatcher) {
    bool ended = false;
    std::thread([&] {
        auto task = workerTask([](ScriptedTask*) { return Error(); });
        task->exec();
        ended = !task->waitForFinished().hasError() && task->isFinished();
    }).join();
    EXPECT_TRUE(ended);
}

TEST(WorkerTask, AComplexTaskOfWorkersIsAwaitedOnAPlainThread) {
    EventLog log;
    std::thread([&] {
        Complex task;
        task.onInitialize = [&](Complex* self) {
            self->execSubtask(workerTask([](ScriptedTask*) { return Error(); }), [&, self](BaseTask*) {
                log.add(u"first"_qs);
                self->appendSubtask(workerTask([](ScriptedTask*) { return Error(); }),
                                    log.note(u"second"_qs));
                self->execSubtasks();
            });
            return Error();
        };
        task.exec();
        if (task.waitForFinished().hasError())
            log.add(u"failed"_qs);
    }).join();
    EXPECT_EQ(log.str(), "first, second");
}

TEST(WorkerTask, RunsOnAThreadWithItsOwnEventLoop) {
    bool endedOnOwner = false;
    // A plain thread with an event loop: what Qt hands over between its own threads is unknown to thread
    // sanitizers.
    std::thread([&] {
        const std::thread::id owner = std::this_thread::get_id();
        QEventLoop loop;
        auto task = workerTask([](ScriptedTask*) { return Error(); });
        QObject::connect(task.get(), &BaseTask::idle, &loop, [&] {
            endedOnOwner = std::this_thread::get_id() == owner;
            loop.quit();
        });
        task->exec();
        loop.exec();
    }).join();
    EXPECT_TRUE(endedOnOwner);
}

TEST(WorkerTask, TimesOutWhileTheBodyRuns) {
    Endless endless;
    auto task = endless.task();
    task->exec();
    EXPECT_TRUE(task->waitForFinished(0).is(ErrorCode::TimedOut));
    task->cancel();
    EXPECT_TRUE(task->waitForFinished().isCanceled());
}

TEST(WorkerCancel, IsSeenByTheBodyAndTheTaskEndsCancelled) {
    EventLog log;
    Endless endless;
    auto task = endless.task();
    log.watch(task.get(), u"t"_qs);
    task->exec();
    endless.begun.wait();
    task->cancel();
    EXPECT_TRUE(task->error().isCanceled());
    EXPECT_TRUE(task->isRunning());
    EXPECT_TRUE(task->waitForFinished().isCanceled());
    EXPECT_EQ(log.str(), "t started, t canceled, t finished, t idle");
}

TEST(WorkerCancel, OfABodyThatHasNotBegunEndsAtOnce) {
    EventLog log;
    FullPool pool;
    auto task = workerTask([&](ScriptedTask*) { return log.add(u"body"_qs), Error(); });
    log.watch(task.get(), u"t"_qs);
    task->exec();
    task->cancel();
    EXPECT_EQ(log.str(), "t started, t canceled, t finished, t idle");
}

TEST(WorkerCancel, ATreeOfWorkersEndsWhenAllBodiesHaveReturned) {
    Endless first, second;
    Complex task;
    task.onInitialize = [&](Complex* self) {
        self->execSubtask(first.task());
        self->appendSubtask(second.task());
        self->execSubtasks();
        return Error();
    };
    task.exec();
    first.begun.wait();
    second.begun.wait();
    task.cancel();
    EXPECT_TRUE(task.waitForFinished().isCanceled());
    EXPECT_TRUE(first.returned);
    EXPECT_TRUE(second.returned);
}

//! A body that waits until it is told to return, as one does that blocks on something else than its task.
struct Waiting {
    std::latch begun{1};
    std::promise<void> told;
    std::atomic<bool> returned = false;

    std::unique_ptr<ScriptedTask> task() {
        return workerTask([this](ScriptedTask*) {
            const std::stop_callback onStop(Task::stopTokenOfThisThread(), [this] { told.set_value(); });
            begun.count_down();
            told.get_future().wait();
            returned = true;
            return Error();
        });
    }
};

TEST(WorkerStopToken, TellsABodyThatWaitsWhenItsTaskIsCancelled) {
    Waiting waiting;
    auto task = waiting.task();
    task->exec();
    waiting.begun.wait();
    task->cancel();
    EXPECT_TRUE(task->waitForFinished().isCanceled());
    EXPECT_TRUE(waiting.returned);
}

TEST(WorkerStopToken, TellsABodyThatWaitsWhenItsTaskIsDestroyed) {
    Waiting waiting;
    auto task = waiting.task();
    task->exec();
    waiting.begun.wait();
    task.reset();
    EXPECT_TRUE(waiting.returned);
}

TEST(WorkerStopToken, TellsTheBodiesOfATreeThatIsCancelledOrDestroyed) {
    for (const bool destroyed : {false, true}) {
        Waiting first, second;
        auto task = std::make_unique<Complex>();
        task->onInitialize = [&](Complex* self) {
            self->execSubtask(first.task());
            self->appendSubtask(second.task());
            self->execSubtasks();
            return Error();
        };
        task->exec();
        first.begun.wait();
        second.begun.wait();
        if (destroyed) {
            task.reset();
        } else {
            task->cancel();
            EXPECT_TRUE(task->waitForFinished().isCanceled());
        }
        EXPECT_TRUE(first.returned);
        EXPECT_TRUE(second.returned);
    }
}

TEST(WorkerStopToken, TellsABodyThatStillRunsWhenItsTaskHasFinished) {
    Waiting waiting;
    auto task = waiting.task();
    task->exec();
    waiting.begun.wait();
    task->finish(Error());
    EXPECT_FALSE(task->isIdle());
    task->cancel();
    EXPECT_TRUE(OwnerInbox::ofThisThread()->waitUntil([&] { return task->isIdle(); }, std::nullopt));
    EXPECT_TRUE(waiting.returned);
}

TEST(WorkerStopToken, IsThatOfTheBodyThatRunsAndOfNoOther) {
    EXPECT_FALSE(Task::stopTokenOfThisThread().stop_possible());
    std::optional<std::stop_token> seen;
    auto task = workerTask([&](ScriptedTask*) { return seen = Task::stopTokenOfThisThread(), Error(); });
    task->exec();
    EXPECT_FALSE(task->waitForFinished().hasError());
    EXPECT_FALSE(seen->stop_requested());
    // The worker of a body that has returned runs something else, which no task stops.
    for (int i = 0; i < WorkerPool::instance().threadCount(); ++i) {
        std::atomic<bool> possible = true;
        bool done = false;
        WorkerPool::instance().submit([&] { possible = Task::stopTokenOfThisThread().stop_possible(); },
                                      nullptr, [&] { done = true; });
        EXPECT_TRUE(OwnerInbox::ofThisThread()->waitUntil([&] { return done; }, std::nullopt));
        EXPECT_FALSE(possible);
    }
}

TEST(WorkerIdle, AFinishedTaskIsBusyUntilItsBodyHasReturned) {
    EventLog log;
    Endless endless;
    GroupTask group;
    auto task = endless.task();
    const QPointer<ScriptedTask> guard(task.get());
    log.watch(task.get(), u"t"_qs);
    group.addTask(std::move(task), log.note(u"continued"_qs));
    group.exec();
    endless.begun.wait();
    guard->finish(Error());
    deleteLeftovers();
    ASSERT_FALSE(guard.isNull());
    EXPECT_FALSE(guard->isIdle());
    EXPECT_TRUE(group.isRunning());
    EXPECT_EQ(log.str(), "t started, t finished, continued");
    group.cancel();
    EXPECT_TRUE(guard->isCancelRequested());
    EXPECT_TRUE(group.waitForFinished().isCanceled());
    EXPECT_TRUE(endless.returned);
    EXPECT_EQ(log.count(u"t idle"_qs), 1);
}

TEST(WorkerIdle, AGroupWaitsForEveryBodyBeforeItFinishes) {
    Endless first, second;
    GroupTask group;
    QList<QPointer<ScriptedTask>> children;
    for (Endless* endless : {&first, &second}) {
        auto child = endless->task();
        children << child.get();
        group.addTask(std::move(child));
    }
    group.exec();
    first.begun.wait();
    second.begun.wait();
    bool allReturned = false;
    QObject::connect(&group, &BaseTask::finished, &group,
                     [&] { allReturned = first.returned && second.returned; });
    for (const QPointer<ScriptedTask>& child : children)
        child->finish(Error());
    EXPECT_EQ(group.pendingCount(), 2);

    children[0]->cancel(); // ends the body of the finished task
    EXPECT_TRUE(OwnerInbox::ofThisThread()->waitUntil([&] { return group.pendingCount() == 1; },
                                                      std::chrono::seconds(60)));
    EXPECT_TRUE(group.isRunning());
    EXPECT_FALSE(second.returned);
    children[1]->cancel();
    EXPECT_FALSE(group.waitForFinished().hasError());
    EXPECT_TRUE(allReturned);
}

TEST(WorkerDestruction, WaitsForTheBodyAndLeavesNoCallback) {
    EventLog log;
    Endless endless;
    auto task = endless.task();
    log.watch(task.get(), u"t"_qs);
    task->exec();
    endless.begun.wait();
    task.reset();
    EXPECT_TRUE(endless.returned);
    deleteLeftovers();
    EXPECT_EQ(log.str(), "t started");
}

TEST(WorkerDestruction, OfABodyThatHasNotBegunDropsIt) {
    std::atomic<bool> ran = false;
    {
        FullPool pool;
        auto task = workerTask([&](ScriptedTask*) { return ran = true, Error(); });
        task->exec();
        task.reset();
    }
    auto after = workerTask([](ScriptedTask*) { return Error(); });
    after->exec();
    EXPECT_FALSE(after->waitForFinished().hasError());
    EXPECT_FALSE(ran);
}

TEST(WorkerDestruction, OfATreeWaitsForEveryBodyWithoutHelpOfTheSubtasks) {
    //! Does not stop its body itself: the owner does, while the object is whole.
    class Careless : public Task {
    public:
        Careless(std::latch* begun, std::atomic<int>* returned)
            : Task(QStringLiteral("careless")), m_begun(begun), m_returned(returned) {
            setExecutionMode(ExecutionMode::Worker);
        }

    protected:
        Error doExec() override {
            m_begun->count_down();
            while (!isCancelRequested())
                std::this_thread::yield();
            ++*m_returned;
            return Error();
        }

    private:
        std::latch* m_begun;
        std::atomic<int>* m_returned;
    };
    std::latch begun(2);
    std::atomic<int> returned = 0;
    auto outer = std::make_unique<Complex>();
    outer->onInitialize = [&](Complex* self) {
        auto inner = std::make_unique<Complex>();
        inner->onInitialize = [&](Complex* it) {
            it->execSubtask(std::make_unique<Careless>(&begun, &returned), {}, {});
            return Error();
        };
        self->execSubtask(std::move(inner), {}, {});
        self->appendSubtask(std::make_unique<Careless>(&begun, &returned));
        self->execSubtasks();
        return Error();
    };
    outer->exec();
    begun.wait();
    outer.reset();
    EXPECT_EQ(returned, 2);
}

TEST(WorkerPoolSubmit, RunsTheCompletionOnTheSubmittersThreadAfterTheJobAndItsCaptures) {
    std::atomic<bool> jobDone = false, released = false;
    bool completed = false, last = false;
    // Takes its time, so that a completion which does not wait for it is seen to come first.
    const auto release = [&](int* value) {
        for (int i = 0; i < 100; ++i)
            std::this_thread::yield();
        delete value;
        released = true;
    };
    std::shared_ptr<int> held(new int(1), release);
    WorkerPool::instance().submit([&, held = std::move(held)] { jobDone = true; }, nullptr,
                                  [&] {
                                      completed = true;
                                      last = jobDone && released;
                                  });
    EXPECT_FALSE(completed);
    EXPECT_TRUE(OwnerInbox::ofThisThread()->waitUntil([&] { return completed; }, std::nullopt));
    EXPECT_TRUE(last);
    while (!released) // what it refers to is of this function
        std::this_thread::yield();
}

TEST(WorkerPoolSubmit, DropsTheCompletionWhenTheContextIsGone) {
    bool first = false, second = false;
    auto context = std::make_unique<QObject>();
    {
        FullPool pool;
        WorkerPool::instance().submit([] {}, context.get(), [&] { first = true; });
        context.reset();
    }
    WorkerPool::instance().submit([] {}, nullptr, [&] { second = true; });
    EXPECT_TRUE(OwnerInbox::ofThisThread()->waitUntil([&] { return second; }, std::nullopt));
    for (bool more = true; more;)
        more = OwnerInbox::ofThisThread()->drain();
    EXPECT_FALSE(first);
}

TEST(WorkerPoolSubmit, ManyJobsFromSeveralThreadsAllComplete) {
    std::atomic<int> ran = 0;
    std::atomic<int> completed = 0;
    const int perThread = 500;
    const auto submitAll = [&] {
        int own = 0;
        for (int i = 0; i < perThread; ++i)
            WorkerPool::instance().submit([&] { ++ran; }, nullptr, [&] { ++own; });
        OwnerInbox::ofThisThread()->waitUntil([&] { return own == perThread; }, std::nullopt);
        completed += own;
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back(submitAll);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(ran, 4 * perThread);
    EXPECT_EQ(completed, 4 * perThread);
}

TEST(WorkerPoolSubmit, AThreadThatEndsDropsWhatIsLeftForIt) {
    std::latch submitted(1);
    std::atomic<bool> called = false;
    auto pool = std::make_unique<FullPool>();
    std::thread([&] { WorkerPool::instance().submit([] {}, nullptr, [&] { called = true; }); }).join();
    pool.reset();
    bool later = false;
    WorkerPool::instance().submit([] {}, nullptr, [&] { later = true; });
    OwnerInbox::ofThisThread()->waitUntil([&] { return later; }, std::nullopt);
    EXPECT_FALSE(called);
}

TEST(OwnerInboxOfAnEndedThread, DropsCallsAtOnce) {
    auto token = std::make_shared<int>(1);
    const std::weak_ptr<int> watch(token);
    std::shared_ptr<OwnerInbox> inbox;
    bool called = false;
    std::thread([&] {
        inbox = OwnerInbox::ofThisThread();
        inbox->post([&, token] { called = true; });
    }).join();
    EXPECT_EQ(token.use_count(), 1);
    inbox->post([&, token] { called = true; });
    token.reset();
    EXPECT_TRUE(watch.expired());
    EXPECT_FALSE(called);
}

TEST(OwnerInboxOrder, CallsRunInTheOrderTheyWerePosted) {
    QString order;
    const auto inbox = OwnerInbox::ofThisThread();
    std::thread([&] {
        inbox->post([&] { order += u'1'; });
        inbox->post([&] { order += u'2'; });
    }).join();
    inbox->post([&] { order += u'3'; });
    EXPECT_TRUE(inbox->drain());
    EXPECT_EQ(order, u"123");
    EXPECT_FALSE(inbox->drain());
}

TEST(OwnerInboxOrder, ACallThatPostsAnotherDoesNotRunItInTheSameDrain) {
    int calls = 0;
    const auto inbox = OwnerInbox::ofThisThread();
    inbox->post([&] {
        ++calls;
        inbox->post([&] { ++calls; });
    });
    EXPECT_TRUE(inbox->drain());
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(inbox->drain());
    EXPECT_EQ(calls, 2);
}

TEST(OwnerInboxOrder, ACallMayWaitForALaterOne) {
    bool later = false, waited = false;
    const auto inbox = OwnerInbox::ofThisThread();
    inbox->post([&] { waited = inbox->waitUntil([&] { return later; }, std::nullopt); });
    inbox->post([&] { later = true; });
    EXPECT_TRUE(inbox->drain());
    EXPECT_TRUE(waited);
}

TEST(OwnerInboxWake, APostWakesTheEventLoop) {
    QEventLoop loop;
    const auto inbox = OwnerInbox::ofThisThread();
    std::thread poster([&] { inbox->post([&] { loop.quit(); }); });
    loop.exec();
    poster.join();
}

TEST(OwnerInboxWake, AWaitOnAPlainThreadDeliversPostedEvents) {
    bool delivered = false;
    std::thread([&] {
        QObject object;
        QMetaObject::invokeMethod(
            &object, [&] { delivered = true; }, Qt::QueuedConnection);
        OwnerInbox::ofThisThread()->waitUntil([&] { return delivered; }, std::chrono::seconds(60));
    }).join();
    EXPECT_TRUE(delivered);
}

TEST(OwnerInboxWake, AWaitEndsWhenTheTimeIsUp) {
    EXPECT_FALSE(OwnerInbox::ofThisThread()->waitUntil([] { return false; }, std::chrono::milliseconds(2)));
    std::thread([] {
        EXPECT_FALSE(
            OwnerInbox::ofThisThread()->waitUntil([] { return false; }, std::chrono::milliseconds(2)));
    }).join();
}
