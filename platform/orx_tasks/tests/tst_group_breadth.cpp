#include "TaskProbes.h"

#include <OwnerInbox.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

using namespace orx;
using namespace orx::probes;

namespace {

//! Counts how many of its tasks run at a time, and ends them when it is asked to.
class Runners {
public:
    std::unique_ptr<BaseTask> make(const QString& name = QStringLiteral("runner")) {
        auto task = std::make_unique<ManualTask>(name);
        QObject::connect(task.get(), &BaseTask::started, task.get(), [this, raw = task.get()] {
            running.push_back(raw);
            order << raw->name();
            most = std::max(most, running.size());
        });
        QObject::connect(task.get(), &BaseTask::finished, task.get(),
                         [this, raw = task.get()] { std::erase(running, raw); });
        return task;
    }
    void endOne(size_t index = 0) { running.at(index)->finish(Error()); }

    std::vector<ManualTask*> running;
    size_t most = 0;
    QStringList order;
};

//! A child that waits for a person.
class AskingTask : public Task {
public:
    explicit AskingTask(EventLog& log) : Task(QStringLiteral("asking")), m_log(log) {}
    void answer() { goOn(SlotOrder::InLine); }
    void answerBeforeOthers() { goOn(SlotOrder::BeforeOthers); }

protected:
    void start() override {
        m_log.add(name() + u" asks"_qs);
        lendSlot();
    }
    void doCancel() override { finish(Error()); }

private:
    void goOn(SlotOrder order) {
        const auto then = [this] {
            m_log.add(name() + u" goes on"_qs);
            finish(Error());
        };
        takeSlotBack(then, order);
    }

    EventLog& m_log;
};

std::unique_ptr<Complex> folder(const QString& name, std::function<void(Complex*)> fill) {
    auto task = std::make_unique<Complex>(name);
    task->onInitialize = [fill = std::move(fill)](auto* self) {
        fill(self);
        self->execSubtasks();
        return Error();
    };
    return task;
}

} // namespace

TEST(GroupBreadth, IsSixteenUnlessSaidOtherwise) {
    GroupTask group;
    Runners runners;
    for (int i = 0; i < 20; ++i)
        group.addTask(runners.make());
    group.exec();
    EXPECT_EQ(group.breadth(), 16);
    EXPECT_EQ(runners.running.size(), 16u);
}

TEST(GroupBreadth, TheNextChildStartsWhenOneHasEndedAndWasTold) {
    EventLog log;
    GroupTask group;
    group.setBreadth(2);
    Manual a, b, c;
    for (auto& [name, manual] : {std::pair(u"a"_qs, &a), std::pair(u"b"_qs, &b), std::pair(u"c"_qs, &c)}) {
        log.watch(manual->task, name);
        group.addTask(manual->take(), log.note(name + u" ok"_qs));
    }
    group.exec();
    EXPECT_EQ(log.str(), "a started, b started");
    EXPECT_EQ(group.pendingCount(), 3);
    log.clear();
    b->finish(Error());
    EXPECT_EQ(log.str(), "b finished, b ok, c started, b idle");
    a->finish(Error());
    EXPECT_TRUE(group.isRunning());
    c->finish(Error());
    EXPECT_TRUE(group.isFinished());
}

TEST(GroupBreadth, ASlotIsTakenBeforeTheInitialisation) {
    EventLog log;
    GroupTask group;
    group.setBreadth(1);
    Manual first;
    auto second = std::make_unique<ScriptedTask>();
    second->onInitialize = [&log](ScriptedTask*) {
        log.add(u"initialised"_qs);
        return Error();
    };
    group.addTask(first.take());
    group.addTask(std::move(second));
    group.exec();
    EXPECT_EQ(log.str(), "");
    first->finish(Error());
    EXPECT_EQ(log.str(), "initialised");
}

