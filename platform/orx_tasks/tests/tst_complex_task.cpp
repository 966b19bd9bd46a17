#include "TaskProbes.h"

#include <gtest/gtest.h>

using namespace orx;
using namespace orx::probes;

namespace {

//! A running complex task whose steps the test starts by hand: one manual step keeps it running.
struct Running {
    Running() {
        task.onInitialize = [this](Complex* self) {
            self->execSubtask(keeper.take());
            return Error();
        };
        log.watch(&task, u"c"_qs);
        task.exec();
        log.clear();
    }
    EventLog log;
    Manual keeper;
    Complex task;
};

} // namespace

TEST(ComplexTask, WithoutStepsFinishesAfterInitialize) {
    EventLog log;
    Complex task;
    log.watch(&task, u"c"_qs);
    task.onInitialize = [&](Complex*) { return log.add(u"initialize"_qs), Error(); };
    task.exec();
    EXPECT_EQ(log.str(), "c started, initialize, c finished, c idle");
    EXPECT_FALSE(task.hasError());
}

TEST(ComplexTask, EachContinuationStartsTheNextStep) {
    EventLog log;
    Complex task;
    log.watch(&task, u"c"_qs);
    Manual first, second;
    task.onInitialize = [&](Complex* self) {
        self->execSubtask(first.take(), [&, self](BaseTask*) {
            log.add(u"first ok"_qs);
            self->execSubtask(second.take(), log.note(u"second ok"_qs));
        });
        return Error();
    };
    task.exec();
    EXPECT_TRUE(first->isRunning());
    first->finish(Error());
    EXPECT_TRUE(second->isRunning());
    EXPECT_TRUE(task.isRunning());
    second->finish(Error());
    EXPECT_EQ(log.str(), "c started, first ok, second ok, c finished, c idle");
    deleteLeftovers();
    EXPECT_TRUE(first.task.isNull());
    EXPECT_TRUE(second.task.isNull());
}

TEST(ComplexTask, StepsThatEndAtOnceFinishTheTaskAfterInitialize) {
    EventLog log;
    Complex task;
    log.watch(&task, u"c"_qs);
    task.onInitialize = [&](Complex* self) {
        self->execSubtask(instant(), [&, self](BaseTask*) {
            log.add(u"first"_qs);
            self->execSubtask(instant(), log.note(u"second"_qs));
            log.add(u"first returns"_qs);
        });
        log.add(u"initialize returns"_qs);
        return Error();
    };
    task.exec();
    EXPECT_EQ(log.str(), "c started, first, first returns, second, initialize returns, c finished, c idle");
}

TEST(ComplexTask, AChainOfStepsThatEndAtOnceDoesNotDeepenTheStack) {
    Complex task;
    int left = 100'000;
    std::function<void(BaseTask*)> next;
    task.onInitialize = [&](Complex* self) {
        next = [&, self](BaseTask*) {
            if (--left > 0)
                self->execSubtask(std::make_unique<GroupTask>(), [&](GroupTask* group) { next(group); });
        };
        self->execSubtask(std::make_unique<GroupTask>(), [&](GroupTask* group) { next(group); });
        return Error();
    };
    task.exec();
    EXPECT_EQ(left, 0);
    EXPECT_TRUE(task.isFinished());
}

TEST(ComplexTask, ATypedContinuationGetsTheStepAsWhatItIs) {
    Complex task;
    QVariant result;
    task.onInitialize = [&](Complex* self) {
        auto step = std::make_unique<ScriptedTask>();
        step->onExec = [](ScriptedTask* it) { return it->setVariantResult(7), Error(); };
        self->execSubtask(std::move(step), [&](ScriptedTask* it) { result = it->variantResult(); });
        return Error();
    };
    task.exec();
    EXPECT_EQ(result.toInt(), 7);
}

TEST(ComplexTask, ARawPointerIsOwnedTooWhateverItsParent) {
    Complex task;
    QObject parent;
    auto* step = new ManualTask;
    step->setParent(&parent);
    const QPointer<ManualTask> guard(step);
    task.onInitialize = [&](Complex* self) {
        self->execSubtask(step);
        return Error();
    };
    task.exec();
    EXPECT_EQ(step->parent(), nullptr);
    step->finish(Error());
    deleteLeftovers();
    EXPECT_TRUE(guard.isNull());
}

TEST(ComplexTask, AMissingStepIsAnError) {
    Complex task;
    task.onInitialize = [](Complex* self) {
        self->execSubtask(std::unique_ptr<BaseTask>());
        return Error();
    };
    task.exec();
    EXPECT_TRUE(task.error().is(ErrorCode::InvalidArgument));
}

