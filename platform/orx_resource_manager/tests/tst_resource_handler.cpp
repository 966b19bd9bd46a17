// What every handler does with the tasks of its class: running them to their end, the retrieve mode, asking.
#include "ResourceProbes.h"

#include <CustomComplexTask.h>

#include <QCoreApplication>
#include <QPointer>
#include <QThread>

#include <atomic>

using namespace orx;
using namespace orx::probes;

namespace {

using Mode = ResourceHandler::RetrieveMode;
using Processing = ResourceHandler::AsyncProcessingType;

class Answer : public ResourcePromptingInterface {
public:
    explicit Answer(bool allowed) : m_allowed(allowed) {}
    bool mayFetch(const ResourceReference& reference) override {
        asked.append(reference.displayText());
        return m_allowed;
    }
    QStringList asked;

private:
    bool m_allowed;
};

//! Ends within exec(); what it started on goes on until it is told to end.
class Lingering : public CustomComplexTask {
public:
    explicit Lingering(std::function<bool()> ends) : m_ends(std::move(ends)) {}
    ~Lingering() override { stopBody(); }

protected:
    WaitMode waitMode() const override { return WaitMode::FinishAtOnce; }
    Error initialize() override {
        setVariantResult(true);
        appendSubtask(std::make_unique<BodyTask>(
            [ends = m_ends](BodyTask*) {
                while (!ends())
                    QThread::yieldCurrentThread();
                return Error();
            },
            ExecutionMode::Worker));
        execSubtasks();
        return Error();
    }

private:
    std::function<bool()> m_ends;
};

class ResourceHandlerTest : public ::testing::Test {
protected:
    ResourceHandlerTest() {
        handler.makeRetrieveTask = [this] {
            ++made;
            return std::make_unique<BodyTask>([this](BodyTask*) {
                ++fetched;
                return fetchError;
            });
        };
    }
    SampleHandler handler;
    Error fetchError;
    int made = 0;
    int fetched = 0;
};

} // namespace

TEST(ResourceHandlerValues, AreFixed) {
    EXPECT_EQ(int(Mode::Refresh), 0);
    EXPECT_EQ(int(Mode::CacheFirst), 1);
    EXPECT_EQ(int(Mode::CacheOnly), 2);
    EXPECT_EQ(int(Processing::StartedHere), 0);
    EXPECT_EQ(int(Processing::RunByCaller), 1);
    EXPECT_EQ(int(ResourceCleanupPolicy::Automatic), 0);
    EXPECT_EQ(int(ResourceCleanupPolicy::Keep), 1);
    EXPECT_EQ(int(ResourceCleanupPolicy::Discard), 2);
}

TEST_F(ResourceHandlerTest, HoldsWhatItWasMadeWith) {
    const ResourceReferenceSPtr reference = sampleReference();
    EXPECT_EQ(SampleHandler(reference).reference(), reference);
    EXPECT_EQ(handler.cache(), nullptr);
    EXPECT_EQ(handler.retrieveMode(), Mode::CacheFirst);
    EXPECT_EQ(handler.expectedPath()->toString(), QStringLiteral("/cache/12"));
}

TEST_F(ResourceHandlerTest, HasNoSiblingsUnlessItsClassLists) {
    expectError(handler.siblings(), ErrorCode::InvalidArgument,
                QStringLiteral("\"run1.mzML (file:12@3)\" has no siblings that could be listed."));
    expectError(SampleHandler(nullptr).siblings(), ErrorCode::InvalidArgument,
                QStringLiteral("\"\" has no siblings that could be listed."));
}

TEST_F(ResourceHandlerTest, MetadataIsTheResultOfTheMetadataTask) {
    const QSharedPointer<ResourceMetadata> metadata(new SampleMetadata(QStringLiteral("run1.mzML")));
    handler.makeMetadataTask = [&] { return taskWith(ResourceMetadata::toVariant(metadata)); };
    const auto result = handler.retrieveMetadata();
    ASSERT_TRUE(result) << qPrintable(result.errorMessage());
    EXPECT_EQ(*result, metadata);
    const auto task = handler.retrieveMetadataAsync();
    EXPECT_FALSE(task->isRunning() || task->isFinished());
}