TEST(GroupBreadth, IsOfTheWholeTreeFirstComeFirstServed) {
    GroupTask group;
    group.setBreadth(2);
    Runners runners;
    for (const QString& name : {u"a"_qs, u"b"_qs}) {
        group.addTask(folder(name, [&runners, name](Complex* self) {
            for (int i = 1; i <= 3; ++i)
                self->appendSubtask(runners.make(name + QString::number(i)));
        }));
    }
    group.addTask(runners.make(u"c"_qs));
    group.exec();
    // Both folders gave their slots back; c was in line before what they hold.
    EXPECT_EQ(runners.order.join(u' ').toStdString(), "c a1");
    while (!runners.running.empty())
        runners.endOne();
    EXPECT_EQ(runners.order.join(u' ').toStdString(), "c a1 a2 a3 b1 b2 b3");
    EXPECT_EQ(runners.most, 2u);
    EXPECT_TRUE(group.isSuccessful());
}

TEST(GroupBreadth, TheInnerGroupsOwnBreadthDoesNotCount) {
    GroupTask group;
    group.setBreadth(2);
    Runners runners;
    auto inner = std::make_unique<GroupTask>();
    inner->setBreadth(10);
    for (int i = 0; i < 5; ++i)
        inner->addTask(runners.make());
    group.addTask(std::move(inner));
    group.exec();
    EXPECT_EQ(runners.running.size(), 2u);
}

TEST(GroupBreadth, OneSlotIsEnoughForAnyDepth) {
    constexpr int depth = 200;
    Runners runners;
    std::function<void(Complex*, int)> fill = [&](Complex* self, int level) {
        self->appendSubtask(runners.make(QString::number(level)));
        if (level < depth)
            self->appendSubtask(
                folder(u"folder"_qs, [&fill, level](Complex* inner) { fill(inner, level + 1); }));
    };
    GroupTask group;
    group.setBreadth(1);
    group.addTask(folder(u"top"_qs, [&](Complex* self) { fill(self, 1); }));
    group.exec();
    while (!runners.running.empty())
        runners.endOne();
    EXPECT_EQ(runners.order.size(), depth);
    EXPECT_EQ(runners.most, 1u);
    EXPECT_TRUE(group.isSuccessful());
}

TEST(GroupBreadth, HoldsInRandomTreesWhateverEndsFirst) {
    for (unsigned seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        Runners runners;
        int made = 0;
        std::function<void(Complex*, int)> fill = [&](Complex* self, int level) {
            for (int i = int(random() % 6); i > 0; --i, ++made)
                self->appendSubtask(runners.make());
            for (int i = level < 12 ? int(random() % 3) : 0; i > 0 && made < 400; --i)
                self->appendSubtask(
                    folder(u"folder"_qs, [&fill, level](Complex* inner) { fill(inner, level + 1); }));
        };
        GroupTask group;
        const int breadth = 1 + int(random() % 5);
        group.setBreadth(breadth);
        for (int i = 0; i < 3; ++i)
            group.addTask(folder(u"top"_qs, [&](Complex* self) { fill(self, 1); }));
        group.exec();
        while (!runners.running.empty())
            runners.endOne(random() % runners.running.size());
        EXPECT_TRUE(group.isSuccessful());
        EXPECT_EQ(int(runners.order.size()), made);
        EXPECT_LE(int(runners.most), breadth);
        deleteLeftovers();
    }
}

TEST(GroupBreadth, WhatAChildRunsAsStepsNeedsNoFurtherSlot) {
    GroupTask group;
    group.setBreadth(1);
    Runners runners;
    auto transfer = std::make_unique<Complex>();
    transfer->onInitialize = [&](Complex* self) {
        self->execSubtask(runners.make(u"step 1"_qs));
        self->execSubtask(runners.make(u"step 2"_qs));
        return Error();
    };
    group.addTask(std::move(transfer));
    group.addTask(runners.make(u"other"_qs));
    group.exec();
    EXPECT_EQ(runners.order.join(u", ").toStdString(), "step 1, step 2");
    runners.endOne();
    runners.endOne();
    EXPECT_EQ(runners.order.last(), u"other");
}

