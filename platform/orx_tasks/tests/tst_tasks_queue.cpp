#include "TaskProbes.h"

#include <TasksQueue.h>

#include <gtest/gtest.h>

using namespace orx;
using namespace orx::probes;

namespace {

struct Queued {
    Queued(TasksQueue& queue, EventLog& log, const QString& name) : manual(name), task(manual.task) {
        log.watch(task, name);
        queue.add(manual.take(), log.note(name + u" told"_qs));
    }
    Manual manual;
    QPointer<ManualTask> task;
};

} // namespace

TEST(TasksQueue, StartsInOrderNoMoreThanItsBound) {
    EventLog log;
    TasksQueue queue(2);
    QObject::connect(&queue, &TasksQueue::drained, &queue, [&log] { log.add(u"drained"_qs); });
    const Queued a(queue, log, u"a"_qs), b(queue, log, u"b"_qs), c(queue, log, u"c"_qs);
    EXPECT_EQ(log.str(), "a started, b started");
    EXPECT_EQ(queue.pendingCount(), 3);
    log.clear();
    b.task->finish(failure(u"b broke"_qs)); // stops nothing
    EXPECT_EQ(log.str(), "b finished, b told, c started, b idle");
    log.clear();
    a.task->finish(Error());
    c.task->finish(Error());
    EXPECT_EQ(log.str(), "a finished, a told, a idle, c finished, c told, drained, c idle");
    EXPECT_EQ(queue.pendingCount(), 0);
    deleteLeftovers();
    EXPECT_TRUE(a.task.isNull());
}

TEST(TasksQueue, ATaskCountsUntilItIsIdle) {
    EventLog log;
    TasksQueue queue(1);
    Manual inner;
    auto outer = std::make_unique<Complex>();
    outer->onInitialize = [&inner](Complex* self) {
        self->execSubtask(inner.take());
        return Error();
    };
    BaseTask* const first = outer.get();
    queue.add(std::move(outer));
    const Queued second(queue, log, u"second"_qs);
    first->finish(Error());
    EXPECT_EQ(log.str(), "");
    inner->finish(Error());
    EXPECT_EQ(log.str(), "second started");
}

TEST(TasksQueue, EachTaskIsATreeWithSlotsOfItsOwn) {
    TasksQueue queue(2);
    std::vector<GroupTask*> groups;
    std::vector<QPointer<ManualTask>> children;
    for (int i = 0; i < 2; ++i) {
        auto group = std::make_unique<GroupTask>();
        group->setBreadth(1);
        Manual child;
        children.push_back(child.task);
        group->addTask(child.take());
        groups.push_back(group.get());
        queue.add(std::move(group));
    }
    EXPECT_TRUE(children[0]->isRunning());
    EXPECT_TRUE(children[1]->isRunning());
}

TEST(TasksQueue, CancelEndsWhatRunsAndWhatWaitsAndTheQueueGoesOn) {
    EventLog log;
    TasksQueue queue(1);
    const Queued a(queue, log, u"a"_qs), b(queue, log, u"b"_qs);
    log.clear();
    queue.cancel();
    EXPECT_EQ(log.str(), "a canceled, a finished, a idle, a told (canceled), "
                         "b canceled, b finished, b idle, b told (canceled)");
    EXPECT_EQ(queue.pendingCount(), 0);
    log.clear();
    const Queued c(queue, log, u"c"_qs);
    EXPECT_EQ(log.str(), "c started");
}

TEST(TasksQueue, ATaskThatIsCancelledWhileItWaitsEndsAtOnce) {
    EventLog log;
    TasksQueue queue(1);
    const Queued a(queue, log, u"a"_qs), b(queue, log, u"b"_qs);
    log.clear();
    b.task->cancel();
    EXPECT_EQ(log.str(), "b canceled, b finished, b idle, b told (canceled)");
    EXPECT_TRUE(a.task->isRunning());
}

TEST(TasksQueue, TasksMayBeAddedByTheOnesThatEnd) {
    TasksQueue queue(1);
    int left = 50'000;
    std::function<void(BaseTask*)> next = [&](BaseTask*) {
        if (--left > 0)
            queue.add(instant(), next);
    };
    queue.add(instant(), next);
    EXPECT_EQ(left, 0);
    EXPECT_EQ(queue.pendingCount(), 0);
    deleteLeftovers();
}

TEST(TasksQueue, MayBeDestroyedWhileTasksRunAndWait) {
    EventLog log;
    auto queue = std::make_unique<TasksQueue>(1);
    const Queued a(*queue, log, u"a"_qs), b(*queue, log, u"b"_qs);
    log.clear();
    queue.reset();
    EXPECT_TRUE(a.task.isNull());
    EXPECT_TRUE(b.task.isNull());
    EXPECT_EQ(log.str(), "");
}

TEST(TasksQueue, MayBeDestroyedByATaskThatEnds) {
    EventLog log;
    auto queue = std::make_unique<TasksQueue>(1);
    Manual first;
    queue->add(first.take(), [&queue](BaseTask*) { queue.reset(); });
    const Queued waiting(*queue, log, u"waiting"_qs);
    first->finish(Error());
    EXPECT_FALSE(queue);
    EXPECT_TRUE(waiting.task.isNull());
    EXPECT_EQ(log.str(), "");
}
