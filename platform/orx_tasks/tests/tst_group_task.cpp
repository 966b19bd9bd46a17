#include "TaskProbes.h"

#include <gtest/gtest.h>

using namespace orx;
using namespace orx::probes;

namespace {

void addAll(GroupTask& group, EventLog& log, std::initializer_list<std::pair<QString, BaseTask*>> children) {
    for (const auto& [name, child] : children)
        group.addTask(std::unique_ptr<BaseTask>(child), log.note(name + u" ok"_qs),
                      log.note(name + u" failed"_qs));
}

} // namespace

TEST(GroupTask, WithoutChildrenSucceedsAtOnce) {
    EventLog log;
    GroupTask group;
    log.watch(&group, u"g"_qs);
    group.exec();
    EXPECT_EQ(log.str(), "g started, g finished, g idle");
    EXPECT_FALSE(group.hasError());
}

TEST(GroupTask, FinishesAfterTheLastContinuation) {
    EventLog log;
    GroupTask group;
    log.watch(&group, u"g"_qs);
    Manual a, b;
    addAll(group, log, {{u"a"_qs, a.owned.release()}, {u"b"_qs, b.owned.release()}});
    EXPECT_EQ(group.pendingCount(), 2);
    EXPECT_EQ(a->state(), BaseTask::State::Created);

    group.exec();
    b->finish(Error());
    EXPECT_EQ(group.pendingCount(), 1);
    a->finish(Error());

    EXPECT_EQ(log.str(), "g started, b ok, a ok, g finished, g idle");
    EXPECT_EQ(group.pendingCount(), 0);
    deleteLeftovers();
    EXPECT_TRUE(a.task.isNull());
    EXPECT_TRUE(b.task.isNull());
}

TEST(GroupTask, AChildIsAliveUntilControlReturnsToTheEventLoop) {
    GroupTask group;
    Manual a, b;
    group.addTask(a.take());
    group.addTask(b.take());
    group.exec();
    a->finish(Error());
    EXPECT_FALSE(a.task.isNull());
    deleteLeftovers();
    EXPECT_TRUE(a.task.isNull());
    EXPECT_FALSE(b.task.isNull());
}

TEST(GroupTask, AChildAddedWhileRunningStartsAtOnce) {
    GroupTask group;
    Manual a, b;
    group.addTask(a.take());
    group.exec();
    group.addTask(b.take());
    EXPECT_TRUE(b->isRunning());
    a->finish(Error());
    EXPECT_TRUE(group.isRunning());
    b->finish(Error());
    EXPECT_TRUE(group.isFinished());
}

TEST(GroupTask, AContinuationMayAddChildren) {
    EventLog log;
    GroupTask group;
    log.watch(&group, u"g"_qs);
    group.addTask(instant(), [&](BaseTask*) {
        log.add(u"first"_qs);
        group.addTask(instant(), log.note(u"second"_qs));
        log.add(u"first returns"_qs);
    });
    group.exec();
    EXPECT_EQ(log.str(), "g started, first, first returns, second, g finished, g idle");
}

TEST(GroupStopOnFirstFailure, IsTheDefault) {
    EXPECT_EQ(GroupTask().childFailurePolicy(), GroupTask::ChildFailurePolicy::StopOnFirstFailure);
}

TEST(GroupStopOnFirstFailure, CancelsTheRunningChildrenAndTellsEachBeforeItFinishes) {
    EventLog log;
    GroupTask group;
    log.watch(&group, u"g"_qs);
    Manual a, b, c;
    addAll(group, log,
           {{u"a"_qs, a.owned.release()}, {u"b"_qs, b.owned.release()}, {u"c"_qs, c.owned.release()}});
    group.exec();
    b->finish(failure(u"b broke"_qs));
    EXPECT_EQ(log.str(), "g started, b failed, a failed (canceled), c failed (canceled), g finished, g idle");
    EXPECT_EQ(group.error().errorMessage(), u"b broke");
    EXPECT_FALSE(group.isCanceled());
}