TEST_F(ResourceHandlerTest, MetadataThatDidNotComeIsAnErrorThatNamesTheResource) {
    const QSharedPointer<SampleMetadata> derived(new SampleMetadata(QStringLiteral("run1.mzML")));
    const QVariant useless[] = {QVariant(), QVariant(QStringLiteral("metadata")),
                                QVariant::fromValue(derived), ResourceMetadata::toVariant(nullptr)};
    for (const QVariant& result : useless) {
        handler.makeMetadataTask = [&] { return taskWith(result); };
        expectError(
            handler.retrieveMetadata(), ErrorCode::General,
            QStringLiteral("The metadata of \"run1.mzML (file:12@3)\" was asked for, but none came."));
    }
}

TEST_F(ResourceHandlerTest, ExistenceIsTheResultOfTheExistsTask) {
    for (const bool exists : {true, false}) {
        handler.makeExistsTask = [exists] { return taskWith(exists); };
        const auto result = handler.exists();
        ASSERT_TRUE(result) << qPrintable(result.errorMessage());
        EXPECT_EQ(*result, exists);
    }
    const auto task = handler.existsAsync();
    EXPECT_FALSE(task->isRunning() || task->isFinished());
}

TEST_F(ResourceHandlerTest, AnAnswerAboutExistenceThatIsNoneIsAnError) {
    for (const QVariant& result : {QVariant(), QVariant(1), QVariant(QStringLiteral("true"))}) {
        handler.makeExistsTask = [&] { return taskWith(result); };
        expectError(
            handler.exists(), ErrorCode::General,
            QStringLiteral("Whether \"run1.mzML (file:12@3)\" exists was asked, but no answer came."));
    }
}

TEST_F(ResourceHandlerTest, TheErrorOfATaskIsPassedOnStampedWhateverItsResult) {
    const Error failure(ErrorDomain::Server, 4, QStringLiteral("gone"));
    const QSharedPointer<ResourceMetadata> metadata(new SampleMetadata(QStringLiteral("run1.mzML")));
    handler.makeExistsTask = [&] { return taskWith(true, failure); };
    handler.makeMetadataTask = [&] { return taskWith(ResourceMetadata::toVariant(metadata), failure); };
    fetchError = failure;
    const Error errors[] = {handler.exists().error(), handler.retrieveMetadata().error(),
                            handler.retrieve().error()};
    for (const Error& error : errors) {
        EXPECT_TRUE(error.is(ErrorDomain::Server, 4));
        EXPECT_EQ(error.errorMessage(), QStringLiteral("gone"));
        EXPECT_FALSE(error.trace().isEmpty());
    }
}

TEST_F(ResourceHandlerTest, AMissingTaskIsAnError) {
    handler.makeExistsTask = [] { return nullptr; };
    handler.makeMetadataTask = [] { return nullptr; };
    handler.makeRetrieveTask = [] { return nullptr; };
    const QString text = QStringLiteral("There is no task that could be run.");
    expectError(handler.exists(), ErrorCode::General, text);
    expectError(handler.retrieveMetadata(), ErrorCode::General, text);
    expectError(handler.retrieve(), ErrorCode::General,
                QStringLiteral("No task was made to retrieve \"run1.mzML (file:12@3)\"."));
}

TEST_F(ResourceHandlerTest, WaitsForWorkOnAWorkerWithoutARunningEventLoop) {
    handler.makeExistsTask = [] {
        auto task =
            std::make_unique<BodyTask>([](BodyTask*) { return Error(); }, Task::ExecutionMode::Worker);
        task->setVariantResult(true);
        return task;
    };
    EXPECT_TRUE(*handler.exists());
}

