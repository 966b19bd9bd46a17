#include "PackingFixture.h"
#include "SmallWriter.h"
#include "VonkTask.h"
#include "VonkUpgradeHelper.h"

#include <QFile>
#include <QFileInfo>
#include <QThread>

using namespace orx;
using namespace orx::vonk;

namespace {

struct Log {
    explicit Log(Task& task) {
        QObject::connect(&task, &BaseTask::progressInitiated, &task,
                         [this](int maximum) { events << QStringLiteral("of %1").arg(maximum); });
        QObject::connect(&task, &BaseTask::progress, &task, [this, &task](int value, int maximum) {
            EXPECT_EQ(maximum, 100);
            EXPECT_EQ(QThread::currentThread(), task.thread());
            events << QString::number(value);
        });
        QObject::connect(&task, &BaseTask::finished, &task, [this] { events << QStringLiteral("finished"); });
    }
    QStringList events;
};

class VonkTasks : public PackingFixture, public ::testing::WithParamInterface<Task::ExecutionMode> {
protected:
    QString old() const {
        const QString path = in(QStringLiteral("old.vonk"));
        SmallWriter writer(1);
        writer.addFile(QStringLiteral("content/run1.raw"), text(5 << 20));
        writer.finish();
        write(path, writer.bytes());
        return path;
    }
};

INSTANTIATE_TEST_SUITE_P(Mode, VonkTasks,
                         ::testing::Values(Task::ExecutionMode::Direct, Task::ExecutionMode::Worker));

TEST_P(VonkTasks, AnUpgradeWritesTheCurrentVersionAndTellsHowFarItIs) {
    const auto task =
        VonkUpgradeHelper::createUpgradeVonkTask(old(), out(QStringLiteral("new.vonk")), GetParam());
    EXPECT_EQ(task->executionMode(), GetParam());
    const Log log(*task);
    task->exec();
    ASSERT_FALSE(task->waitForFinished().hasError());
    EXPECT_EQ(log.events, (QStringList{QStringLiteral("of 100"), QStringLiteral("19"), QStringLiteral("39"),
                                       QStringLiteral("59"), QStringLiteral("79"), QStringLiteral("99"),
                                       QStringLiteral("100"), QStringLiteral("finished")}));
    EXPECT_FALSE(checked(out(QStringLiteral("new.vonk")), Vonk::Check::Full).hasError());
    Vonk upgraded(out(QStringLiteral("new.vonk")));
    ASSERT_FALSE(upgraded.open().hasError());
    EXPECT_EQ(upgraded.metadata().formatVersion, vonkVersion());
}

TEST_P(VonkTasks, AnUpgradeOfSomethingElseFailsWithTheReadersError) {
    write(in(QStringLiteral("a.vonk")), "not packed");
    const auto task = VonkUpgradeHelper::createUpgradeVonkTask(in(QStringLiteral("a.vonk")),
                                                               out(QStringLiteral("new.vonk")), GetParam());
    task->exec();
    EXPECT_TRUE(task->waitForFinished().is(ErrorCode::ParseError));
    EXPECT_EQ(names(out()), QStringList());
}

TEST_P(VonkTasks, UnpackingAndCheckingEndWithTheirResult) {
    UnpackVonkTask unpack(old(), out(QStringLiteral("run1")));
    CheckVonkTask check(in(QStringLiteral("old.vonk")), Vonk::Check::Full);
    for (Task* const task : {static_cast<Task*>(&unpack), static_cast<Task*>(&check)}) {
        task->setExecutionMode(GetParam());
        task->exec();
        EXPECT_FALSE(task->waitForFinished().hasError());
    }
    EXPECT_EQ(read(out(QStringLiteral("run1/content/run1.raw"))), text(5 << 20));
    UnpackVonkTask again(in(QStringLiteral("old.vonk")), out(QStringLiteral("run1")));
    again.setExecutionMode(GetParam());
    again.exec();
    EXPECT_TRUE(again.waitForFinished().is(ErrorCode::AlreadyExists));
}

// Of nothing there are no percents.
TEST_P(VonkTasks, CheckingAnAcquisitionWithoutBytesTellsNothingButItsEnd) {
    for (const int version : {1, 2}) {
        SmallWriter writer(version);
        writer.addFile(QStringLiteral("content/run1.raw"), {});
        writer.addFile(QStringLiteral("content/run2.raw"), {});
        writer.finish();
        write(in(QStringLiteral("empty.vonk")), writer.bytes());
        CheckVonkTask check(in(QStringLiteral("empty.vonk")), Vonk::Check::Full);
        check.setExecutionMode(GetParam());
        const Log log(check);
        check.exec();
        EXPECT_FALSE(check.waitForFinished().hasError());
        EXPECT_EQ(log.events,
                  (QStringList{QStringLiteral("of 100"), QStringLiteral("100"), QStringLiteral("finished")}))
            << version;
    }
}

TEST_P(VonkTasks, CancelledBeforeItsBodyRunsItLeavesNothing) {
    const auto task =
        VonkUpgradeHelper::createUpgradeVonkTask(old(), out(QStringLiteral("new.vonk")), GetParam());
    const Log log(*task);
    QObject::connect(task.get(), &BaseTask::progressInitiated, task.get(), [&] { task->cancel(); });
    task->exec();
    EXPECT_TRUE(task->waitForFinished().isCanceled());
    EXPECT_EQ(log.events, (QStringList{QStringLiteral("of 100"), QStringLiteral("finished")}));
    EXPECT_EQ(names(out()), QStringList());
}

// Wherever the worker is by then, also when it is through.
TEST_P(VonkTasks, CancelledByItsProgressItLeavesNothing) {
    const QString packed = old();
    for (const int at : {1, 50, 100}) {
        UnpackVonkTask unpacking(packed, out(QStringLiteral("run1")));
        UpgradeVonkTask upgrading(packed, out(QStringLiteral("new.vonk")));
        for (VonkTask* const task :
             {static_cast<VonkTask*>(&unpacking), static_cast<VonkTask*>(&upgrading)}) {
            task->setExecutionMode(GetParam());
            QObject::connect(task, &BaseTask::progress, task, [task, at](int value) {
                if (value >= at)
                    task->cancel();
            });
            task->exec();
            EXPECT_TRUE(task->waitForFinished().isCanceled()) << at;
            EXPECT_EQ(names(out()), QStringList()) << at;
        }
    }
}

TEST_F(VonkTasks, DestroyedWhileItRunsItLeavesNothing) {
    auto task = VonkUpgradeHelper::createUpgradeVonkTask(old(), out(QStringLiteral("new.vonk")),
                                                         Task::ExecutionMode::Worker);
    task->exec();
    task.reset();
    EXPECT_EQ(names(out()), QStringList());
}

TEST_F(VonkTasks, DestroyedWhenItsBodyIsThroughItLeavesNothing) {
    const QString packed = old();
    for (int i = 0; i < 2; ++i) {
        std::unique_ptr<VonkTask> task;
        if (i == 0)
            task = std::make_unique<UnpackVonkTask>(packed, out(QStringLiteral("made")));
        else
            task = std::make_unique<UpgradeVonkTask>(packed, out(QStringLiteral("made")));
        task->setExecutionMode(Task::ExecutionMode::Worker);
        task->exec();
        // Without an event loop the task is not finished.
        while (!QFileInfo::exists(out(QStringLiteral("made"))))
            QThread::yieldCurrentThread();
        task.reset();
        EXPECT_EQ(names(out()), QStringList()) << i;
    }
}

TEST_P(VonkTasks, DestroyedAfterItSucceededItLeavesWhatItMade) {
    auto task = VonkUpgradeHelper::createUpgradeVonkTask(old(), out(QStringLiteral("new.vonk")), GetParam());
    task->exec();
    EXPECT_FALSE(task->waitForFinished().hasError());
    task.reset();
    EXPECT_EQ(names(out()), QStringList{QStringLiteral("new.vonk")});
}

} // namespace