TEST(ComplexFailure, WithoutAFailureContinuationEndsTheTaskWithTheStepsError) {
    EventLog log;
    Complex task;
    log.watch(&task, u"c"_qs);
    task.onInitialize = [&](Complex* self) {
        self->execSubtask(instant(failure(u"step broke"_qs, ErrorCode::NotFound)), log.note(u"never"_qs));
        return Error();
    };
    task.onFinish = [&](const Error& held) { return log.add(u"doFinish "_qs + held.errorMessage()), held; };
    task.exec();
    EXPECT_EQ(log.str(), "c started, doFinish step broke, c finished, c idle");
    EXPECT_TRUE(task.error().is(ErrorCode::NotFound));
    EXPECT_FALSE(task.error().trace().isEmpty());
}

TEST(ComplexFailure, WithAFailureContinuationIsHandledThere) {
    EventLog log;
    Complex task;
    task.onInitialize = [&](Complex* self) {
        self->execSubtask(instant(failure(u"step broke"_qs)), {}, [&, self](BaseTask* step) {
            log.add(step->error().errorMessage());
            self->execSubtask(instant(), log.note(u"instead"_qs));
        });
        return Error();
    };
    task.exec();
    EXPECT_EQ(log.str(), "step broke, instead");
    EXPECT_FALSE(task.hasError());
}

TEST(ComplexFailure, InsideAContinuationEndsTheTask) {
    EventLog log;
    Complex task;
    log.watch(&task, u"c"_qs);
    task.onInitialize = [&](Complex* self) {
        self->execSubtask(instant(), [&, self](BaseTask*) {
            log.add(u"continuation"_qs);
            self->finish(failure(u"cannot go on"_qs));
            EXPECT_TRUE(self->isFinished());
        });
        return Error();
    };
    task.exec();
    EXPECT_EQ(log.str(), "c started, continuation, c finished, c idle");
    EXPECT_EQ(task.error().errorMessage(), u"cannot go on");
}

TEST(ComplexFailure, LeavesTheOtherStepsRunning) {
    Running c;
    Manual other, broken;
    c.task.execSubtask(other.take(), c.log.note(u"other ok"_qs));
    c.task.execSubtask(broken.take());
    broken->finish(failure(u"broken"_qs));
    EXPECT_EQ(c.log.str(), "c finished");
    EXPECT_FALSE(other->isCanceled());
    other->finish(Error());
    EXPECT_FALSE(c.task.isIdle());
    c.keeper->finish(Error());
    EXPECT_EQ(c.log.str(), "c finished, other ok, c idle");
    EXPECT_EQ(c.task.error().errorMessage(), u"broken");
}

TEST(ComplexFailure, AfterTheEndIsLoggedAndChangesNothing) {
    static QStringList messages;
    messages.clear();
    Running c;
    c.task.finish(Error());
    const auto previous = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext&, const QString& text) { messages << text; });
    c.keeper->finish(failure(u"too late to tell"_qs));
    qInstallMessageHandler(previous);
    EXPECT_TRUE(messages.join(u'\n').contains(u"too late to tell"_qs));
    EXPECT_FALSE(c.task.hasError());
    EXPECT_TRUE(c.task.isIdle());
}

TEST(ComplexFailure, AFailedInitializeLetsTheStartedStepsGoOn) {
    EventLog log;
    Complex task;
    log.watch(&task, u"c"_qs);
    Manual step;
    task.onInitialize = [&](Complex* self) {
        self->execSubtask(step.take(), log.note(u"step ok"_qs));
        return failure(u"no"_qs);
    };
    task.exec();
    EXPECT_EQ(log.str(), "c started, c finished");
    step->finish(Error());
    EXPECT_EQ(log.str(), "c started, c finished, step ok, c idle");
    EXPECT_EQ(task.error().errorMessage(), u"no");
}

namespace {

std::unique_ptr<BaseTask> warning(const QString& text, Error error = Error()) {
    error.addWarning(text);
    return instant(error);
}

} // namespace

TEST(ComplexWarnings, OfStepsAndChildrenThatSucceedBecomeTheTasks) {
    Complex task;
    Warnings atContinuation;
    task.onInitialize = [&](Complex* self) {
        self->execSubtask(warning(u"of a step"_qs), [&, self](BaseTask*) {
            atContinuation = self->error().warnings();
            self->appendSubtask(warning(u"of a child"_qs));
            self->execSubtasks();
        });
        return Error();
    };
    task.exec();
    EXPECT_FALSE(task.hasError());
    EXPECT_EQ(atContinuation, Warnings{u"of a step"_qs});
    EXPECT_EQ(task.error().warnings(), (Warnings{u"of a step"_qs, u"of a child"_qs}));
}