TEST(GroupStopOnFirstFailure, QueuedChildrenNeverStartAndAreToldToo) {
    EventLog log;
    GroupTask group;
    log.watch(&group, u"g"_qs);
    Manual running, queued;
    log.watch(queued.task, u"queued"_qs);
    addAll(group, log,
           {{u"running"_qs, running.owned.release()},
            {u"broken"_qs, instant(failure(u"broken"_qs)).release()},
            {u"queued"_qs, queued.owned.release()}});
    group.exec();
    EXPECT_EQ(log.str(),
              "g started, broken failed, running failed (canceled), queued canceled, queued finished, "
              "queued idle, queued failed (canceled), g finished, g idle");
    EXPECT_EQ(group.error().errorMessage(), u"broken");
}

TEST(GroupStopOnFirstFailure, WaitsForAChildThatIgnoresTheCancellation) {
    EventLog log;
    GroupTask group;
    log.watch(&group, u"g"_qs);
    auto* stubborn = new StubbornTask;
    Manual a;
    addAll(group, log, {{u"stubborn"_qs, stubborn}, {u"a"_qs, a.owned.release()}});
    group.exec();
    a->finish(failure(u"a broke"_qs));
    EXPECT_TRUE(group.isRunning());
    EXPECT_TRUE(stubborn->isCanceled());
    stubborn->finish(Error());
    EXPECT_EQ(log.str(), "g started, a failed, stubborn failed (canceled), g finished, g idle");
    EXPECT_EQ(group.error().errorMessage(), u"a broke");
}

TEST(GroupStopOnFirstFailure, AChildAddedAfterTheFailureIsCancelledBeforeItRuns) {
    EventLog log;
    GroupTask group;
    auto* stubborn = new StubbornTask;
    Manual a, late;
    addAll(group, log, {{u"stubborn"_qs, stubborn}, {u"a"_qs, a.owned.release()}});
    group.exec();
    a->finish(failure(u"a broke"_qs));
    log.watch(late.task, u"late"_qs);
    addAll(group, log, {{u"late"_qs, late.owned.release()}});
    EXPECT_EQ(log.str(), "a failed, late canceled, late finished, late idle, late failed (canceled)");
    stubborn->finish(Error());
    EXPECT_EQ(group.error().errorMessage(), u"a broke");
}

TEST(GroupStopOnFirstFailure, AChildCancelledOnItsOwnIsAFailureWithTheCancelCode) {
    EventLog log;
    GroupTask group;
    Manual a, b;
    addAll(group, log, {{u"a"_qs, a.owned.release()}, {u"b"_qs, b.owned.release()}});
    group.exec();
    a->cancel();
    EXPECT_EQ(log.str(), "a failed (canceled), b failed (canceled)");
    EXPECT_TRUE(group.error().isCanceled());
    EXPECT_FALSE(group.isCanceled());
}

TEST(GroupRunAll, RunsAllAndEndsWithTheErrorOfTheFirstThatFailed) {
    EventLog log;
    GroupTask group;
    log.watch(&group, u"g"_qs);
    group.setChildFailurePolicy(GroupTask::ChildFailurePolicy::RunAll);
    Manual a, b, c;
    addAll(group, log,
           {{u"a"_qs, a.owned.release()}, {u"b"_qs, b.owned.release()}, {u"c"_qs, c.owned.release()}});
    group.exec();
    b->finish(failure(u"b broke"_qs));
    a->finish(failure(u"a broke"_qs));
    EXPECT_TRUE(c->isRunning());
    EXPECT_FALSE(c->isCanceled());
    c->finish(Error());
    EXPECT_EQ(log.str(), "g started, b failed, a failed, c ok, g finished, g idle");
    EXPECT_EQ(group.error().errorMessage(), u"b broke");
}

TEST(GroupRunAll, QueuedChildrenStartAfterAFailure) {
    EventLog log;
    GroupTask group;
    group.setChildFailurePolicy(GroupTask::ChildFailurePolicy::RunAll);
    addAll(group, log,
           {{u"broken"_qs, instant(failure(u"broken"_qs)).release()}, {u"next"_qs, instant().release()}});
    group.exec();
    EXPECT_EQ(log.str(), "broken failed, next ok");
    EXPECT_EQ(group.error().errorMessage(), u"broken");
}