TEST_F(ResourceHandlerTest, ATaskThatStillWorksWhenItHasFinishedIsKeptUntilItIsIdle) {
    std::atomic<bool> ends = false;
    QPointer<Task> lingering;
    handler.makeExistsTask = [&] {
        auto task = std::make_unique<Lingering>([&ends] { return ends.load(); });
        lingering = task.get();
        return task;
    };
    EXPECT_TRUE(*handler.exists());
    EXPECT_TRUE(lingering);
    ends = true;
    while (lingering) {
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
}

TEST_F(ResourceHandlerTest, RetrievingRunsTheTaskAndGivesThePath) {
    const auto path = handler.retrieve();
    ASSERT_TRUE(path) << qPrintable(path.errorMessage());
    EXPECT_EQ(path->toString(), QStringLiteral("/cache/12"));
    EXPECT_EQ(fetched, 1);
}

TEST_F(ResourceHandlerTest, WhatNeedsNoFetchingIsThereAtOnce) {
    handler.makeRetrieveTask = nullptr;
    EXPECT_EQ(handler.retrieve()->toString(), QStringLiteral("/cache/12"));
    const auto task = handler.retrieveAsync(Processing::StartedHere, nullptr);
    ASSERT_TRUE(task);
    EXPECT_EQ(*task, nullptr);
}

TEST_F(ResourceHandlerTest, TheCallerRunsTheTaskUnlessItIsToBeStartedHere) {
    const auto later = handler.retrieveAsync(Processing::RunByCaller, nullptr);
    ASSERT_TRUE(later);
    EXPECT_EQ((*later)->state(), BaseTask::State::Created);
    EXPECT_EQ(fetched, 0);
    const auto started = handler.retrieveAsync(Processing::StartedHere, nullptr);
    ASSERT_TRUE(started);
    EXPECT_EQ((*started)->state(), BaseTask::State::Finished);
    EXPECT_EQ(fetched, 1);
}

TEST_F(ResourceHandlerTest, WithoutAPlaceNothingIsFetched) {
    handler.path = Error(ErrorCode::InvalidArgument, QStringLiteral("no such place"));
    for (const Mode mode : {Mode::Refresh, Mode::CacheFirst, Mode::CacheOnly}) {
        handler.overrideRetrieveMode(mode);
        expectError(handler.retrieve(), ErrorCode::InvalidArgument, QStringLiteral("no such place"));
    }
    EXPECT_EQ(made, 0);
}

TEST_F(ResourceHandlerTest, FromTheCacheOnlyMeansThatNothingIsFetched) {
    handler.overrideRetrieveMode(Mode::CacheOnly);
    EXPECT_EQ(handler.retrieveMode(), Mode::CacheOnly);
    Answer answer(true);
    expectError(handler.retrieve(&answer), ErrorCode::NotFound,
                QStringLiteral("\"run1.mzML (file:12@3)\" is not in the cache, and nothing else was to be "
                               "asked for it."));
    EXPECT_EQ(made, 0);
    EXPECT_TRUE(answer.asked.isEmpty());
    handler.local = true;
    handler.makeRetrieveTask = nullptr;
    EXPECT_TRUE(handler.retrieve());
}

TEST_F(ResourceHandlerTest, SomebodyIsAskedOnlyWhenSomethingIsToBeFetched) {
    Answer answer(true);
    EXPECT_TRUE(handler.retrieve(&answer));
    EXPECT_EQ(answer.asked, QStringList(QStringLiteral("run1.mzML (file:12@3)")));
    handler.makeRetrieveTask = nullptr;
    EXPECT_TRUE(handler.retrieve(&answer));
    EXPECT_EQ(answer.asked.size(), 1);
}

TEST_F(ResourceHandlerTest, ARefusalIsACancellationAndNothingRuns) {
    Answer answer(false);
    const QString text = QStringLiteral("\"run1.mzML (file:12@3)\" was not fetched: it was not allowed.");
    expectError(handler.retrieve(&answer), ErrorCode::Canceled, text);
    expectError(handler.retrieveAsync(Processing::StartedHere, &answer), ErrorCode::Canceled, text);
    EXPECT_EQ(answer.asked.size(), 2);
    EXPECT_EQ(fetched, 0);
}