TEST(ComplexWarnings, StayWhenTheEndIsAnErrorMadeAnew) {
    class EndsAnew : public ComplexTask {
    public:
        EndsAnew() : ComplexTask(u"anew"_qs) {}
        Error initialize() override {
            execSubtask(warning(u"of a step"_qs));
            return Error();
        }
        Error doFinish() override { return Error(); }
    };
    EndsAnew task;
    task.exec();
    EXPECT_FALSE(task.waitForFinished().hasError());
    EXPECT_EQ(task.error().warnings(), Warnings{u"of a step"_qs});
}

TEST(ComplexWarnings, OfAStepThatFailsGoWithItsError) {
    Complex task;
    task.onInitialize = [](Complex* self) {
        self->execSubtask(warning(u"of a step"_qs));
        self->execSubtask(warning(u"of the failed step"_qs, failure(u"broke"_qs)));
        return Error();
    };
    task.exec();
    EXPECT_EQ(task.error().errorMessage(), u"broke");
    EXPECT_EQ(task.error().warnings(), (Warnings{u"of the failed step"_qs, u"of a step"_qs}));
}

TEST(ComplexWarnings, AfterTheEndAreLogged) {
    static QStringList messages;
    messages.clear();
    Running c;
    c.task.finish(Error());
    c.keeper->addWarning(u"too late to tell"_qs);
    const auto previous = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext&, const QString& text) { messages << text; });
    c.keeper->finish(Error());
    qInstallMessageHandler(previous);
    EXPECT_TRUE(messages.join(u'\n').contains(u"too late to tell"_qs));
    EXPECT_TRUE(c.task.error().warnings().isEmpty());
}

TEST(ComplexFinish, WhileStepsRunEmitsFinishedAtOnceAndOnlyOnce) {
    Running c;
    Manual later;
    c.task.finish(Error());
    EXPECT_EQ(c.log.str(), "c finished");
    EXPECT_FALSE(c.task.isIdle());

    c.task.execSubtask(later.take(), c.log.note(u"later ok"_qs));
    EXPECT_TRUE(later->isRunning());
    c.keeper->finish(Error());
    later->finish(Error());

    EXPECT_EQ(c.log.str(), "c finished, later ok, c idle");
}

TEST(ComplexFinish, AStepStartedWhenIdleMakesTheTaskBusyAgain) {
    EventLog log;
    Complex task;
    task.exec();
    log.watch(&task, u"c"_qs);
    Manual step;
    task.execSubtask(step.take(), log.note(u"step ok"_qs));
    EXPECT_FALSE(task.isIdle());
    step->finish(Error());
    EXPECT_TRUE(task.isIdle());
    EXPECT_EQ(log.str(), "step ok, c idle");
}

TEST(ComplexFinish, ContinuationsAreCalledAfterItAndMayStartGroups) {
    Running c;
    Manual child;
    c.task.execSubtask(instant(), [&](BaseTask*) {
        c.task.finish(Error());
        c.task.appendSubtask(child.take(), c.log.note(u"child ok"_qs));
        c.task.execSubtasks();
    });
    c.keeper->finish(Error());
    EXPECT_EQ(c.log.str(), "c finished");
    EXPECT_FALSE(c.task.isIdle());
    child->finish(Error());
    EXPECT_EQ(c.log.str(), "c finished, child ok, c idle");
}

TEST(ComplexCancel, BeforeTheStartRunsNothing) {
    EventLog log;
    Complex task;
    log.watch(&task, u"c"_qs);
    task.onInitialize = [&](Complex*) { return log.add(u"initialize"_qs), Error(); };
    task.cancel();
    task.exec();
    EXPECT_EQ(log.str(), "c canceled, c finished, c idle");
}

TEST(ComplexCancel, InsideInitializeCancelsTheStepsAndFinishesAfterThem) {
    EventLog log;
    Complex task;
    log.watch(&task, u"c"_qs);
    auto* step = new StubbornTask;
    task.onInitialize = [&](Complex* self) {
        self->execSubtask(step, {}, log.note(u"step failed"_qs));
        self->cancel();
        return Error();
    };
    task.exec();
    EXPECT_TRUE(task.isRunning());
    EXPECT_TRUE(step->isCanceled());
    step->finish(Error());
    EXPECT_EQ(log.str(), "c started, c canceled, step failed (canceled), c finished, c idle");
    EXPECT_TRUE(task.error().isCanceled());
}

TEST(ComplexCancel, BetweenStepsCancelsTheNextBeforeItRuns) {
    EventLog log;
    Complex task;
    log.watch(&task, u"c"_qs);
    Manual next;
    log.watch(next.task, u"next"_qs);
    task.onInitialize = [&](Complex* self) {
        self->execSubtask(instant(), [&, self](BaseTask*) {
            self->cancel();
            self->execSubtask(next.take(), {}, log.note(u"next failed"_qs));
        });
        return Error();
    };
    task.exec();
    EXPECT_EQ(log.str(),
              "c started, c canceled, next canceled, next finished, next idle, next failed (canceled), "
              "c finished, c idle");
}

