// What the download of a folder makes of how its files and listings end, whatever brings the files.
#include "DownloadFolderFixture.h"

#include <FolderDownloadPlan.h>
#include <FolderDownloadReport.h>
#include <HalvaneError.h>

#include <functional>

using namespace orx;
using namespace orx::testing;

namespace {

QString u8(const char* text) {
    return QString::fromUtf8(text);
}

//! Tells how much is done and ends at once, or, without an end, when the download is cancelled.
class ToldFile final : public Task {
public:
    ToldFile(int percent, const std::optional<Error>& end)
        : Task(u8("told")), m_percent(percent), m_end(end) {}

protected:
    void start() override {
        Q_EMIT progress(m_percent, 100);
        if (m_end)
            finish(*m_end);
    }
    void doCancel() override { finish(Error()); }

private:
    const int m_percent;
    const std::optional<Error> m_end;
};

class ToldDownload final : public HalvaneDownloadFolderTaskBase {
public:
    using HalvaneDownloadFolderTaskBase::HalvaneDownloadFolderTaskBase;
    using HalvaneDownloadFolderTaskBase::setMostWaitingFiles;
    //! The task for a file, of which \a number were made before.
    std::function<Task*(int number)> make;
    int made = 0;

protected:
    Task* createFileDownloadTask(const HalvaneFileResourceReferenceSPtr&, const DirPath&, const QString&,
                                 std::optional<DuplicateDownloadPolicy>) override {
        return make(made++);
    }
};

class FolderWalk : public DownloadFolderTaskTest {
protected:
    void SetUp() override {
        DownloadFolderTaskTest::SetUp();
        raw = folder(u8("raw"));
    }
    std::unique_ptr<ToldDownload> told(const std::function<Task*(int number)>& make) {
        auto task = std::make_unique<ToldDownload>(reference(raw, u8("raw")), target.path(), false);
        task->make = make;
        QObject::connect(task.get(), &BaseTask::progress, [this](int value, int) { values.append(value); });
        return task;
    }
    void files(int number, const QByteArray& content) {
        for (int i = 0; i < number; ++i)
            file(QString::number(i), content, raw);
    }

    int raw = -1;
    QList<int> values;
};

TEST_F(FolderWalk, FailuresWithASuccessBetweenThemDoNotEndIt) {
    constexpr int rounds = 3;
    constexpr int each = FolderDownloadReport::hopelessInARow;
    files(rounds * each, "x");
    const Error full(ErrorCode::StorageFull, u8("No room."));
    const auto task =
        told([&](int number) { return new ToldFile(100, number % each == each - 1 ? Error() : full); });
    const Error error = run(*task);
    EXPECT_TRUE(error.is(ErrorCode::StorageFull));
    EXPECT_FALSE(error.errorMessage().contains(u8("given up"))) << qPrintable(error.errorMessage());
    EXPECT_EQ(task->made, rounds * each);
    EXPECT_EQ(task->downloadedFileCount(), rounds);
    EXPECT_EQ(task->failures().size(), rounds * (each - 1));
}

TEST_F(FolderWalk, WhatWasDoneOfAFileThatFailsDoesNotCount) {
    files(2, QByteArray(100, 'x'));
    ToldFile* other = nullptr;
    const auto task = told([&](int number) {
        if (number == 0)
            return new ToldFile(50, Error(ErrorCode::FileNotWritable, u8("No.")));
        return other = new ToldFile(0, std::nullopt);
    });
    task->exec();
    ASSERT_TRUE(waitUntil([&] { return other && task->failures().size() == 1; }));
    Q_EMIT other->progress(100, 100);
    EXPECT_EQ(values, (QList<int>{250, 500}));
    EXPECT_EQ(task->doneBytes(), 100);
    task->cancel();
    EXPECT_TRUE(task->waitForFinished().isCanceled());
}

// What came before that is told at once, and not with the next file.
TEST_F(FolderWalk, ProgressBeginsWhenTheLastFolderIsListed) {
    files(1, QByteArray(100, 'x'));
    const int below = folder(u8("below"), raw);
    file(u8("more"), QByteArray(100, 'x'), below);
    server.script(u8("GET /folders/%1/files").arg(below), ScriptedFault::hold());
    QList<int> valuesBefore;
    const auto task = told([&](int number) {
        valuesBefore = values;
        return number == 0 ? new ToldFile(100, Error()) : new ToldFile(0, std::nullopt);
    });
    task->exec();
    ASSERT_TRUE(waitUntil([&] { return server.heldCount() == 1 && task->downloadedFileCount() == 1; }));
    EXPECT_EQ(values, QList<int>());
    server.release();
    ASSERT_TRUE(waitUntil([&] { return task->made == 2; }));
    EXPECT_EQ(valuesBefore, QList<int>{500});
    task->cancel();
    EXPECT_TRUE(task->waitForFinished().isCanceled());
}

// So many files wait that no more is listed until some of them have come.
TEST_F(FolderWalk, ProgressBeginsWhenListingWaitsToo) {
    constexpr int enough = 10;
    const int all = FolderDownloadPlan::Limits().files + enough;
    file(u8("first"), QByteArray(all, 'x'), raw);
    files(all - 1, "x");
    const int below = folder(u8("below"), raw);
    const auto task = told([](int number) { return new ToldFile(number == 0 ? 100 : 0, std::nullopt); });
    task->setMostWaitingFiles(enough);
    task->exec();
    ASSERT_TRUE(waitUntil([&] { return task->made > 0; }));
    EXPECT_EQ(values, QList<int>{all * 1000 / (2 * all - 1)});
    EXPECT_FALSE(task->isWholeTreeKnown());
    task->cancel();
    EXPECT_TRUE(task->waitForFinished().isCanceled());
    EXPECT_EQ(server.count(u8("GET /folders/%1/files").arg(below)), 0);
}

TEST_F(FolderWalk, OfTwoListingsOfAFolderTheFirstThatFailsTellsWhy) {
    server.script(u8("GET /folders/%1/f*").arg(raw),
                  ScriptedFault::failure(404, HalvaneServerErrorCode::NotFound, u8("It went.")));
    server.script(u8("GET /folders/%1/f*").arg(raw),
                  ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege, u8("No.")));
    const auto task = told([](int) { return nullptr; });
    const Error error = run(*task);
    EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::NotFound)) << qPrintable(error.errorMessage());
    EXPECT_EQ(task->failures().size(), 1);
    EXPECT_EQ(server.count(u8("GET /folders/*")), 2);
}

} // namespace
