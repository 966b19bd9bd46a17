#include "PackedFileTasks.h"

#include "PackedRunFixture.h"
#include "SmallWriter.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

using namespace halvane::host;
using orx::BaseTask;
using orx::ErrorCode;
using orx::Task;

namespace {

// Directly, so that what happens meanwhile happens at the same step each time.
class PackedFileTasks : public PackedRunFixture {
protected:
    QStringList names(const QString& directory) const {
        return QDir(path(directory))
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    }
    QString makeOld() const {
        orx::vonk::SmallWriter writer(1);
        writer.addFile(QStringLiteral("content/run.raw"), QByteArray(3 << 20, 'o'));
        writer.finish();
        write(QStringLiteral("out/old.vonk"), writer.bytes());
        return path(QStringLiteral("out/old.vonk"));
    }
    //! Runs it and does \a what once, at the first progress from \a percent on.
    static orx::Error runWith(Task& task, int percent, std::function<void()> what) {
        task.setExecutionMode(Task::ExecutionMode::Direct);
        QObject::connect(&task, &BaseTask::progress, &task, [&what, percent](int value) {
            if (value >= percent && what)
                std::exchange(what, {})();
        });
        task.exec();
        return task.waitForFinished();
    }
};

TEST_F(PackedFileTasks, AnUnpackingThatIsCancelledLeavesNothingAlsoWhenItWasThrough) {
    for (const int percent : {1, 100}) {
        UnpackIntoTask fresh(packed(), path(QStringLiteral("out/back")));
        EXPECT_TRUE(runWith(fresh, percent, [&fresh] { fresh.cancel(); }).isCanceled()) << percent;
        EXPECT_EQ(names(QStringLiteral("out")), QStringList()) << percent;
        EXPECT_EQ(fresh.paths(), QStringList());
    }
    write(QStringLiteral("out/stays"), "as it is");
    for (const int percent : {1, 100}) {
        UnpackIntoTask beside(packed(), path(QStringLiteral("out")));
        EXPECT_TRUE(runWith(beside, percent, [&beside] { beside.cancel(); }).isCanceled()) << percent;
        EXPECT_EQ(names(QStringLiteral("out")), QStringList{QStringLiteral("stays")}) << percent;
    }
}

TEST_F(PackedFileTasks, WhatWasTakenOfSeveralIsTakenBackWhenOneCannotBe) {
    UnpackIntoTask task(packed(), path(QStringLiteral("out")));
    const orx::Error error = runWith(task, 1, [this] { write(QStringLiteral("out/run.main"), "another's"); });
    EXPECT_TRUE(error.is(ErrorCode::AlreadyExists));
    EXPECT_TRUE(error.errorMessage().contains(path(QStringLiteral("out/run.main"))));
    EXPECT_EQ(names(QStringLiteral("out")), QStringList{QStringLiteral("run.main")});
    EXPECT_EQ(read(QStringLiteral("out/run.main")), "another's");
}

TEST_F(PackedFileTasks, TheDirectoryIsTakenByNobodyElse) {
    UnpackIntoTask task(packed(), path(QStringLiteral("out/back")));
    const orx::Error error = runWith(
        task, 1, [this] { ASSERT_TRUE(QDir(m_dir.path()).mkpath(QStringLiteral("out/back/of another"))); });
    EXPECT_TRUE(error.is(ErrorCode::AlreadyExists));
    EXPECT_EQ(names(QStringLiteral("out")), QStringList{QStringLiteral("back")});
    EXPECT_EQ(names(QStringLiteral("out/back")), QStringList{QStringLiteral("of another")});
}

TEST_F(PackedFileTasks, AFileThatIsReplacedWhileItIsUpgradedStays) {
    const QString old = makeOld();
    UpgradeInPlaceTask task(old);
    const orx::Error error = runWith(task, 1, [this, &old] {
        write(QStringLiteral("newer"), "newer");
        ASSERT_EQ(std::rename(qPrintable(path(QStringLiteral("newer"))), qPrintable(old)), 0);
    });
    EXPECT_TRUE(error.is(ErrorCode::FileChanged));
    EXPECT_FALSE(task.isUpgraded());
    EXPECT_EQ(read(QStringLiteral("out/old.vonk")), "newer");
    EXPECT_EQ(names(QStringLiteral("out")), QStringList{QStringLiteral("old.vonk")});
}

TEST_F(PackedFileTasks, AnUpgradeThatIsCancelledLeavesTheOldFileUnlessItIsThrough) {
    const QString old = makeOld();
    const QByteArray before = read(QStringLiteral("out/old.vonk"));
    UpgradeInPlaceTask early(old);
    EXPECT_TRUE(runWith(early, 1, [&early] { early.cancel(); }).isCanceled());
    EXPECT_FALSE(early.isUpgraded());
    EXPECT_TRUE(read(QStringLiteral("out/old.vonk")) == before);
    UpgradeInPlaceTask late(old);
    EXPECT_TRUE(runWith(late, 100, [&late] { late.cancel(); }).isCanceled());
    EXPECT_TRUE(late.isUpgraded());
    EXPECT_EQ(late.versionBefore(), QVersionNumber(1, 0));
    EXPECT_FALSE(read(QStringLiteral("out/old.vonk")) == before);
    EXPECT_EQ(names(QStringLiteral("out")), QStringList{QStringLiteral("old.vonk")});
}

TEST_F(PackedFileTasks, ANewFileTakesNoNameThatIsTaken) {
    EXPECT_FALSE(writeNewFile(path(QStringLiteral("out/new")), "content").hasError());
    EXPECT_EQ(read(QStringLiteral("out/new")), "content");
    EXPECT_TRUE(writeNewFile(path(QStringLiteral("out/new")), "other").is(ErrorCode::AlreadyExists));
    EXPECT_EQ(read(QStringLiteral("out/new")), "content");
    EXPECT_TRUE(writeNewFile(path(QStringLiteral("none/new")), "content").is(ErrorCode::FileNotWritable));
    EXPECT_EQ(names(QStringLiteral("out")), QStringList{QStringLiteral("new")});
}

} // namespace