TEST(GroupCancel, ReachesEveryChildAndFinishesAfterThem) {
    EventLog log;
    GroupTask group;
    log.watch(&group, u"g"_qs);
    Manual a, b;
    addAll(group, log, {{u"a"_qs, a.owned.release()}, {u"b"_qs, b.owned.release()}});
    group.exec();
    group.cancel();
    EXPECT_EQ(log.str(),
              "g started, g canceled, a failed (canceled), b failed (canceled), g finished, g idle");
    EXPECT_TRUE(group.error().isCanceled());
}

TEST(GroupCancel, BeforeTheStartTellsEveryChild) {
    EventLog log;
    GroupTask group;
    log.watch(&group, u"g"_qs);
    addAll(group, log, {{u"a"_qs, new ManualTask}, {u"b"_qs, new ManualTask}});
    group.cancel();
    group.exec();
    EXPECT_EQ(log.str(), "g canceled, a failed (canceled), b failed (canceled), g finished, g idle");
}

TEST(GroupCancel, InAContinuationReachesTheChildrenThatWait) {
    EventLog log;
    GroupTask group;
    group.addTask(instant(), [&](BaseTask*) { group.cancel(); });
    Manual b;
    log.watch(b.task, u"b"_qs);
    group.addTask(b.take(), {}, log.note(u"b failed"_qs));
    group.exec();
    EXPECT_EQ(log.str(), "b canceled, b finished, b idle, b failed (canceled)");
    EXPECT_TRUE(group.isFinished());
}

TEST(GroupNesting, ACancelReachesEveryLevel) {
    auto inner = std::make_unique<GroupTask>(u"inner"_qs);
    Manual leaf;
    inner->addTask(leaf.take());
    GroupTask outer;
    const QPointer<GroupTask> innerGuard(inner.get());
    outer.addTask(std::move(inner));
    outer.exec();
    ASSERT_TRUE(leaf->isRunning());
    outer.cancel();
    EXPECT_TRUE(leaf->isCanceled());
    EXPECT_TRUE(innerGuard->isCanceled());
    EXPECT_TRUE(outer.isFinished());
}

TEST(GroupNesting, AnInnerFailureEndsTheOuterGroup) {
    auto inner = std::make_unique<GroupTask>(u"inner"_qs);
    inner->addTask(instant(failure(u"deep"_qs)));
    GroupTask outer;
    outer.addTask(std::move(inner));
    outer.exec();
    EXPECT_EQ(outer.error().errorMessage(), u"deep");
}

TEST(GroupNesting, EmptyGroupsInGroupsSucceed) {
    GroupTask outer;
    for (int i = 0; i < 3; ++i)
        outer.addTask(std::make_unique<GroupTask>());
    outer.exec();
    EXPECT_TRUE(outer.isFinished());
    EXPECT_FALSE(outer.hasError());
}

TEST(GroupNesting, AChildWithRunningDescendantsIsCountedUntilItIsIdle) {
    EventLog log;
    GroupTask outer;
    log.watch(&outer, u"outer"_qs);
    auto child = std::make_unique<Complex>();
    const QPointer<Complex> childGuard(child.get());
    Manual grandchild;
    child->onInitialize = [&](Complex* self) {
        self->execSubtask(grandchild.take(), log.note(u"grandchild ok"_qs));
        self->finish(Error());
        return Error();
    };
    outer.addTask(std::move(child), log.note(u"child ok"_qs));
    outer.exec();
    EXPECT_EQ(log.str(), "outer started, child ok");
    EXPECT_EQ(outer.pendingCount(), 1);
    deleteLeftovers();
    ASSERT_FALSE(childGuard.isNull());
    EXPECT_TRUE(childGuard->isFinished());

    grandchild->finish(Error());

    EXPECT_EQ(log.str(), "outer started, child ok, grandchild ok, outer finished, outer idle");
    deleteLeftovers();
    EXPECT_TRUE(childGuard.isNull());
}

