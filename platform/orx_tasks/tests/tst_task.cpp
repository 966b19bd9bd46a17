#include "TaskProbes.h"

#include <gtest/gtest.h>

using namespace orx;
using namespace orx::probes;

TEST(TaskLifeCycle, EmitsStartedThenFinishedThenIdle) {
    EventLog log;
    ScriptedTask task;
    log.watch(&task, u"t"_qs);
    task.onInitialize = [&](ScriptedTask*) { return log.add(u"initialize"_qs), Error(); };
    task.onExec = [&](ScriptedTask*) { return log.add(u"body"_qs), Error(); };
    task.onFinish = [&](const Error& held) { return log.add(u"doFinish"_qs), held; };
    EXPECT_EQ(task.state(), BaseTask::State::Created);
    EXPECT_TRUE(task.isIdle());

    task.exec();

    EXPECT_EQ(log.str(), "t started, initialize, body, doFinish, t finished, t idle");
    EXPECT_TRUE(task.isFinished());
    EXPECT_TRUE(task.isIdle());
    EXPECT_FALSE(task.hasError());
}

TEST(TaskLifeCycle, ASecondExecChangesNothing) {
    EventLog log;
    ManualTask task;
    log.watch(&task, u"t"_qs);
    task.exec();
    task.exec();
    task.finish(Error());
    task.exec();
    EXPECT_EQ(log.str(), "t started, t finished, t idle");
}

TEST(TaskLifeCycle, FinishBeforeExecDoesNothing) {
    ManualTask task;
    task.finish(failure(u"too early"_qs));
    EXPECT_EQ(task.state(), BaseTask::State::Created);
    EXPECT_FALSE(task.hasError());
}

TEST(TaskLifeCycle, ASecondFinishChangesNothing) {
    EventLog log;
    ManualTask task;
    log.watch(&task, u"t"_qs);
    task.exec();
    task.finish(failure(u"first"_qs));
    task.finish(failure(u"second"_qs));
    EXPECT_EQ(task.error().errorMessage(), u"first");
    EXPECT_EQ(log.str(), "t started, t finished, t idle");
}

TEST(TaskLifeCycle, FinishWithinDoFinishChangesNothing) {
    int calls = 0;
    ScriptedTask task;
    task.onFinish = [&](const Error& held) {
        ++calls;
        task.finish(failure(u"inner"_qs));
        return held;
    };
    task.exec();
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(task.hasError());
}

TEST(TaskLifeCycle, AnErrorHeldBeforeFinishIsKept) {
    ManualTask task;
    task.exec();
    task.setError(failure(u"held"_qs));
    task.finish(failure(u"later"_qs));
    EXPECT_EQ(task.error().errorMessage(), u"held");
}

TEST(TaskLifeCycle, WarningsSurviveASuccessfulFinish) {
    ManualTask task;
    task.exec();
    task.addWarning(u"from before"_qs);
    Error success;
    success.addWarning(u"from the end"_qs);
    task.finish(success);
    EXPECT_FALSE(task.hasError());
    EXPECT_EQ(task.error().warnings().size(), 2);
}

TEST(TaskLifeCycle, FinishInsideInitializeGoesThroughDoFinishAndSkipsTheBody) {
    EventLog log;
    ScriptedTask task;
    log.watch(&task, u"t"_qs);
    task.onInitialize = [](ScriptedTask* self) { return self->finish(Error()), Error(); };
    task.onExec = [&](ScriptedTask*) { return log.add(u"body"_qs), Error(); };
    task.onFinish = [&](const Error& held) { return log.add(u"doFinish"_qs), held; };
    task.exec();
    EXPECT_EQ(log.str(), "t started, doFinish, t finished, t idle");
}

TEST(TaskLifeCycle, AnErrorReturnedAfterFinishInsideInitializeChangesNothing) {
    ScriptedTask task;
    task.onInitialize = [](ScriptedTask* self) { return self->finish(Error()), failure(u"late"_qs); };
    task.exec();
    EXPECT_FALSE(task.hasError());
}

TEST(TaskLifeCycle, AFailedInitializeGoesThroughDoFinishAndSkipsTheBody) {
    EventLog log;
    ScriptedTask task;
    log.watch(&task, u"t"_qs);
    task.onInitialize = [](ScriptedTask*) { return failure(u"no file"_qs, ErrorCode::NotFound); };
    task.onExec = [&](ScriptedTask*) { return log.add(u"body"_qs), Error(); };
    task.onFinish = [&](const Error& held) { return log.add(u"doFinish "_qs + held.errorMessage()), held; };
    task.exec();
    EXPECT_EQ(log.str(), "t started, doFinish no file, t finished, t idle");
    EXPECT_TRUE(task.error().is(ErrorCode::NotFound));
}

