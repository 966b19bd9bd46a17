#include "AsyncVonkTask.h"
#include "FullPool.h"
#include "HalvaneUtils.h"
#include "SmallDisk.h"

#include <BackgroundWork.h>
#include <DiskRoom.h>
#include <OwnerInbox.h>
#include <Vonk.h>
#include <WorkerPool.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <latch>
#include <mutex>
#include <optional>
#include <thread>

using namespace orx;
using orx::vonk::PackInput;
using orx::vonk::Vonk;

namespace {

//! How work in the background ended.
class Ending {
public:
    BackgroundWork::Scope::Begin begin(bool isCanceled = false) {
        return [this, isCanceled] { return std::make_shared<Work>(m_error, isCanceled); };
    }
    Error wait() { return m_error.get_future().get(); }

private:
    class Work final : public BackgroundWork {
    public:
        Work(std::promise<Error>& ended, bool isCanceled) : m_ended(ended), m_isCanceled(isCanceled) {}
        void finished(const Error& error) override { m_ended.set_value(error); }
        bool isCanceled() const override { return m_isCanceled; }

    private:
        std::promise<Error>& m_ended;
        bool m_isCanceled;
    };
    std::promise<Error> m_error;
};

class PackedTasks : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        ASSERT_TRUE(QDir(m_dir.path()).mkpath(QStringLiteral("out")));
        QFile raw(path(QStringLiteral("run1.mgf")));
        ASSERT_TRUE(raw.open(QIODevice::WriteOnly));
        m_content = "BEGIN IONS\nTITLE=a\nPEPMASS=400.5\nRTINSECONDS=60\n100.5 10\n200.5 20\nEND IONS\n\n";
        m_content = m_content.repeated(40'000);
        ASSERT_EQ(raw.write(m_content), m_content.size());
    }

    QString path(const QString& name) const { return m_dir.filePath(name); }
    FilePath packed() const { return FilePath(path(QStringLiteral("out/run1.mgf.vonk"))); }
    QStringList made() const {
        return QDir(path(QStringLiteral("out")))
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    }
    void pack() const {
        AsyncVonkTask task(PackInput::fromMs(path(QStringLiteral("run1.mgf"))), packed());
        task.exec();
        const Error error = task.waitForFinished();
        ASSERT_FALSE(error.hasError()) << error.traceText().toStdString();
    }

    QTemporaryDir m_dir;
    QByteArray m_content;
};

TEST_F(PackedTasks, RawDataIsPackedOnAWorkerWithItsKindAndSummary) {
    AsyncVonkTask task(PackInput::fromMs(path(QStringLiteral("run1.mgf"))), packed());
    EXPECT_EQ(task.executionMode(), Task::ExecutionMode::Worker);
    QList<int> percents;
    QObject::connect(&task, &BaseTask::progress, &task, [&](int value, int maximum) {
        EXPECT_EQ(maximum, 100);
        EXPECT_EQ(QThread::currentThread(), task.thread());
        percents.append(value);
    });
    task.exec();
    ASSERT_FALSE(task.waitForFinished().hasError());
    EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end()));
    EXPECT_EQ(percents.last(), 100);
    Vonk vonk(packed().toString());
    ASSERT_FALSE(vonk.open().hasError());
    EXPECT_FALSE(vonk.validate(Vonk::Check::Full).hasError());
    EXPECT_EQ(vonk.metadata().sourceKind, QStringLiteral("mgf"));
    ASSERT_TRUE(vonk.metadata().runSummary) << vonk.metadata().runSummaryAbsent.toStdString();
    EXPECT_EQ(vonk.metadata().runSummary->value(QStringLiteral("spectra")).toInt(), 40'000);
    EXPECT_EQ(made(), QStringList{QStringLiteral("run1.mgf.vonk")});
}