TEST(GroupNesting, ACancelReachesTheDescendantsOfAFinishedChild) {
    GroupTask outer;
    auto child = std::make_unique<Complex>();
    const QPointer<Complex> childGuard(child.get());
    Manual grandchild;
    child->onInitialize = [&](Complex* self) {
        self->execSubtask(grandchild.take());
        self->finish(Error());
        return Error();
    };
    outer.addTask(std::move(child));
    outer.exec();
    outer.cancel();
    EXPECT_TRUE(grandchild->isCanceled());
    EXPECT_FALSE(childGuard->hasError());
    EXPECT_TRUE(outer.isFinished());
}

TEST(GroupNesting, AChildThatRestartsWithinFinishedIsContinuedWhenItHasEndedForGood) {
    EventLog log;
    GroupTask group;
    auto child = std::make_unique<ScriptedTask>();
    ScriptedTask* const raw = child.get();
    bool again = true;
    QObject::connect(raw, &BaseTask::finished, raw, [&] {
        if (std::exchange(again, false))
            raw->restart();
    });
    group.addTask(std::move(child), log.note(u"ok"_qs), log.note(u"failed"_qs));
    group.exec();
    EXPECT_EQ(log.str(), "");
    EXPECT_TRUE(group.isRunning());
    raw->finish(failure(u"second run"_qs));
    EXPECT_EQ(log.str(), "failed");
    EXPECT_TRUE(group.isFinished());
}

TEST(GroupWarnings, OfItsChildrenBecomeTheGroups) {
    GroupTask group;
    Manual a, b;
    group.addTask(a.take());
    group.addTask(b.take());
    group.exec();
    a->addWarning(u"of a"_qs);
    b->addWarning(u"of b"_qs);
    b->finish(Error());
    a->finish(Error());
    EXPECT_FALSE(group.hasError());
    EXPECT_EQ(group.error().warnings(), (Warnings{u"of b"_qs, u"of a"_qs}));
}

TEST(GroupRestart, WhatTheLastRunLeftBehindDoesNotEndTheNext) {
    GroupTask group;
    Manual left, again;
    group.addTask(left.take());
    group.exec();
    group.finish(Error());
    group.restart();
    left->finish(failure(u"of the last run"_qs));
    EXPECT_TRUE(group.isRunning());
    group.addTask(again.take());
    EXPECT_TRUE(again->isRunning());
    again->finish(Error());
    EXPECT_TRUE(group.isFinished());
    EXPECT_FALSE(group.hasError());
}

TEST(GroupRestart, AChildOfTheLastRunThatFailsCancelsNobody) {
    GroupTask group;
    Manual left, again;
    group.addTask(left.take());
    group.exec();
    group.finish(Error());
    group.restart();
    group.addTask(again.take());
    left->finish(failure(u"of the last run"_qs));
    EXPECT_FALSE(again->isCanceled());
    again->finish(Error());
    EXPECT_TRUE(group.isFinished());
    EXPECT_FALSE(group.hasError());
}

TEST(GroupRestart, WithNothingToRunItStaysRunningUntilItIsCancelled) {
    GroupTask group;
    group.exec();
    group.restart();
    EXPECT_TRUE(group.isRunning());
    group.cancel();
    EXPECT_TRUE(group.isFinished());
    EXPECT_TRUE(group.error().isCanceled());
}

TEST(GroupDestruction, SilencesAChildThatFinishesInItsDestructor) {
    class Abrupt : public ManualTask {
    public:
        ~Abrupt() override { finish(Error()); }
    };
    EventLog log;
    auto group = std::make_unique<GroupTask>();
    auto child = std::make_unique<Abrupt>();
    log.watch(child.get(), u"child"_qs);
    group->addTask(std::move(child), log.note(u"ok"_qs), log.note(u"failed"_qs));
    group->exec();
    log.clear();
    group.reset();
    EXPECT_EQ(log.str(), "");
}

