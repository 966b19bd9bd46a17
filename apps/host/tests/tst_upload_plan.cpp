// What a plan of an upload costs, and what it says of files that would fail.
#include <RunUntilIdle.h>
#include <TreeUploadJob.h>
#include <UploadPlanTask.h>

#include <UploadFixture.h>
#include <UploadSums.h>

#include <gtest/gtest.h>

#include <QDir>

namespace halvane::host {
namespace {

using orx::ErrorCode;

class UploadPlan : public orx::testing::UploadTest {
protected:
    UploadPlan() {
        EXPECT_TRUE(QDir().mkpath(filePath(QStringLiteral("t/sub"))));
        request.paths = {filePath(QStringLiteral("t"))};
        request.target = QStringLiteral("folder:1");
    }
    UploadPolicy::Options options(bool canAsk = false) const {
        return UploadPolicy::optionsOf(request, canAsk, {});
    }
    std::unique_ptr<UploadPlanTask> plan(bool canAsk = false) const {
        auto task = std::make_unique<UploadPlanTask>(request, options(canAsk));
        const orx::Error error = runUntilIdle(*task);
        EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
        return task;
    }
    //! "t/a new_file"
    QStringList actions(const UploadPlanTask& task) const {
        QStringList found;
        for (const PlannedUpload& planned : task.planned())
            found.append(QDir(filePath(QString())).relativeFilePath(planned.entry.path) + u' ' +
                         planned.actionName());
        return found;
    }

    TreeUploadRequest request;
};

TEST_F(UploadPlan, CountsNoDirectoryForASumThatNobodyAsksFor) {
    (void)makeFile(QStringLiteral("t/a"));
    (void)makeFile(QStringLiteral("t/sub/b"));
    const quint64 before = orx::UploadSums::instance().listings();
    EXPECT_EQ(plan()->planned().size(), 4);
    EXPECT_EQ(orx::UploadSums::instance().listings(), before);
    TreeUploadJob job(request, options());
    EXPECT_FALSE(runUntilIdle(job).hasError());
    EXPECT_GT(orx::UploadSums::instance().listings(), before) << "an upload does";
}

TEST_F(UploadPlan, SaysWhyAFileWhoseNameIsTakenWouldFail) {
    const int folder = server.service().addFolder(QStringLiteral("t"));
    (void)server.service().addFile(QStringLiteral("a"), "there", folder);
    const QString path = makeFile(QStringLiteral("t/a"), "here");
    for (const IfTaken ifTaken : {IfTaken::Fail, IfTaken::Ask}) {
        request.ifTaken = ifTaken;
        const auto task = plan();
        EXPECT_TRUE(actions(*task).contains(QStringLiteral("t/a fail")));
        ASSERT_EQ(task->report().failures.size(), 1);
        const UploadFailure& failure = task->report().failures.first();
        EXPECT_EQ(failure.path, path);
        EXPECT_TRUE(failure.error.is(ErrorCode::AlreadyExists));
        EXPECT_TRUE(failure.error.errorMessage().contains(QStringLiteral("--if-exists")));
        EXPECT_EQ(failure.error.errorMessage().contains(QStringLiteral("terminal")), ifTaken == IfTaken::Ask);
    }
    EXPECT_TRUE(actions(*plan(true)).contains(QStringLiteral("t/a ask")));
    EXPECT_TRUE(plan(true)->report().failures.isEmpty());
}

TEST_F(UploadPlan, SaysOfWhichOtherFileTheNameMayBe) {
    const int folder = server.service().addFolder(QStringLiteral("t"));
    (void)server.service().addFile(QStringLiteral("run.mgf.vonk"), "there", folder);
    (void)makeFile(QStringLiteral("t/run.mgf.vonk"), "here");
    ASSERT_TRUE(
        QFile::copy(QStringLiteral(ORX_TEST_DATA_DIR "/small.mgf"), filePath(QStringLiteral("t/run.mgf"))));
    const auto task = plan();
    EXPECT_TRUE(actions(*task).contains(QStringLiteral("t/run.mgf.vonk fail")));
    ASSERT_FALSE(task->report().failures.isEmpty());
    for (const UploadFailure& failure : task->report().failures) {
        EXPECT_TRUE(failure.error.errorMessage().contains(QStringLiteral("goes up under the same name")))
            << qPrintable(failure.error.errorMessage());
    }
}

} // namespace
} // namespace halvane::host