TEST(TaskLifeCycle, DoFinishDecidesTheErrorTheTaskEndsWith) {
    ScriptedTask task;
    task.onFinish = [](const Error&) { return failure(u"cannot store"_qs, ErrorCode::StorageFull); };
    task.exec();
    EXPECT_TRUE(task.error().is(ErrorCode::StorageFull));
}

TEST(TaskLifeCycle, TheVariantResultIsWhatTheTaskSet) {
    ScriptedTask task;
    task.onExec = [](ScriptedTask* self) { return self->setVariantResult(42), Error(); };
    EXPECT_FALSE(task.variantResult().isValid());
    task.exec();
    EXPECT_EQ(task.variantResult().toInt(), 42);
}

TEST(TaskLifeCycle, ARestartedTaskRunsCleanAndFinishesOnceMore) {
    EventLog log;
    ScriptedTask task;
    task.onExec = [](ScriptedTask*) { return failure(u"first run"_qs); };
    task.exec();
    log.watch(&task, u"t"_qs);

    task.restart();

    EXPECT_TRUE(task.isRunning());
    EXPECT_FALSE(task.hasError());
    task.finish(Error());
    EXPECT_FALSE(task.hasError());
    EXPECT_EQ(log.str(), "t finished, t idle");
}

TEST(TaskLifeCycle, ARestartClearsTheCancelledState) {
    ScriptedTask task;
    task.cancel();
    task.exec();
    ASSERT_TRUE(task.isCanceled());
    task.restart();
    EXPECT_FALSE(task.isCanceled());
    EXPECT_FALSE(task.isCancelRequested());
}

TEST(TaskLifeCycle, ARestartInsideFinishedBelongsToTheNextRun) {
    EventLog log;
    ScriptedTask task;
    log.watch(&task, u"t"_qs);
    bool again = true;
    QObject::connect(&task, &BaseTask::finished, &task, [&] {
        if (std::exchange(again, false))
            task.restart();
    });
    task.exec();
    EXPECT_TRUE(task.isRunning());
    EXPECT_EQ(log.str(), "t started, t finished");
    task.finish(Error());
    EXPECT_EQ(log.str(), "t started, t finished, t finished, t idle");
}

TEST(TaskCancel, BeforeTheStartFinishesAtOnceAndRunsNothing) {
    EventLog log;
    ScriptedTask task;
    log.watch(&task, u"t"_qs);
    task.onInitialize = [&](ScriptedTask*) { return log.add(u"initialize"_qs), Error(); };
    task.cancel();
    EXPECT_TRUE(task.isCanceled());
    EXPECT_TRUE(task.error().is(ErrorCode::Canceled));
    task.exec();
    EXPECT_EQ(log.str(), "t canceled, t finished, t idle");
    EXPECT_TRUE(task.error().is(ErrorCode::Canceled));
}

TEST(TaskCancel, InAHandlerOfStartedRunsNothing) {
    EventLog log;
    ScriptedTask task;
    log.watch(&task, u"t"_qs);
    QObject::connect(&task, &BaseTask::started, &task, &BaseTask::cancel);
    task.onInitialize = [&](ScriptedTask*) { return log.add(u"initialize"_qs), Error(); };
    task.exec();
    EXPECT_EQ(log.str(), "t started, t canceled, t finished, t idle");
}

TEST(TaskCancel, InsideInitializeSkipsTheBody) {
    EventLog log;
    ScriptedTask task;
    log.watch(&task, u"t"_qs);
    task.onInitialize = [](ScriptedTask* self) { return self->cancel(), Error(); };
    task.onExec = [&](ScriptedTask*) { return log.add(u"body"_qs), Error(); };
    task.exec();
    EXPECT_EQ(log.str(), "t started, t canceled, t finished, t idle");
    EXPECT_TRUE(task.error().isCanceled());
}

TEST(TaskCancel, InsideADirectBodyIsSeenByTheBodyAndIsNeverSuccess) {
    ScriptedTask task;
    bool seen = false;
    task.onExec = [&](ScriptedTask* self) {
        self->cancel();
        seen = self->isCancelRequested();
        return Error();
    };
    task.exec();
    EXPECT_TRUE(seen);
    EXPECT_TRUE(task.isCanceled());
    EXPECT_TRUE(task.error().isCanceled());
}

TEST(TaskCancel, WhileRunningSetsTheErrorAtOnceAndIsIdempotent) {
    EventLog log;
    StubbornTask task;
    log.watch(&task, u"t"_qs);
    task.exec();
    task.cancel();
    EXPECT_TRUE(task.isRunning());
    EXPECT_TRUE(task.hasError());
    EXPECT_TRUE(task.isCanceled());
    task.cancel();
    task.finish(Error());
    EXPECT_EQ(log.str(), "t started, t canceled, t finished, t idle");
    EXPECT_TRUE(task.error().isCanceled());
}