TEST(GroupDestruction, WhileRunningLeavesNoCallback) {
    EventLog log;
    auto group = std::make_unique<GroupTask>();
    Manual a, b;
    log.watch(group.get(), u"g"_qs);
    log.watch(a.task, u"a"_qs);
    group->addTask(a.take(), log.note(u"a ok"_qs), log.note(u"a failed"_qs));
    group->exec();
    group->addTask(b.take());
    group.reset();
    deleteLeftovers();
    EXPECT_EQ(log.str(), "g started, a started");
    EXPECT_TRUE(a.task.isNull());
    EXPECT_TRUE(b.task.isNull());
}

TEST(GroupDestruction, WithinAContinuation) {
    EventLog log;
    auto* group = new GroupTask;
    const QPointer<GroupTask> guard(group);
    Manual b;
    group->addTask(instant(), [&](BaseTask*) {
        log.add(u"first"_qs);
        delete group;
        log.add(u"deleted"_qs);
    });
    group->addTask(b.take(), log.note(u"second"_qs), log.note(u"second failed"_qs));
    group->exec();
    EXPECT_EQ(log.str(), "first, deleted");
    EXPECT_TRUE(guard.isNull());
    EXPECT_TRUE(b.task.isNull());
}

TEST(GroupDestruction, OfAChildBySomebodyElseIsAFailure) {
    GroupTask group;
    Manual a;
    group.addTask(a.take());
    group.exec();
    delete a.task.data();
    EXPECT_TRUE(group.isFinished());
    EXPECT_TRUE(group.hasError());
}

TEST(GroupCaptures, LiveUntilTheChildIsDone) {
    auto token = std::make_shared<int>(1);
    const std::weak_ptr<int> watch(token);
    GroupTask group;
    Manual a;
    group.addTask(a.take(), [token](BaseTask*) {});
    token.reset();
    group.exec();
    EXPECT_FALSE(watch.expired());
    a->finish(Error());
    EXPECT_TRUE(watch.expired());
}

TEST(GroupCaptures, LiveUntilAFinishedChildIsIdle) {
    auto token = std::make_shared<int>(1);
    const std::weak_ptr<int> watch(token);
    GroupTask group;
    Manual grandchild;
    auto child = std::make_unique<Complex>();
    child->onInitialize = [&](Complex* self) {
        self->execSubtask(grandchild.take());
        self->finish(Error());
        return Error();
    };
    group.addTask(std::move(child), [token](BaseTask*) {});
    token.reset();
    group.exec();
    EXPECT_FALSE(watch.expired());
    grandchild->finish(Error());
    EXPECT_TRUE(watch.expired());
}

TEST(GroupSize, ManyChildrenThatEndAtOnceNeedNeitherStackNorTime) {
    GroupTask group;
    int told = 0;
#if defined(__SANITIZE_THREAD__)
    const int count = 50'000; // each costs much more there
#else
    const int count = 400'000;
#endif
    for (int i = 0; i < count; ++i)
        group.addTask(std::make_unique<GroupTask>(), [&told](BaseTask*) { ++told; });
    group.exec();
    EXPECT_TRUE(group.isFinished());
    EXPECT_EQ(told, count);
    deleteLeftovers();
}

TEST(GroupSize, AChainOfContinuationsDoesNotDeepenTheStack) {
    GroupTask group;
    int left = 100'000;
    std::function<void(BaseTask*)> next = [&](BaseTask*) {
        if (--left > 0)
            group.addTask(std::make_unique<GroupTask>(), next);
    };
    group.addTask(std::make_unique<GroupTask>(), next);
    group.exec();
    EXPECT_EQ(left, 0);
    EXPECT_TRUE(group.isFinished());
}

TEST(GroupSize, ManyRunningChildrenAreCancelledAndDestroyedInLinearTime) {
    auto group = std::make_unique<GroupTask>();
    int told = 0;
    const int count = 100'000;
    for (int i = 0; i < count; ++i)
        group->addTask(std::make_unique<ManualTask>(), {}, [&told](BaseTask*) { ++told; });
    group->exec();
    group->cancel();
    EXPECT_EQ(told, count);
    group.reset();
    deleteLeftovers();
}