TEST(ComplexCancel, ReachesStepsAndTheGroupAndWaitsForAll) {
    Running c;
    Manual child;
    auto* stubborn = new StubbornTask;
    c.task.appendSubtask(child.take(), {}, c.log.note(u"child failed"_qs));
    c.task.appendSubtask(std::unique_ptr<BaseTask>(stubborn), {}, c.log.note(u"stubborn failed"_qs));
    c.task.execSubtasks();
    c.task.cancel();
    EXPECT_TRUE(c.task.isCanceled());
    EXPECT_TRUE(c.task.isRunning());
    c.task.cancel();
    stubborn->finish(Error());
    EXPECT_EQ(c.log.str(),
              "c canceled, child failed (canceled), stubborn failed (canceled), c finished, c idle");
    EXPECT_TRUE(c.task.error().isCanceled());
}

TEST(ComplexCancel, OfAStepAloneIsAFailureWithTheCancelCode) {
    Running c;
    Manual step;
    c.task.execSubtask(step.take());
    step->cancel();
    EXPECT_TRUE(c.task.isFinished());
    EXPECT_TRUE(c.task.error().isCanceled());
    EXPECT_FALSE(c.task.isCanceled());
    EXPECT_FALSE(c.keeper->isCanceled());
}

TEST(ComplexCancel, OfAFinishedTaskReachesWhatStillRuns) {
    Running c;
    c.task.finish(Error());
    c.task.cancel();
    EXPECT_FALSE(c.task.hasError());
    EXPECT_FALSE(c.task.isCanceled());
    EXPECT_EQ(c.log.str(), "c finished, c idle");
}

TEST(ComplexGroup, AppendedStepsWaitUntilTheyAreStartedTogether) {
    Running c;
    Manual a, b;
    c.task.appendSubtask(a.take(), c.log.note(u"a ok"_qs));
    c.task.appendSubtask(b.take(), c.log.note(u"b ok"_qs));
    EXPECT_EQ(a->state(), BaseTask::State::Created);
    c.task.execSubtasks();
    EXPECT_TRUE(a->isRunning());
    EXPECT_TRUE(b->isRunning());
    c.keeper->finish(Error());
    b->finish(Error());
    EXPECT_TRUE(c.task.isRunning());
    a->finish(Error());
    EXPECT_EQ(c.log.str(), "b ok, a ok, c finished, c idle");
}

TEST(ComplexGroup, ExecSubtasksWithoutAnyDoesNothing) {
    Complex task;
    task.onInitialize = [](Complex* self) { return self->execSubtasks(), Error(); };
    task.exec();
    EXPECT_TRUE(task.isFinished());
    EXPECT_FALSE(task.hasError());
}

TEST(ComplexGroup, AFailedChildIsToldAndEndsTheTaskWithTheGroupsError) {
    EventLog log;
    Complex task;
    log.watch(&task, u"c"_qs);
    Manual a, b;
    task.onInitialize = [&](Complex* self) {
        self->appendSubtask(a.take(), {}, log.note(u"a failed"_qs));
        self->appendSubtask(b.take(), {}, log.note(u"b failed"_qs));
        self->execSubtasks();
        return Error();
    };
    task.exec();
    a->finish(failure(u"a broke"_qs));
    EXPECT_EQ(log.str(), "c started, a failed, b failed (canceled), c finished, c idle");
    EXPECT_EQ(task.error().errorMessage(), u"a broke");
    EXPECT_FALSE(task.isCanceled());
}

TEST(ComplexGroup, TheGroupsErrorIsNotLostWhenTheLastStepEndsWithinItsFinished) {
    Running c;
    c.task.appendSubtask(instant(failure(u"child broke"_qs)));
    QObject::connect(c.task.groupTask(), &BaseTask::finished, &c.task, [&] { c.keeper->finish(Error()); });
    c.task.execSubtasks();
    EXPECT_TRUE(c.task.isFinished());
    EXPECT_EQ(c.task.error().errorMessage(), u"child broke");
}

TEST(ComplexGroup, ABatchStartedInACancelledTaskIsToldAndNeverRuns) {
    EventLog log;
    Complex task;
    Manual first, second;
    log.watch(first.task, u"first"_qs);
    log.watch(second.task, u"second"_qs);
    task.onInitialize = [&](Complex* self) {
        self->execSubtask(instant(), [&, self](BaseTask*) {
            self->cancel();
            for (Manual* child : {&first, &second}) {
                const QString name = child == &first ? u"first failed"_qs : u"second failed"_qs;
                self->appendSubtask(child->take(), {}, log.note(name));
                self->execSubtasks();
            }
        });
        return Error();
    };
    task.exec();
    EXPECT_EQ(log.str(), "first canceled, first finished, first idle, first failed (canceled), "
                         "second canceled, second finished, second idle, second failed (canceled)");
    EXPECT_TRUE(task.groupTask()->isCanceled());
    EXPECT_TRUE(task.isFinished());
}