TEST(GroupBreadth, AStepThatStartsAGroupGivesTheSlotOfTheChildBack) {
    GroupTask group;
    group.setBreadth(1);
    Runners runners;
    auto outer = std::make_unique<Complex>();
    outer->onInitialize = [&](Complex* self) {
        self->execSubtask(std::unique_ptr<BaseTask>(
            folder(u"step"_qs, [&](Complex* step) { step->appendSubtask(runners.make()); })));
        return Error();
    };
    group.addTask(std::move(outer));
    group.exec();
    ASSERT_EQ(runners.running.size(), 1u);
    runners.endOne();
    EXPECT_TRUE(group.isSuccessful());
}

TEST(GroupBreadth, ATaskExecutedByItselfNeedsNoSlot) {
    GroupTask group;
    group.setBreadth(1);
    Runners runners;
    group.addTask(runners.make());
    group.exec();
    const auto alone = runners.make();
    alone->exec();
    EXPECT_EQ(runners.running.size(), 2u);
}

TEST(GroupBreadth, AChildAddedLaterStandsBehindTheOthers) {
    GroupTask group;
    group.setBreadth(1);
    Runners runners;
    group.addTask(runners.make(u"a"_qs));
    group.addTask(runners.make(u"b"_qs));
    group.exec();
    group.addTask(runners.make(u"c"_qs));
    while (!runners.running.empty())
        runners.endOne();
    EXPECT_EQ(runners.order.join(u' ').toStdString(), "a b c");
}

TEST(GroupBreadth, ChildrenThatEndAtOnceDoNotDeepenTheStackThroughNestedGroups) {
    GroupTask group;
    group.setBreadth(2);
    int told = 0;
    constexpr int folders = 20'000;
    for (int i = 0; i < folders; ++i)
        group.addTask(folder(u"folder"_qs, [&told](Complex* self) {
            self->appendSubtask(instant(), [&told](BaseTask*) { ++told; });
        }));
    group.exec();
    EXPECT_TRUE(group.isFinished());
    EXPECT_EQ(told, folders);
    deleteLeftovers();
}