TEST_F(PackedTasks, WhatIsNoRawDataIsRefused) {
    QFile file(path(QStringLiteral("a.txt")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("no data");
    file.close();
    AsyncVonkTask task(PackInput::fromMs(file.fileName()), packed());
    task.exec();
    const Error error = task.waitForFinished();
    EXPECT_TRUE(error.is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(error.errorMessage().contains(file.fileName()));
    EXPECT_EQ(made(), QStringList());
}

TEST_F(PackedTasks, PackingThatIsCancelledLeavesNothing) {
    for (const int at : {0, 1, 50, 100}) {
        AsyncVonkTask task(PackInput::fromMs(path(QStringLiteral("run1.mgf"))), packed());
        QObject::connect(&task, &BaseTask::progress, &task, [&task, at](int value) {
            if (value >= at)
                task.cancel();
        });
        task.exec();
        EXPECT_TRUE(task.waitForFinished().isCanceled()) << at;
        EXPECT_EQ(made(), QStringList()) << at;
    }
}

//! Somebody is in line for the room that a packing has; how that ends when its body has.
class PackedTasksInLine : public PackedTasks, public ::testing::WithParamInterface<bool> {};
INSTANTIATE_TEST_SUITE_P(Destroyed, PackedTasksInLine, ::testing::Bool(),
                         [](const auto& one) { return one.param ? "Yes" : "No"; });

//! What somebody in line was told, on whatever thread, and what was in the directory then.
struct RoomAnswer {
    std::mutex mutex;
    std::condition_variable given;
    std::optional<Error> error;
    QStringList left;

    bool isGiven() {
        const std::lock_guard lock(mutex);
        return error.has_value();
    }
    void give(const Error& outcome, const QStringList& made) {
        const std::lock_guard lock(mutex);
        error = outcome;
        left = made;
        given.notify_all();
    }
    void await() {
        std::unique_lock lock(mutex);
        given.wait(lock, [this] { return error.has_value(); });
    }
};

TEST_P(PackedTasksInLine, WhatIsCancelledOrDestroyedAfterItsBodyLeavesItsRoomAndNoFile) {
    constexpr qint64 allButLittle = (qint64(1) << 30) - 100;
    const orx::testing::SmallDisk disk(path(QStringLiteral("out")).toStdString(), qint64(1) << 30);
    const auto answer = std::make_shared<RoomAnswer>();
    const auto next = std::make_shared<vonk::RoomWish>();
    next->directory = path(QStringLiteral("out"));
    next->bytes = allButLittle;
    next->given = [this, answer](const Result<std::shared_ptr<vonk::DiskRoom>>& room) {
        answer->give(room.error(), made());
    };
    const auto packAndStop = [&] {
        auto task =
            std::make_unique<AsyncVonkTask>(PackInput::fromMs(path(QStringLiteral("run1.mgf"))), packed());
        task->setTargetTemporary(true);
        QObject::connect(task.get(), &BaseTask::progress, [&](int value) {
            if (value < 100)
                return;
            EXPECT_EQ(made(), QStringList{QStringLiteral("run1.mgf.vonk")});
            vonk::DiskRoom::ask(next);
            EXPECT_FALSE(answer->isGiven()) << "it is in line";
            if (GetParam())
                task.reset();
            else
                task->cancel();
        });
        task->exec();
        OwnerInbox::ofThisThread()->waitUntil([&] { return !task || task->isIdle(); }, std::nullopt);
        EXPECT_EQ(!task, GetParam());
        EXPECT_TRUE(!task || task->isCanceled());
        answer->await();
        EXPECT_FALSE(answer->error->hasError()) << answer->error->errorMessage().toStdString();
        EXPECT_EQ(answer->left, QStringList());
    };
    std::thread(packAndStop).join();
}

TEST_F(PackedTasks, UnpackingGoesOnWhenThePackedFileIsRemoved) {
    pack();
    Ending ending;
    {
        const BackgroundWork::Scope scope(ending.begin());
        ASSERT_FALSE(HalvaneUtils::unpackAsync(packed().toString(), Path(path(QStringLiteral("out/entry"))))
                         .hasError());
    }
    ASSERT_TRUE(QFile::remove(packed().toString()));
    const Error error = ending.wait();
    ASSERT_FALSE(error.hasError()) << error.traceText().toStdString();
    EXPECT_EQ(made(), QStringList{QStringLiteral("entry")});
    QFile unpacked(path(QStringLiteral("out/entry/content/run1.mgf")));
    ASSERT_TRUE(unpacked.open(QIODevice::ReadOnly));
    EXPECT_EQ(unpacked.readAll(), m_content);
}

//! At work until it may go on.
class HeldWork final : public BackgroundWork {
public:
    HeldWork(std::latch& mayGoOn, std::latch& ended) : m_mayGoOn(mayGoOn), m_ended(ended) {}
    void finished(const Error& error) override {
        EXPECT_FALSE(error.hasError()) << error.errorMessage().toStdString();
        m_ended.count_down();
    }
    bool isCanceled() const override {
        m_mayGoOn.wait();
        return false;
    }

private:
    std::latch& m_mayGoOn;
    std::latch& m_ended;
};

TEST_F(PackedTasks, ManyThatAreUnpackedLeaveMostWorkersToOthersAndAllEnd) {
    pack();
    const int workers = WorkerPool::instance().threadCount();
    std::latch mayGoOn(1);
    std::latch ended(2 * workers);
    for (int i = 0; i < 2 * workers; ++i) {
        const BackgroundWork::Scope scope(
            [&]() -> std::shared_ptr<BackgroundWork> { return std::make_shared<HeldWork>(mayGoOn, ended); });
        ASSERT_FALSE(
            HalvaneUtils::unpackAsync(packed().toString(), Path(path(QStringLiteral("out/entry%1").arg(i))))
                .hasError());
    }
    {
        // Made when so many are at work.
        const orx::probes::FullPool others(workers - workers / 4);
    }
    mayGoOn.count_down();
    ended.wait();
    EXPECT_EQ(made().size(), 2 * workers + 1);
}

TEST_F(PackedTasks, WhatCannotBeUnpackedIsAnErrorAtOnce) {
    const Path target(path(QStringLiteral("out/entry")));
    const BackgroundWork::Scope scope([]() -> std::shared_ptr<BackgroundWork> {
        ADD_FAILURE() << "nothing goes on";
        return nullptr;
    });
    EXPECT_TRUE(HalvaneUtils::unpackAsync(path(QStringLiteral("nothing")), target).is(ErrorCode::NotFound));
    EXPECT_TRUE(
        HalvaneUtils::unpackAsync(path(QStringLiteral("run1.mgf")), target).is(ErrorCode::ParseError));
    pack();
    ASSERT_TRUE(QFile::resize(packed().toString(), 1000));
    EXPECT_TRUE(HalvaneUtils::unpackAsync(packed().toString(), target).is(ErrorCode::ChecksumMismatch));
}

TEST_F(PackedTasks, UnpackingThatFailsTellsAndLeavesNothing) {
    pack();
    QFile file(packed().toString());
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    ASSERT_TRUE(file.seek(60));
    ASSERT_EQ(file.write("damage"), 6);
    file.close();
    Ending ending;
    {
        const BackgroundWork::Scope scope(ending.begin());
        ASSERT_FALSE(HalvaneUtils::unpackAsync(packed().toString(), Path(path(QStringLiteral("out/entry"))))
                         .hasError());
    }
    EXPECT_TRUE(ending.wait().is(ErrorCode::ChecksumMismatch));
    EXPECT_EQ(made(), QStringList{QStringLiteral("run1.mgf.vonk")});
}

TEST_F(PackedTasks, UnpackingThatNobodyWantsAnyMoreLeavesNothing) {
    pack();
    Ending ending;
    {
        const BackgroundWork::Scope scope(ending.begin(true));
        ASSERT_FALSE(HalvaneUtils::unpackAsync(packed().toString(), Path(path(QStringLiteral("out/entry"))))
                         .hasError());
    }
    EXPECT_TRUE(ending.wait().isCanceled());
    EXPECT_EQ(made(), QStringList{QStringLiteral("run1.mgf.vonk")});
}

} // namespace