TEST(ComplexGroup, WithRunAllTheTaskEndsWhenAllHaveEndedWithTheFirstError) {
    EventLog log;
    Complex task;
    task.groupTask()->setChildFailurePolicy(GroupTask::ChildFailurePolicy::RunAll);
    Manual a, b;
    task.onInitialize = [&](Complex* self) {
        self->appendSubtask(a.take(), {}, log.note(u"a failed"_qs));
        self->appendSubtask(b.take(), log.note(u"b ok"_qs));
        self->execSubtasks();
        return Error();
    };
    task.exec();
    a->finish(failure(u"a broke"_qs));
    EXPECT_TRUE(task.isRunning());
    b->finish(Error());
    EXPECT_EQ(log.str(), "a failed, b ok");
    EXPECT_EQ(task.error().errorMessage(), u"a broke");
}

TEST(ComplexGroup, IsStartedAgainForALaterBatch) {
    EventLog log;
    Complex task;
    log.watch(&task, u"c"_qs);
    task.onInitialize = [&](Complex* self) {
        self->appendSubtask(instant(), [&, self](BaseTask*) {
            log.add(u"first batch"_qs);
            self->execSubtask(instant(), [&, self](BaseTask*) {
                self->appendSubtask(instant(), log.note(u"second batch"_qs));
                self->execSubtasks();
            });
        });
        self->execSubtasks();
        return Error();
    };
    task.exec();
    EXPECT_EQ(log.str(), "c started, first batch, second batch, c finished, c idle");
}

TEST(ComplexGroup, MayBeReplacedBeforeItStarts) {
    class OwnGroup : public GroupTask {};
    Complex task;
    auto group = std::make_unique<OwnGroup>();
    OwnGroup* const raw = group.get();
    task.setGroupTask(std::move(group));
    EXPECT_EQ(task.groupTask(), raw);
    Manual a;
    task.onInitialize = [&](Complex* self) {
        self->appendSubtask(a.take());
        self->execSubtasks();
        return Error();
    };
    task.exec();
    EXPECT_TRUE(raw->isRunning());
    EXPECT_EQ(raw->pendingCount(), 1);
    task.setGroupTask(std::make_unique<GroupTask>());
    EXPECT_EQ(task.groupTask(), raw);
    a->finish(Error());
    EXPECT_TRUE(task.isFinished());
}

TEST(ComplexGroup, AnAppendedStepThatIsNeverStartedDoesNotHoldTheTask) {
    Manual a;
    auto task = std::make_unique<Complex>();
    task->appendSubtask(a.take());
    task->exec();
    EXPECT_TRUE(task->isFinished());
    EXPECT_TRUE(task->isIdle());
    task.reset();
    EXPECT_TRUE(a.task.isNull());
}

TEST(ComplexRetry, BringsTheFinishedTaskAndItsGroupBack) {
    EventLog log;
    Complex task;
    task.groupTask()->setChildFailurePolicy(GroupTask::ChildFailurePolicy::RunAll);
    task.onInitialize = [&](Complex* self) {
        self->appendSubtask(instant(failure(u"broke"_qs)), {}, log.note(u"failed"_qs));
        self->execSubtasks();
        return Error();
    };
    task.exec();
    ASSERT_EQ(task.error().errorMessage(), u"broke");
    log.watch(&task, u"c"_qs);

    task.restartWithGroup();
    EXPECT_TRUE(task.isRunning());
    EXPECT_TRUE(task.groupTask()->isRunning());
    EXPECT_FALSE(task.hasError());
    EXPECT_FALSE(task.groupTask()->hasError());
    Manual again;
    BaseTask* const raw = again.task;
    task.appendSubtask(again.take(), log.note(u"again ok"_qs));
    task.execSubtask(raw);

    EXPECT_TRUE(again->isRunning());
    EXPECT_EQ(task.groupTask()->pendingCount(), 1);
    again->finish(Error());
    EXPECT_EQ(log.str(), "failed, again ok, c finished, c idle");
    EXPECT_FALSE(task.hasError());
    EXPECT_TRUE(task.groupTask()->isFinished());
}

TEST(ComplexRetry, ThatFailsEndsTheTaskWithTheNewError) {
    EventLog log;
    Complex task;
    task.exec();
    task.restartWithGroup();
    auto step = instant(failure(u"again broke"_qs));
    BaseTask* const raw = step.get();
    task.appendSubtask(std::move(step), {}, log.note(u"failed"_qs));
    task.execSubtask(raw);
    EXPECT_TRUE(task.isFinished());
    EXPECT_EQ(task.error().errorMessage(), u"again broke");
    EXPECT_EQ(log.str(), "failed");
}