TEST(GroupBreadth, AChildThatBlocksInAnEventLoopDoesNotKeepTheOthersOut) {
    GroupTask group;
    group.setBreadth(2);
    Runners runners;
    bool isOver = false;
    auto blocking = std::make_unique<ScriptedTask>();
    blocking->onExec = [&](ScriptedTask*) {
        isOver = OwnerInbox::ofThisThread()->waitUntil(
            [&] {
                while (!runners.running.empty())
                    runners.endOne();
                return runners.order.size() == 3 && runners.running.empty();
            },
            std::chrono::milliseconds(60'000));
        return Error();
    };
    group.addTask(folder(u"folder"_qs, [&](Complex* self) {
        for (int i = 0; i < 3; ++i)
            self->appendSubtask(runners.make());
    }));
    group.addTask(std::move(blocking));
    group.exec();
    EXPECT_TRUE(isOver);
    EXPECT_EQ(runners.order.size(), 3);
    EXPECT_TRUE(group.isSuccessful());
}

TEST(GroupLine, AChildThatIsCancelledInItEndsAtOnceWithoutStarting) {
    EventLog log;
    GroupTask group;
    group.setBreadth(1);
    group.setChildFailurePolicy(GroupTask::ChildFailurePolicy::RunAll);
    Manual running, inLine, last;
    log.watch(inLine.task, u"in line"_qs);
    log.watch(last.task, u"last"_qs);
    group.addTask(running.take());
    group.addTask(inLine.take(), {}, log.note(u"told"_qs));
    group.addTask(last.take());
    group.exec();
    inLine->cancel();
    EXPECT_EQ(log.str(), "in line canceled, in line finished, in line idle, told (canceled)");
    EXPECT_TRUE(group.isRunning());
    log.clear();
    running->finish(Error());
    EXPECT_EQ(log.str(), "last started");
    last->finish(Error());
    EXPECT_EQ(group.error().code(), int(ErrorCode::Canceled));
    EXPECT_FALSE(group.isCanceled());
}

TEST(GroupLine, IsEndedByACancelOfTheGroup) {
    EventLog log;
    GroupTask group;
    group.setBreadth(1);
    Manual running, inLine;
    log.watch(inLine.task, u"in line"_qs);
    group.addTask(running.take(), {}, log.note(u"running told"_qs));
    group.addTask(inLine.take(), {}, log.note(u"in line told"_qs));
    group.exec();
    group.cancel();
    EXPECT_EQ(log.str(), "running told (canceled), in line canceled, in line finished, in line idle, "
                         "in line told (canceled)");
    EXPECT_TRUE(group.isFinished());
}

TEST(GroupLine, IsEndedByAFailureAndNobodyInItStarts) {
    EventLog log;
    GroupTask group;
    group.setBreadth(1);
    Manual running;
    group.addTask(running.take(), {}, log.note(u"failed"_qs));
    for (int i = 0; i < 3; ++i) {
        Manual inLine;
        log.watch(inLine.task, u"in line"_qs);
        group.addTask(inLine.take(), {}, log.note(u"told"_qs));
    }
    group.exec();
    running->finish(failure(u"broken"_qs));
    EXPECT_EQ(log.count(u"in line started"_qs), 0);
    EXPECT_EQ(log.count(u"told (canceled)"_qs), 3);
    EXPECT_TRUE(log.text().startsWith(u"failed, "));
    EXPECT_EQ(group.error().errorMessage(), u"broken");
}

TEST(GroupLine, OfAnInnerGroupEndsWithThatGroupAndTheOthersGoOn) {
    GroupTask group;
    group.setBreadth(1);
    group.setChildFailurePolicy(GroupTask::ChildFailurePolicy::RunAll);
    Runners runners;
    QPointer<BaseTask> inner;
    for (const QString& name : {u"a"_qs, u"b"_qs}) {
        auto task = folder(name, [&runners, name](Complex* self) {
            for (int i = 1; i <= 2; ++i)
                self->appendSubtask(runners.make(name + QString::number(i)));
        });
        if (!inner)
            inner = task.get();
        group.addTask(std::move(task));
    }
    group.exec();
    inner->cancel();
    while (!runners.running.empty())
        runners.endOne();
    EXPECT_EQ(runners.order.join(u' ').toStdString(), "a1 b1 b2");
    EXPECT_TRUE(group.isFinished());
}

TEST(GroupLine, AChildOfItThatSomebodyElseDeletesIsAFailure) {
    GroupTask group;
    group.setBreadth(1);
    group.setChildFailurePolicy(GroupTask::ChildFailurePolicy::RunAll);
    Manual running, inLine;
    group.addTask(running.take());
    group.addTask(inLine.take());
    group.exec();
    delete inLine.task;
    running->finish(Error());
    EXPECT_TRUE(group.isFinished());
    EXPECT_EQ(group.error().errorMessage(), u"A subtask was deleted before it had ended.");
}

TEST(GroupLine, GoesOnAfterTheGroupWasFinishedFromOutside) {
    EventLog log;
    GroupTask group;
    group.setBreadth(1);
    Manual running, inLine;
    group.addTask(running.take());
    group.addTask(inLine.take(), log.note(u"in line ok"_qs));
    group.exec();
    group.finish(Error());
    EXPECT_FALSE(group.isIdle());
    running->finish(Error());
    ASSERT_TRUE(inLine->isRunning());
    inLine->finish(Error());
    EXPECT_EQ(log.str(), "in line ok");
    EXPECT_TRUE(group.isIdle());
}

TEST(GroupLine, ATaskThatFinishedWithChildrenInItIsNotIdle) {
    GroupTask group;
    group.setBreadth(1);
    Runners runners;
    auto owned = folder(u"folder"_qs, [&](Complex* self) { self->appendSubtask(runners.make(u"inner"_qs)); });
    const QPointer<Complex> inner = owned.get();
    group.addTask(std::move(owned));
    group.addTask(runners.make(u"other"_qs));
    group.exec();
    ASSERT_EQ(runners.order.join(u' ').toStdString(), "other");
    inner->groupTask()->finish(Error());
    EXPECT_FALSE(inner->groupTask()->isIdle());
    inner->finish(Error());
    EXPECT_FALSE(inner->isIdle());
    runners.endOne();
    EXPECT_TRUE(group.isRunning());
    EXPECT_FALSE(inner->isIdle());
    runners.endOne();
    EXPECT_TRUE(inner->isIdle());
    EXPECT_TRUE(group.isFinished());
}

TEST(GroupLine, AGroupMayBeDestroyedWithChildrenInIt) {
    auto group = std::make_unique<GroupTask>();
    group->setBreadth(1);
    Manual running, inLine;
    EventLog log;
    group->addTask(running.take(), {}, log.note(u"told"_qs));
    group->addTask(inLine.take(), {}, log.note(u"told"_qs));
    group->exec();
    group.reset();
    EXPECT_TRUE(running.task.isNull());
    EXPECT_TRUE(inLine.task.isNull());
    EXPECT_EQ(log.str(), "");
}

TEST(GroupLine, SlotsOfAnInnerGroupThatIsDestroyedServeTheRestOfTheTree) {
    GroupTask group;
    group.setBreadth(1);
    group.setChildFailurePolicy(GroupTask::ChildFailurePolicy::RunAll);
    Runners runners;
    QPointer<BaseTask> inner;
    auto task = folder(u"a"_qs, [&](Complex* self) { self->appendSubtask(runners.make(u"a1"_qs)); });
    inner = task.get();
    group.addTask(std::move(task));
    group.exec();
    group.addTask(runners.make(u"b"_qs));
    ASSERT_EQ(runners.order.join(u' ').toStdString(), "a1");
    runners.running.clear(); // it is destroyed without a signal
    delete inner;
    EXPECT_TRUE(OwnerInbox::ofThisThread()->waitUntil([&] { return runners.order.size() == 2; },
                                                      std::chrono::milliseconds(60'000)));
    runners.endOne();
    EXPECT_TRUE(group.isFinished());
}

TEST(GroupRestart, ARetriedChildStandsInLineToo) {
    Runners runners;
    Complex outer;
    auto group = std::make_unique<GroupTask>();
    group->setBreadth(1);
    outer.setGroupTask(std::move(group));
    outer.onInitialize = [&](Complex* self) {
        self->appendSubtask(runners.make(u"a"_qs));
        self->appendSubtask(runners.make(u"b"_qs));
        self->execSubtasks();
        return Error();
    };
    outer.exec();
    auto retried = runners.make(u"a again"_qs);
    BaseTask* const again = retried.get();
    outer.appendSubtask(std::move(retried));
    outer.execSubtask(again);
    while (!runners.running.empty())
        runners.endOne();
    EXPECT_EQ(runners.order.join(u", ").toStdString(), "a, b, a again");
    EXPECT_EQ(runners.most, 1u);
    EXPECT_TRUE(outer.isSuccessful());
}

TEST(GroupWaitForAPerson, LendsTheSlotAndTakesItBackInTurn) {
    EventLog log;
    GroupTask group;
    group.setBreadth(1);
    auto owned = std::make_unique<AskingTask>(log);
    AskingTask* const asking = owned.get();
    Runners runners;
    group.addTask(std::move(owned));
    group.addTask(runners.make(u"a"_qs));
    group.addTask(runners.make(u"b"_qs));
    EXPECT_FALSE(asking->isSlotLent());
    group.exec();
    EXPECT_EQ(runners.order.join(u' ').toStdString(), "a");
    EXPECT_TRUE(asking->isSlotLent());
    EXPECT_FALSE(runners.running.front()->isSlotLent());
    asking->answer();
    EXPECT_EQ(log.str(), "asking asks"); // b was in line before
    EXPECT_TRUE(asking->isSlotLent());
    runners.endOne();
    EXPECT_EQ(log.str(), "asking asks");
    group.addTask(runners.make(u"c"_qs));
    runners.endOne();
    EXPECT_EQ(log.str(), "asking asks, asking goes on");
    EXPECT_EQ(runners.order.join(u' ').toStdString(), "a b c");
    runners.endOne();
    EXPECT_TRUE(group.isSuccessful());
}

TEST(GroupWaitForOthers, MayTakeTheSlotThatIsFreeNext) {
    EventLog log;
    GroupTask group;
    group.setBreadth(1);
    auto owned = std::make_unique<AskingTask>(log);
    AskingTask* const asking = owned.get();
    Runners runners;
    group.addTask(std::move(owned));
    group.addTask(runners.make(u"a"_qs));
    group.addTask(runners.make(u"b"_qs));
    group.exec();
    asking->answerBeforeOthers();
    EXPECT_EQ(log.str(), "asking asks");
    runners.endOne();
    EXPECT_EQ(log.str(), "asking asks, asking goes on");
    EXPECT_EQ(runners.order.join(u' ').toStdString(), "a b");
    runners.endOne();
    EXPECT_TRUE(group.isSuccessful());
}

TEST(GroupWaitForOthers, OfSeveralThatComeBackTheFirstIsFirst) {
    EventLog log;
    GroupTask group;
    group.setBreadth(1);
    std::vector<AskingTask*> asking;
    for (int i = 0; i < 3; ++i) {
        auto owned = std::make_unique<AskingTask>(log);
        asking.push_back(owned.get());
        QObject::connect(asking.back(), &BaseTask::finished, [&log, i] { log.add(QString::number(i)); });
        group.addTask(std::move(owned));
    }
    Runners runners;
    group.addTask(runners.make(u"a"_qs));
    group.addTask(runners.make(u"b"_qs));
    group.exec();
    ASSERT_EQ(runners.order.join(u' ').toStdString(), "a");
    log.clear();
    for (const int i : {1, 0, 2})
        asking.at(size_t(i))->answerBeforeOthers();
    EXPECT_EQ(log.str(), "");
    runners.endOne();
    EXPECT_EQ(log.str(), "asking goes on, 1, asking goes on, 0, asking goes on, 2");
    EXPECT_EQ(runners.order.join(u' ').toStdString(), "a b");
    runners.endOne();
    EXPECT_TRUE(group.isSuccessful());
}

TEST(GroupWaitForAPerson, OfSeveralStepsOfOneChildEndsWithTheLastAnswer) {
    EventLog log;
    GroupTask group;
    group.setBreadth(1);
    Runners runners;
    std::vector<AskingTask*> asking;
    auto verification = std::make_unique<Complex>();
    verification->onInitialize = [&](Complex* self) {
        for (int i = 0; i < 2; ++i) {
            auto task = std::make_unique<AskingTask>(log);
            asking.push_back(task.get());
            self->execSubtask(std::unique_ptr<BaseTask>(std::move(task)));
        }
        return Error();
    };
    group.addTask(std::move(verification));
    group.addTask(runners.make(u"other"_qs));
    group.exec();
    ASSERT_EQ(runners.running.size(), 1u);
    log.clear();
    asking.at(0)->answer();
    EXPECT_EQ(log.str(), "asking goes on"); // a person is still waited for
    asking.at(1)->answer();
    EXPECT_EQ(log.str(), "asking goes on"); // in line for the slot
    runners.endOne();
    EXPECT_EQ(log.str(), "asking goes on, asking goes on");
    EXPECT_TRUE(group.isSuccessful());
}

TEST(GroupWaitForAPerson, WhoWasCancelledMeanwhileIsNotCalled) {
    EventLog log;
    GroupTask group;
    group.setBreadth(1);
    group.setChildFailurePolicy(GroupTask::ChildFailurePolicy::RunAll);
    auto owned = std::make_unique<AskingTask>(log);
    AskingTask* const asking = owned.get();
    Runners runners;
    group.addTask(std::move(owned));
    group.addTask(runners.make(u"a"_qs));
    group.addTask(runners.make(u"b"_qs));
    group.exec();
    asking->answer();
    asking->cancel();
    runners.endOne();
    ASSERT_EQ(runners.running.size(), 1u);
    runners.endOne();
    EXPECT_EQ(log.str(), "asking asks");
    EXPECT_TRUE(group.isFinished());
    EXPECT_EQ(runners.most, 1u);
}

TEST(GroupWaitForAPerson, OutsideOfGroupsGoesOnAtOnce) {
    EventLog log;
    AskingTask asking(log);
    asking.exec();
    asking.answer();
    EXPECT_EQ(log.str(), "asking asks, asking goes on");
}
