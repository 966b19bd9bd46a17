// Listing what lies beside a resource, on a worker.
#include "ResourceProbes.h"

#include <QCoreApplication>
#include <QThread>

#include <atomic>
#include <latch>

using namespace orx;
using namespace orx::probes;

namespace {

using Siblings = QList<QSharedPointer<ResourceReference>>;

class SampleSiblingsTask final : public GetSiblingsTask {
public:
    using Load = std::function<Result<Siblings>(const SampleSiblingsTask*)>;
    explicit SampleSiblingsTask(Load load, QObject* parent = nullptr)
        : GetSiblingsTask(parent), m_load(std::move(load)) {}
    ~SampleSiblingsTask() override { stopBody(); }
    using BaseTask::isCancelRequested;

protected:
    Result<Siblings> loadSiblings() const override { return m_load(this); }

private:
    Load m_load;
};

//! Loads until it is to stop.
struct Endless {
    std::latch begun{1};
    std::atomic<bool> returned = false;
    SampleSiblingsTask::Load load = [this](const SampleSiblingsTask* self) -> Result<Siblings> {
        begun.count_down();
        while (!self->isCancelRequested())
            QThread::yieldCurrentThread();
        returned = true;
        return Siblings{sampleReference()};
    };
};

} // namespace

TEST(GetSiblingsTaskTest, ListsWhatItLoadedOnAWorkerWithoutARunningEventLoop) {
    const ResourceReferenceSPtr reference = sampleReference();
    std::atomic<QThread*> loadedOn = nullptr;
    SampleSiblingsTask task([&](const SampleSiblingsTask*) -> Result<Siblings> {
        loadedOn = QThread::currentThread();
        return Siblings{reference, reference};
    });
    EXPECT_TRUE(task.siblings().isEmpty());
    task.exec();
    EXPECT_TRUE(task.siblings().isEmpty()); // not before it has finished
    EXPECT_FALSE(task.waitForFinished().hasError());
    EXPECT_EQ(task.siblings(), (Siblings{reference, reference}));
    EXPECT_NE(loadedOn.load(), QThread::currentThread());
}

TEST(GetSiblingsTaskTest, HasItsListWhenFinishedIsEmitted) {
    SampleSiblingsTask task(
        [](const SampleSiblingsTask*) -> Result<Siblings> { return Siblings{sampleReference()}; });
    qsizetype count = -1;
    QObject::connect(&task, &BaseTask::finished, &task, [&] { count = task.siblings().size(); });
    task.exec();
    EXPECT_FALSE(task.waitForFinished().hasError());
    EXPECT_EQ(count, 1);
}

TEST(GetSiblingsTaskTest, BelongsToItsParent) {
    QObject parent;
    const auto* const task = new SampleSiblingsTask({}, &parent);
    EXPECT_EQ(task->parent(), &parent);
    EXPECT_EQ(task->name(), QStringLiteral("GetSiblings"));
}

TEST(GetSiblingsTaskTest, AFailureIsTheErrorOfTheTaskAndLeavesNoList) {
    SampleSiblingsTask task([](const SampleSiblingsTask*) -> Result<Siblings> {
        return Error(ErrorCode::ParseError, QStringLiteral("no such list"));
    });
    task.exec();
    const Error error = task.waitForFinished();
    expectError(error, ErrorCode::ParseError, QStringLiteral("no such list"));
    EXPECT_FALSE(error.trace().isEmpty());
    EXPECT_TRUE(task.siblings().isEmpty());
}

TEST(GetSiblingsTaskTest, CancelledWhileItLoadsItEndsAsCancelledWithoutAList) {
    Endless endless;
    SampleSiblingsTask task(endless.load);
    task.exec();
    endless.begun.wait();
    task.cancel();
    EXPECT_TRUE(task.waitForFinished().isCanceled());
    EXPECT_TRUE(task.siblings().isEmpty());
}

TEST(GetSiblingsTaskTest, FinishedWhileItLoadsItHasNoListAndTakesNoneLater) {
    Endless endless;
    SampleSiblingsTask task(endless.load);
    task.exec();
    endless.begun.wait();
    task.finish(Error());
    EXPECT_FALSE(task.waitForFinished().hasError());
    EXPECT_TRUE(task.siblings().isEmpty());
    EXPECT_FALSE(task.isIdle());
    task.cancel();
    while (!task.isIdle())
        QCoreApplication::processEvents();
    EXPECT_TRUE(endless.returned);
    EXPECT_TRUE(task.siblings().isEmpty());
}

TEST(GetSiblingsTaskTest, DestroyedWhileItLoadsItLetsTheBodyReturnFirst) {
    Endless endless;
    auto task = std::make_unique<SampleSiblingsTask>(endless.load);
    bool finished = false;
    QObject::connect(task.get(), &BaseTask::finished, qApp, [&] { finished = true; });
    task->exec();
    endless.begun.wait();
    task.reset();
    EXPECT_TRUE(endless.returned);
    QCoreApplication::processEvents();
    EXPECT_FALSE(finished);
}