TEST(ComplexRetry, ThatCannotBePreparedFinishesTheTaskAndMayBeRepeated) {
    Complex task;
    task.onInitialize = [](Complex* self) {
        self->appendSubtask(instant());
        self->execSubtasks();
        return Error();
    };
    task.exec();
    task.restartWithGroup();
    task.finish(failure(u"cannot prepare"_qs));
    EXPECT_TRUE(task.isIdle());

    task.restartWithGroup();
    EXPECT_FALSE(task.hasError());
    Manual again;
    BaseTask* const raw = again.task;
    task.appendSubtask(again.take());
    task.execSubtask(raw);
    again->finish(Error());
    EXPECT_TRUE(task.isFinished());
    EXPECT_FALSE(task.hasError());
}

TEST(ComplexRetry, AfterACancellationRunsAgain) {
    Complex task;
    Manual a, b;
    task.onInitialize = [&](Complex* self) {
        self->appendSubtask(a.take());
        self->execSubtasks();
        return Error();
    };
    task.exec();
    task.cancel();
    ASSERT_TRUE(task.isFinished());
    task.restartWithGroup();
    EXPECT_FALSE(task.isCanceled());
    BaseTask* const raw = b.task;
    task.appendSubtask(b.take());
    task.execSubtask(raw);
    EXPECT_TRUE(b->isRunning());
    b->finish(Error());
    EXPECT_FALSE(task.hasError());
}

TEST(ComplexRetry, MayBeAskedForWithinFinished) {
    EventLog log;
    Complex task;
    Manual again;
    task.onInitialize = [&](Complex* self) {
        self->appendSubtask(instant(failure(u"broke"_qs)));
        self->execSubtasks();
        return Error();
    };
    log.watch(&task, u"c"_qs);
    bool retried = false;
    QObject::connect(&task, &BaseTask::finished, &task, [&] {
        if (std::exchange(retried, true))
            return;
        BaseTask* const raw = again.task;
        task.restartWithGroup();
        task.appendSubtask(again.take());
        task.execSubtask(raw);
    });
    task.exec();
    EXPECT_TRUE(task.isRunning());
    EXPECT_TRUE(again->isRunning());
    again->finish(Error());
    EXPECT_EQ(log.str(), "c started, c finished, c finished, c idle");
    EXPECT_FALSE(task.hasError());
}

TEST(ComplexRetry, WhatTheLastRunLeftBehindDoesNotEndTheNext) {
    Running c;
    c.task.finish(Error());
    c.task.restartWithGroup();
    c.keeper->finish(Error());
    EXPECT_TRUE(c.task.isRunning());
    EXPECT_EQ(c.log.str(), "c finished");

    Manual again;
    c.task.execSubtask(again.take(), c.log.note(u"again ok"_qs));
    again->finish(Error());
    EXPECT_EQ(c.log.str(), "c finished, again ok, c finished, c idle");
    EXPECT_FALSE(c.task.hasError());
}

TEST(ComplexRetry, AFailureOfWhatTheLastRunLeftBehindIsLoggedAndDoesNotEndTheNext) {
    static QStringList messages;
    messages.clear();
    Running c;
    c.task.finish(Error());
    c.task.restartWithGroup();
    Manual again;
    c.task.execSubtask(again.take());
    const auto previous = qInstallMessageHandler(
        [](QtMsgType, const QMessageLogContext&, const QString& text) { messages << text; });
    c.keeper->finish(failure(u"of the last run"_qs));
    qInstallMessageHandler(previous);
    EXPECT_TRUE(messages.join(u'\n').contains(u"of the last run"_qs));
    EXPECT_TRUE(c.task.isRunning());
    again->finish(Error());
    EXPECT_TRUE(c.task.isFinished());
    EXPECT_FALSE(c.task.hasError());
}

TEST(ComplexRetry, ACancelledOneThatStartedNothingEnds) {
    Complex task;
    task.onInitialize = [](Complex* self) {
        self->appendSubtask(instant());
        self->execSubtasks();
        return Error();
    };
    task.exec();
    task.restartWithGroup();
    ASSERT_TRUE(task.isRunning());
    ASSERT_TRUE(task.groupTask()->isRunning());
    task.cancel();
    EXPECT_TRUE(task.isFinished());
    EXPECT_TRUE(task.groupTask()->isFinished());
    EXPECT_TRUE(task.error().isCanceled());
}