TEST(TaskCancel, CannotBeTakenBackByDoFinish) {
    ScriptedTask task;
    task.onExec = [](ScriptedTask* self) { return self->cancel(), Error(); };
    task.onFinish = [](const Error&) { return Error(); };
    task.exec();
    EXPECT_TRUE(task.error().isCanceled());
}

TEST(TaskCancel, OfAFinishedTaskChangesNothing) {
    EventLog log;
    ManualTask task;
    log.watch(&task, u"t"_qs);
    task.exec();
    task.finish(Error());
    task.cancel();
    EXPECT_FALSE(task.hasError());
    EXPECT_FALSE(task.isCanceled());
    EXPECT_EQ(log.str(), "t started, t finished, t idle");
}

TEST(TaskDestruction, OfARunningTaskEmitsNeitherFinishedNorIdle) {
    EventLog log;
    auto task = std::make_unique<ManualTask>();
    log.watch(task.get(), u"t"_qs);
    task->exec();
    task.reset();
    EXPECT_EQ(log.str(), "t started");
}

class TaskDestroyedWithin : public testing::TestWithParam<int> {};

TEST_P(TaskDestroyedWithin, AnyOfItsSteps) {
    auto* task = new ScriptedTask;
    const QPointer<ScriptedTask> guard(task);
    int step = 0;
    const auto destroyAt = [&](int here) {
        if (here == GetParam()) {
            step = here;
            delete task;
        }
    };
    const int wanted = GetParam();
    QObject::connect(task, &BaseTask::started, [&] { destroyAt(0); });
    // The functions are copied out first, since the task that holds them goes.
    task->onInitialize = [&](ScriptedTask*) { return destroyAt(1), Error(); };
    task->onExec = [&](ScriptedTask*) { return destroyAt(2), Error(); };
    QObject::connect(task, &BaseTask::finished, [&] { destroyAt(3); });
    QObject::connect(task, &BaseTask::idle, [&] { destroyAt(4); });
    task->exec();
    EXPECT_TRUE(guard.isNull());
    EXPECT_EQ(step, wanted);
}

INSTANTIATE_TEST_SUITE_P(Steps, TaskDestroyedWithin, testing::Range(0, 5));

TEST(TaskWait, OfAFinishedTaskReturnsItsErrorAtOnce) {
    ManualTask task;
    task.exec();
    task.finish(failure(u"why"_qs));
    EXPECT_EQ(task.waitForFinished(0).errorMessage(), u"why");
}

TEST(TaskWait, ProcessesEventsUntilTheTaskIsFinished) {
    ManualTask task;
    task.exec();
    QMetaObject::invokeMethod(
        &task, [&] { task.finish(Error()); }, Qt::QueuedConnection);
    EXPECT_FALSE(task.waitForFinished().hasError());
    EXPECT_TRUE(task.isFinished());
}

TEST(TaskWait, WithTimeoutZeroGivesUpAfterOneLook) {
    ManualTask task;
    task.exec();
    EXPECT_TRUE(task.waitForFinished(0).is(ErrorCode::TimedOut));
    EXPECT_TRUE(task.isRunning());
    task.finish(Error());
    EXPECT_FALSE(task.waitForFinished(0).hasError());
}

TEST(TaskWait, EndsWhenTheTimeIsUp) {
    ManualTask task;
    task.exec();
    EXPECT_TRUE(task.waitForFinished(5).is(ErrorCode::TimedOut));
}

TEST(TaskWait, EndsWhenTheTaskIsDestroyed) {
    auto* task = new ManualTask;
    task->exec();
    QMetaObject::invokeMethod(
        task, [&] { delete task; }, Qt::QueuedConnection);
    EXPECT_TRUE(task->waitForFinished().isCanceled());
}

TEST(TaskWait, ForAllGivesTheFirstErrorInListOrder) {
    ManualTask first, second, third;
    for (ManualTask* task : {&first, &second, &third})
        task->exec();
    third.finish(failure(u"third"_qs));
    second.finish(failure(u"second"_qs));
    first.finish(Error());
    EXPECT_EQ(BaseTask::waitForAllFinished({&first, &second, &third}, 0).errorMessage(), u"second");
}

TEST(TaskWait, ForAllTimesOutWhileOneRuns) {
    ManualTask first, second;
    first.exec();
    second.exec();
    first.finish(failure(u"first"_qs));
    EXPECT_TRUE(BaseTask::waitForAllFinished({&first, &second}, 0).is(ErrorCode::TimedOut));
    second.finish(Error());
    EXPECT_EQ(BaseTask::waitForAllFinished({&first, &second}, 0).errorMessage(), u"first");
}

TEST(TaskWait, ForNoTaskSucceedsAtOnce) {
    EXPECT_FALSE(BaseTask::waitForAllFinished({}, 0).hasError());
}