TEST(ComplexRetry, ChildrenThatTheLastRunLeftBehindDoNotEndTheNext) {
    Running c;
    Manual left, again;
    c.task.appendSubtask(left.take());
    c.task.execSubtasks();
    c.keeper->finish(Error());
    c.task.finish(Error());
    c.task.restartWithGroup();
    EXPECT_TRUE(c.task.groupTask()->isRunning());
    c.task.appendSubtask(again.take(), c.log.note(u"again ok"_qs));
    c.task.execSubtasks();
    left->finish(failure(u"of the last run"_qs));
    EXPECT_TRUE(c.task.isRunning());
    EXPECT_FALSE(again->isCanceled());
    again->finish(Error());
    EXPECT_EQ(c.log.str(), "c finished, again ok, c finished, c idle");
    EXPECT_FALSE(c.task.hasError());
}

TEST(ComplexRetry, EndsWhenItsStepsAndTheChildrenLeftBehindHaveEnded) {
    Running c;
    Manual left;
    c.task.appendSubtask(left.take());
    c.task.execSubtasks();
    c.keeper->finish(Error());
    c.task.finish(Error());
    c.task.restartWithGroup();
    c.task.execSubtask(instant());
    EXPECT_TRUE(c.task.isRunning());
    left->finish(Error());
    EXPECT_TRUE(c.task.isFinished());
    EXPECT_TRUE(c.task.isIdle());
}

TEST(ComplexRetry, AGroupThatWasCancelledInTheLastRunTakesNewChildren) {
    Running c;
    Manual again;
    auto* stubborn = new StubbornTask;
    c.task.appendSubtask(std::unique_ptr<BaseTask>(stubborn));
    c.task.execSubtasks();
    c.task.cancel();
    c.task.finish(Error());
    c.task.restartWithGroup();
    c.task.appendSubtask(again.take());
    c.task.execSubtasks();
    EXPECT_FALSE(again->isCanceled());
    stubborn->finish(Error());
    again->finish(Error());
    EXPECT_TRUE(c.task.isFinished());
    EXPECT_FALSE(c.task.hasError());
}

class ComplexAppended : public testing::TestWithParam<bool> {};

TEST_P(ComplexAppended, ContinuationsGivenAtTheStartReplaceThoseItWasAppendedWith) {
    const bool fails = GetParam();
    EventLog log;
    Complex task;
    task.onInitialize = [&](Complex* self) {
        auto step = instant(fails ? failure(u"broke"_qs) : Error());
        BaseTask* const raw = step.get();
        self->appendSubtask(std::move(step), log.note(u"appended ok"_qs), log.note(u"appended failed"_qs));
        self->execSubtask(raw, log.note(u"given ok"_qs), log.note(u"given failed"_qs));
        return Error();
    };
    task.exec();
    EXPECT_EQ(log.str(), fails ? "given failed" : "given ok");
    EXPECT_EQ(task.error().errorMessage(), fails ? u"broke"_qs : QString());
}

TEST_P(ComplexAppended, AContinuationThatIsNotGivenAtTheStartIsKept) {
    const bool fails = GetParam();
    EventLog log;
    Complex task;
    task.onInitialize = [&](Complex* self) {
        auto step = instant(fails ? failure(u"broke"_qs) : Error());
        BaseTask* const raw = step.get();
        self->appendSubtask(std::move(step), log.note(u"appended ok"_qs), log.note(u"appended failed"_qs));
        if (fails)
            self->execSubtask(raw, log.note(u"given ok"_qs));
        else
            self->execSubtask(raw, {}, log.note(u"given failed"_qs));
        return Error();
    };
    task.exec();
    EXPECT_EQ(log.str(), fails ? "appended failed" : "appended ok");
}

INSTANTIATE_TEST_SUITE_P(Ends, ComplexAppended, testing::Bool());

TEST(CustomComplexTask, WaitsForItsSubtasksUnlessItSaysOtherwise) {
    EXPECT_EQ(CustomComplexTask().waitMode(), CustomComplexTask::WaitMode::WaitForSubtasks);
}

TEST(CustomComplexTask, StartsTheNamedSubtasksOnly) {
    CustomComplex task;
    Manual a, b;
    task.onInitialize = [&](CustomComplex* self) {
        BaseTask* const raw = a.task;
        self->appendSubtask(a.take());
        self->appendSubtask(b.take());
        self->execSubtasks({raw, raw, nullptr});
        return Error();
    };
    task.exec();
    EXPECT_TRUE(task.isRunning());
    EXPECT_EQ(task.groupTask()->pendingCount(), 1);
    EXPECT_TRUE(a->isRunning());
    EXPECT_EQ(b->state(), BaseTask::State::Created);
    a->finish(Error());
    EXPECT_TRUE(task.isFinished());
}

TEST(CustomComplexTask, StartsEachNamedSubtaskOnceInTheOrderOfTheList) {
    EventLog log;
    CustomComplex task;
    Manual a, b;
    BaseTask* const rawA = a.task;
    BaseTask* const rawB = b.task;
    log.watch(rawA, u"a"_qs);
    log.watch(rawB, u"b"_qs);
    task.onInitialize = [&](CustomComplex* self) {
        self->appendSubtask(a.take(), log.note(u"a ok"_qs));
        self->appendSubtask(b.take(), log.note(u"b ok"_qs));
        self->execSubtasks({rawB, rawA, nullptr, rawB});
        self->execSubtasks({rawA, rawB});
        return Error();
    };
    task.exec();
    EXPECT_EQ(log.str(), "b started, a started");
    EXPECT_EQ(task.groupTask()->pendingCount(), 2);
    a->finish(Error());
    b->finish(Error());
    EXPECT_EQ(log.str(), "b started, a started, a finished, a ok, a idle, b finished, b ok, b idle");
    EXPECT_TRUE(task.isFinished());
    EXPECT_FALSE(task.hasError());
}

TEST(CustomComplexTask, AnEmptyListDoesNothing) {
    CustomComplex task;
    task.onInitialize = [](CustomComplex* self) { return self->execSubtasks(QList<BaseTask*>()), Error(); };
    task.exec();
    EXPECT_TRUE(task.isFinished());
    EXPECT_FALSE(task.hasError());
}

TEST(CustomComplexTask, FinishAtOnceLeavesTheSubtasksRunning) {
    class Hurried : public CustomComplex {
    public:
        WaitMode waitMode() const override { return WaitMode::FinishAtOnce; }
    };
    EventLog log;
    Hurried task;
    Manual a;
    log.watch(&task, u"c"_qs);
    task.onInitialize = [&](CustomComplex* self) {
        BaseTask* const raw = a.task;
        self->appendSubtask(a.take(), log.note(u"a ok"_qs));
        self->execSubtasks({raw});
        return Error();
    };
    task.exec();
    EXPECT_EQ(log.str(), "c started, c finished");
    EXPECT_FALSE(task.isIdle());
    a->finish(Error());
    EXPECT_EQ(log.str(), "c started, c finished, a ok, c idle");
}

TEST(ComplexDestruction, OfARunningTreeLeavesNoCallback) {
    EventLog log;
    Manual leaf, child;
    auto inner = std::make_unique<Complex>();
    inner->onInitialize = [&](Complex* self) {
        self->execSubtask(leaf.take(), log.note(u"leaf"_qs), log.note(u"leaf failed"_qs));
        return Error();
    };
    auto outer = std::make_unique<Complex>();
    outer->onInitialize = [&](Complex* self) {
        self->execSubtask(std::move(inner), log.note(u"inner"_qs), log.note(u"inner failed"_qs));
        self->appendSubtask(child.take(), log.note(u"child"_qs), log.note(u"child failed"_qs));
        self->execSubtasks();
        return Error();
    };
    outer->exec();
    log.watch(outer.get(), u"outer"_qs);
    log.watch(leaf.task, u"leaf"_qs);
    log.watch(child.task, u"child"_qs);
    log.watch(outer->groupTask(), u"group"_qs);
    outer.reset();
    deleteLeftovers();
    EXPECT_EQ(log.str(), "");
    EXPECT_TRUE(leaf.task.isNull());
    EXPECT_TRUE(child.task.isNull());
}

TEST(ComplexDestruction, WithinAContinuation) {
    auto* task = new Complex;
    const QPointer<Complex> guard(task);
    bool reached = false;
    task->onInitialize = [&](Complex* self) {
        self->execSubtask(instant(), [&, self](BaseTask*) {
            delete self;
            reached = true;
        });
        return Error();
    };
    task->exec();
    EXPECT_TRUE(reached);
    EXPECT_TRUE(guard.isNull());
}

TEST(ComplexDestruction, WithinAGroupContinuation) {
    auto* task = new Complex;
    const QPointer<Complex> guard(task);
    task->onInitialize = [&](Complex* self) {
        self->appendSubtask(instant(), [self](BaseTask*) { delete self; });
        self->appendSubtask(instant());
        self->execSubtasks();
        return Error();
    };
    task->exec();
    EXPECT_TRUE(guard.isNull());
}

TEST(ComplexSize, ManySmallComplexTasksInOneGroupAreLinear) {
    GroupTask group;
    int told = 0;
    const int count = 50'000;
    for (int i = 0; i < count; ++i) {
        auto file = std::make_unique<Complex>();
        file->onInitialize = [](Complex* self) {
            self->execSubtask(std::make_unique<GroupTask>(), {}, [](BaseTask*) {});
            return Error();
        };
        group.addTask(std::move(file), [&](BaseTask*) { ++told; });
    }
    group.exec();
    EXPECT_EQ(told, count);
    EXPECT_TRUE(group.isFinished());
    deleteLeftovers();
}
