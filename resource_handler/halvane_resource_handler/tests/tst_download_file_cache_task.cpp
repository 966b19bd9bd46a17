#include "FakeResources.h"

#include <tasks/HalvaneDownloadFileCacheTask.h>

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QMetaMethod>
#include <QPointer>

using namespace orx;
using namespace orx::testing;

namespace {

using Policy = FileUtils::CopyFilesOptions::DuplicateFilesPolicy;

class DownloadFileCacheTask : public FakeResourcesTest {
protected:
    std::unique_ptr<HalvaneDownloadFileCacheTask> taskFor(const QString& name,
                                                          const QString& customName = QString()) {
        return std::make_unique<HalvaneDownloadFileCacheTask>(fileReference(12, 3, name),
                                                              DirPath(targetDir()), customName, nullptr);
    }

    //! Answers every question with the names given, and remembers what was asked.
    void answer(HalvaneDownloadFileCacheTask& task, const QStringList& names) {
        QObject::connect(&task, &HalvaneDownloadFileCacheTask::duplicateFileNameDetectedOnCopy, &task,
                         [this, names](const QStringList& duplicates, QStringList* fixedDuplicates,
                                       const QDir& dir, const HalvaneFileResourceReferenceSPtr& reference) {
                             asked.append(duplicates);
                             askedDir = dir.absolutePath();
                             askedReference = reference;
                             EXPECT_EQ(*fixedDuplicates, duplicates);
                             *fixedDuplicates = names;
                         });
    }

    QList<QStringList> asked;
    QString askedDir;
    HalvaneFileResourceReferenceSPtr askedReference;
};

const QString kRun = QStringLiteral("run1.mzML");
const QString kPacked = QStringLiteral("run1.raw.vonk");

} // namespace

TEST_F(DownloadFileCacheTask, HasAMetaObjectWithOneSignalAndNoSlots) {
    const QMetaObject& own = HalvaneDownloadFileCacheTask::staticMetaObject;
    EXPECT_STREQ(own.className(), "orx::HalvaneDownloadFileCacheTask");
    EXPECT_EQ(own.superClass(), &CustomComplexTask::staticMetaObject);
    ASSERT_EQ(own.methodCount(), own.methodOffset() + 1);
    const QMetaMethod question = own.method(own.methodOffset());
    EXPECT_EQ(question.methodType(), QMetaMethod::Signal);
    EXPECT_EQ(question.methodSignature(),
              QByteArray("duplicateFileNameDetectedOnCopy(QStringList,QStringList*,QDir,"
                         "HalvaneFileResourceReferenceSPtr)"));
    EXPECT_EQ(question.parameterNames(),
              (QByteArrayList{"duplicates", "fixedDuplicates", "targetDir", "fileReference"}));
}

TEST_F(DownloadFileCacheTask, FetchesIntoTheCacheAndCopies) {
    resources.fetched = {{kRun, "content"}};
    auto task = taskFor(kRun);
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(resources.fetches, 1);
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("run1.mzML=content")});
    EXPECT_EQ(task->localFilePath(), targetPath(kRun));
}

TEST_F(DownloadFileCacheTask, TheHandlerIsAskedForTheCacheFirst) {
    resources.cache({{kRun, "content"}});
    auto task = taskFor(kRun);
    ASSERT_TRUE(resources.lastHandler);
    EXPECT_EQ(resources.lastHandler->retrieveMode(), ResourceHandler::RetrieveMode::CacheFirst);
}

TEST_F(DownloadFileCacheTask, TheCallerRunsTheRetrieval) {
    resources.fetched = {{kRun, "content"}};
    auto task = taskFor(kRun);
    EXPECT_EQ(resources.started, 0);
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(resources.started, 1);
}

TEST_F(DownloadFileCacheTask, AFileThatIsInTheCacheEndsFromWithinTheStart) {
    resources.cache({{kRun, "content"}});
    auto task = taskFor(kRun);
    QStringList signals;
    QObject::connect(task.get(), &BaseTask::started, [&] { signals << QStringLiteral("started"); });
    QObject::connect(task.get(), &BaseTask::finished, [&] { signals << QStringLiteral("finished"); });
    task->exec();
    EXPECT_TRUE(task->isFinished());
    EXPECT_TRUE(task->isSuccessful());
    EXPECT_EQ(resources.fetches, 0);
    EXPECT_EQ(signals, (QStringList{QStringLiteral("started"), QStringLiteral("finished")}));
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("run1.mzML=content")});
}

TEST_F(DownloadFileCacheTask, ProgressIsThatOfTheRetrieval) {
    resources.fetched = {{kRun, "content"}};
    auto task = taskFor(kRun);
    QStringList signals;
    QObject::connect(task.get(), &BaseTask::progressInitiated,
                     [&](int maximum) { signals << QStringLiteral("0/%1").arg(maximum); });
    QObject::connect(task.get(), &BaseTask::progress, [&](int value, int maximum) {
        signals << QStringLiteral("%1/%2").arg(value).arg(maximum);
    });
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(signals, (QStringList{QStringLiteral("0/7"), QStringLiteral("3/7"), QStringLiteral("7/7")}));
}

TEST_F(DownloadFileCacheTask, AMissingHandlerIsToldWhenTheTaskStarts) {
    resources.handlerError = Error(ErrorCode::NotFound, QStringLiteral("no handler"));
    auto task = taskFor(kRun);
    EXPECT_FALSE(task->hasError());
    const Error error = run(*task);
    EXPECT_TRUE(error.is(ErrorCode::NotFound));
    EXPECT_EQ(error.errorMessage(), QStringLiteral("no handler"));
    EXPECT_TRUE(tracedIn(error, QStringLiteral("init()")));
    EXPECT_TRUE(tracedIn(error, QStringLiteral("HalvaneDownloadFileCacheTask::initialize")));
    EXPECT_TRUE(task->localFilePath().isEmpty());
}

TEST_F(DownloadFileCacheTask, AnUnknownPlaceInTheCacheIsToldWhenTheTaskStarts) {
    resources.pathError = Error(ErrorCode::InvalidArgument, QStringLiteral("no such name"));
    auto task = taskFor(kRun);
    const Error error = run(*task);
    EXPECT_TRUE(error.is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(tracedIn(error, QStringLiteral("init()")));
    EXPECT_EQ(resources.fetches, 0);
}

TEST_F(DownloadFileCacheTask, AMissingReferenceIsToldWhenTheTaskStarts) {
    HalvaneDownloadFileCacheTask task(nullptr, DirPath(targetDir()), QString(), nullptr);
    EXPECT_FALSE(task.hasError());
    EXPECT_TRUE(run(task).hasError());
    EXPECT_TRUE(task.localFilePath().isEmpty());
    EXPECT_EQ(resources.fetches, 0);
}

TEST_F(DownloadFileCacheTask, ARetrievalThatCannotBeMadeFailsTheStart) {
    resources.retrieveError = Error(ErrorCode::Busy, QStringLiteral("not today"));
    auto task = taskFor(kRun);
    const Error error = run(*task);
    EXPECT_TRUE(error.is(ErrorCode::Busy));
    EXPECT_TRUE(tracedIn(error, QStringLiteral("HalvaneDownloadFileCacheTask::initialize")));
    EXPECT_EQ(targetTree(), QStringList());
}

TEST_F(DownloadFileCacheTask, AFailedRetrievalCopiesNothing) {
    resources.cache({{kRun, "half"}}, FakeResources::Valid::No);
    resources.fetchError = Error(ErrorCode::ChecksumMismatch, QStringLiteral("damaged"));
    auto task = taskFor(kRun);
    const Error error = run(*task);
    EXPECT_TRUE(error.is(ErrorCode::ChecksumMismatch));
    EXPECT_EQ(error.errorMessage(), QStringLiteral("damaged"));
    EXPECT_FALSE(tracedIn(error, QStringLiteral("HalvaneDownloadFileCacheTask::doFinish")));
    EXPECT_EQ(targetTree(), QStringList());
}

TEST_F(DownloadFileCacheTask, ACancelledRetrievalCopiesNothing) {
    resources.cache({{kRun, "half"}}, FakeResources::Valid::No);
    resources.holdFetch = true;
    auto task = taskFor(kRun);
    task->exec();
    task->cancel();
    EXPECT_TRUE(task->waitForFinished().isCanceled());
    EXPECT_EQ(targetTree(), QStringList());
}

TEST_F(DownloadFileCacheTask, DestroyedWhileItFetchesItLeavesNothing) {
    resources.holdFetch = true;
    resources.fetched = {{kRun, "content"}};
    auto task = taskFor(kRun);
    task->exec();
    ASSERT_TRUE(resources.held);
    task.reset();
    ASSERT_TRUE(waitUntil([this] { return !resources.held; })) << "the retrieval goes with the task";
    EXPECT_FALSE(resources.isValid);
    EXPECT_EQ(targetTree(), QStringList());
}

TEST_F(DownloadFileCacheTask, ARetrievalThatTakesItsTimeIsWaitedFor) {
    resources.holdFetch = true;
    resources.fetched = {{kRun, "content"}};
    auto task = taskFor(kRun);
    task->exec();
    EXPECT_EQ(targetTree(), QStringList());
    ASSERT_TRUE(resources.releaseFetch());
    EXPECT_FALSE(task->waitForFinished().hasError());
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("run1.mzML=content")});
}

struct PathCase {
    const char* label;
    QString name;
    QString customName;
    QString expected;
};

class LocalPath : public DownloadFileCacheTask, public ::testing::WithParamInterface<PathCase> {};

TEST_P(LocalPath, FollowsFromTheNameAndTheKind) {
    EXPECT_EQ(taskFor(GetParam().name, GetParam().customName)->localFilePath(),
              targetPath(GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(
    Names, LocalPath,
    ::testing::Values(
        PathCase{"File", kRun, QString(), kRun},
        PathCase{"FileWithAnotherName", kRun, QStringLiteral("other.mzML"), QStringLiteral("other.mzML")},
        PathCase{"PackedLosesItsExtension", kPacked, QString(), QStringLiteral("run1.raw")},
        PathCase{"PackedIgnoresTheOtherName", kPacked, QStringLiteral("other"), QStringLiteral("run1.raw")},
        PathCase{"ExtensionInCapitals", QStringLiteral("run1.VONK"), QString(), QStringLiteral("run1")}),
    [](const auto& testCase) { return testCase.param.label; });

TEST_F(DownloadFileCacheTask, TheLocalPathGoesByThePlaceInTheCache) {
    EXPECT_EQ(taskFor(QStringLiteral("sub/") + kRun)->localFilePath(), targetPath(kRun));
    EXPECT_EQ(taskFor(QStringLiteral("sub/") + kPacked)->localFilePath(),
              targetPath(QStringLiteral("run1.raw")));
}

TEST_F(DownloadFileCacheTask, AnotherNameIsUsedForTheCopy) {
    resources.cache({{kRun, "content"}});
    auto task = taskFor(kRun, QStringLiteral("other.mzML"));
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("other.mzML=content")});
}

TEST_F(DownloadFileCacheTask, APackedAcquisitionIsCopiedByItsContent) {
    resources.cache({{kPacked + QStringLiteral("/content/run1.raw/a"), "A"},
                     {kPacked + QStringLiteral("/content/run1.raw/b/c"), "C"},
                     {kPacked + QStringLiteral("/trace"), "t"}});
    auto task = taskFor(kPacked);
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(targetTree(), (QStringList{QStringLiteral("run1.raw/"), QStringLiteral("run1.raw/a=A"),
                                         QStringLiteral("run1.raw/b/"), QStringLiteral("run1.raw/b/c=C")}));
    EXPECT_EQ(task->localFilePath(), targetPath(QStringLiteral("run1.raw")));
}

TEST_F(DownloadFileCacheTask, APackedAcquisitionOfOneFileTakesTheOtherNameInTheCopyOnly) {
    resources.cache({{kPacked + QStringLiteral("/content/run1.raw"), "A"}});
    auto task = taskFor(kPacked, QStringLiteral("other.raw"));
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("other.raw=A")});
    EXPECT_EQ(task->localFilePath(), targetPath(QStringLiteral("run1.raw")));
}

TEST_F(DownloadFileCacheTask, APackedFileWithoutContentIsCopiedFromWhereItLies) {
    resources.cache({{kPacked, "packed"}});
    auto task = taskFor(kPacked);
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("run1.raw.vonk=packed")});
}

TEST_F(DownloadFileCacheTask, ContentThatIsNoDirectoryFailsTheCopy) {
    resources.cache({{kPacked + QStringLiteral("/content"), "no directory"}});
    auto task = taskFor(kPacked);
    EXPECT_EQ(run(*task).errorMessage(), QStringLiteral("Copying a file to the target location failed."));
    EXPECT_EQ(targetTree(), QStringList());
}

TEST_F(DownloadFileCacheTask, ASubDirectoryNamedContentCountsOnlyForPackedAcquisitions) {
    resources.cache({{QStringLiteral("run1.d/content/a"), "A"}});
    auto task = taskFor(QStringLiteral("run1.d"));
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_TRUE(targetTree().contains(QStringLiteral("run1.d/content/a=A")));
}

TEST_F(DownloadFileCacheTask, FilenamesAreThoseOfACopyOfSeveralEntries) {
    resources.cache({{QStringLiteral("a"), "A"}, {QStringLiteral("b"), "B"}});
    auto task = taskFor(QStringLiteral("a"));
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(task->filenames(), (QList<QString>{QStringLiteral("a"), QStringLiteral("b")}));
}

TEST_F(DownloadFileCacheTask, FilenamesOfOneDirectoryAreItsName) {
    resources.cache({{QStringLiteral("run1.d/a"), "A"}});
    auto task = taskFor(QStringLiteral("run1.d"));
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(task->filenames(), QList<QString>{QStringLiteral("run1.d")});
}

TEST_F(DownloadFileCacheTask, FilenamesOfASingleFileAreEmpty) {
    resources.cache({{kRun, "content"}});
    auto task = taskFor(kRun);
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_TRUE(task->filenames().isEmpty());
}

TEST_F(DownloadFileCacheTask, AnEmptyContentDirectoryIsACopyOfNothing) {
    resources.makeDirectory(kPacked + QStringLiteral("/content"));
    auto task = taskFor(kPacked, QStringLiteral("other"));
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(targetTree(), QStringList());
    EXPECT_TRUE(task->filenames().isEmpty());
}

TEST_F(DownloadFileCacheTask, AClashIsPutToTheReceiver) {
    resources.cache({{kRun, "new"}});
    putTarget(kRun, "old");
    auto task = taskFor(kRun);
    answer(*task, {QStringLiteral("fixed.mzML")});
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(asked, QList<QStringList>{QStringList{kRun}});
    EXPECT_EQ(askedDir, targetDir());
    EXPECT_EQ(askedReference->toText(), QStringLiteral("file:12@3"));
    EXPECT_EQ(targetTree(), (QStringList{QStringLiteral("fixed.mzML=new"), QStringLiteral("run1.mzML=old")}));
}

TEST_F(DownloadFileCacheTask, ADirectoryOfTheNameIsAClash) {
    resources.cache({{kRun, "new"}});
    putTarget(kRun + QStringLiteral("/inside"), "old");
    auto task = taskFor(kRun);
    answer(*task, {QStringLiteral("fixed.mzML")});
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(asked, QList<QStringList>{QStringList{kRun}});
    EXPECT_EQ(targetTree(), (QStringList{QStringLiteral("fixed.mzML=new"), QStringLiteral("run1.mzML/"),
                                         QStringLiteral("run1.mzML/inside=old")}));
}

TEST_F(DownloadFileCacheTask, NoClashIsNotAskedAbout) {
    resources.cache({{kRun, "new"}});
    putTarget(QStringLiteral("other"), "old");
    auto task = taskFor(kRun);
    answer(*task, {});
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_TRUE(asked.isEmpty());
}

TEST_F(DownloadFileCacheTask, OnlyTakenNamesAreAskedAbout) {
    resources.cache({{QStringLiteral("a"), "A"}, {QStringLiteral("b"), "B"}, {QStringLiteral("c"), "C"}});
    putTarget(QStringLiteral("b"), "old");
    auto task = taskFor(QStringLiteral("a"));
    answer(*task, {QStringLiteral("d")});
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(asked, QList<QStringList>{QStringList{QStringLiteral("b")}});
    EXPECT_EQ(targetTree(), (QStringList{QStringLiteral("a=A"), QStringLiteral("b=old"),
                                         QStringLiteral("c=C"), QStringLiteral("d=B")}));
    EXPECT_EQ(task->filenames(),
              (QList<QString>{QStringLiteral("a"), QStringLiteral("d"), QStringLiteral("c")}));
}

TEST_F(DownloadFileCacheTask, AClashOfTheOtherNameIsPutToTheReceiver) {
    resources.cache({{kRun, "new"}});
    putTarget(QStringLiteral("other.mzML"), "old");
    auto task = taskFor(kRun, QStringLiteral("other.mzML"));
    answer(*task, {QStringLiteral("third.mzML")});
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(asked, QList<QStringList>{QStringList{QStringLiteral("other.mzML")}});
    EXPECT_EQ(targetTree(),
              (QStringList{QStringLiteral("other.mzML=old"), QStringLiteral("third.mzML=new")}));
}

TEST_F(DownloadFileCacheTask, WithAnotherNameTheOwnNameMayBeTaken) {
    resources.cache({{kRun, "new"}});
    putTarget(kRun, "old");
    auto task = taskFor(kRun, QStringLiteral("other.mzML"));
    answer(*task, {});
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_TRUE(asked.isEmpty());
    EXPECT_EQ(targetTree(), (QStringList{QStringLiteral("other.mzML=new"), QStringLiteral("run1.mzML=old")}));
}

struct ContentCase {
    const char* label;
    QString name;
    FakeResources::Content content;
    QString taken;
    QStringList copied;
};

class ContentWithAnotherName : public DownloadFileCacheTask,
                               public ::testing::WithParamInterface<ContentCase> {};

TEST_P(ContentWithAnotherName, IsCopiedAndAskedAboutByItsOwnNames) {
    resources.cache(GetParam().content);
    putTarget(QStringLiteral("other"), "in nobody's way");
    putTarget(GetParam().taken, "old");
    auto task = taskFor(GetParam().name, QStringLiteral("other"));
    answer(*task, {QStringLiteral("free")});
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(asked, QList<QStringList>{QStringList{GetParam().taken}});
    EXPECT_EQ(task->filenames(), GetParam().copied);
    EXPECT_TRUE(targetTree().contains(QStringLiteral("other=in nobody's way")));
    EXPECT_TRUE(targetTree().contains(GetParam().taken + QStringLiteral("=old")));
}

INSTANTIATE_TEST_SUITE_P(Contents, ContentWithAnotherName,
                         ::testing::Values(ContentCase{"OneDirectory",
                                                       QStringLiteral("run1.d"),
                                                       {{QStringLiteral("run1.d/a"), "A"}},
                                                       QStringLiteral("run1.d"),
                                                       {QStringLiteral("free")}},
                                           ContentCase{
                                               "SeveralEntries",
                                               QStringLiteral("a"),
                                               {{QStringLiteral("a"), "A"}, {QStringLiteral("b"), "B"}},
                                               QStringLiteral("b"),
                                               {QStringLiteral("a"), QStringLiteral("free")}}),
                         [](const auto& testCase) { return testCase.param.label; });

TEST_F(DownloadFileCacheTask, HiddenEntriesAreNotAskedAbout) {
    resources.cache(
        {{QStringLiteral("a"), "A"}, {QStringLiteral(".hidden"), "H"}, {QStringLiteral("b"), "B"}});
    putTarget(QStringLiteral(".hidden"), "old");
    auto task = taskFor(QStringLiteral("a"));
    answer(*task, {});
    // The copy looks at them and refuses to replace.
    EXPECT_TRUE(run(*task).hasError());
    EXPECT_TRUE(asked.isEmpty());
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral(".hidden=old")});
}

class OtherPolicies : public DownloadFileCacheTask, public ::testing::WithParamInterface<Policy> {};

TEST_P(OtherPolicies, NeverAsk) {
    resources.cache({{kRun, "new"}});
    putTarget(kRun, "old");
    auto task = taskFor(kRun);
    task->setDuplicateFilesPolicy(GetParam());
    answer(*task, {QStringLiteral("unused")});
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_TRUE(asked.isEmpty());
    QStringList expected{QStringLiteral("run1.mzML=old")};
    if (GetParam() == Policy::Overwrite)
        expected = {QStringLiteral("run1.mzML=new")};
    if (GetParam() == Policy::Rename)
        expected.prepend(QStringLiteral("run1 (2).mzML=new"));
    EXPECT_EQ(targetTree(), expected);
}

INSTANTIATE_TEST_SUITE_P(All, OtherPolicies,
                         ::testing::Values(Policy::Overwrite, Policy::Skip, Policy::Rename));

TEST_P(OtherPolicies, HoldForAnotherNameToo) {
    const QString other = QStringLiteral("other.mzML");
    resources.cache({{kRun, "new"}});
    putTarget(other, "old");
    auto task = taskFor(kRun, other);
    task->setDuplicateFilesPolicy(GetParam());
    answer(*task, {QStringLiteral("unused")});
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_TRUE(asked.isEmpty());
    QStringList expected{QStringLiteral("other.mzML=old")};
    if (GetParam() == Policy::Overwrite)
        expected = {QStringLiteral("other.mzML=new")};
    if (GetParam() == Policy::Rename)
        expected.prepend(QStringLiteral("other (2).mzML=new"));
    EXPECT_EQ(targetTree(), expected);
}

TEST_F(DownloadFileCacheTask, OnlyAnOlderFileGivesWayToANewerOne) {
    resources.cache({{kRun, "new"}});
    for (const auto& [days, expected] : {std::pair(1, "run1.mzML=old"), std::pair(-1, "run1.mzML=new")}) {
        putTarget(kRun, "old");
        QFile there(targetPath(kRun));
        ASSERT_TRUE(there.open(QIODevice::ReadWrite));
        ASSERT_TRUE(
            there.setFileTime(QFileInfo(resources.directory + u'/' + kRun).lastModified().addDays(days),
                              QFileDevice::FileModificationTime));
        there.close();
        auto task = taskFor(kRun);
        task->setDuplicateFilesPolicy(Policy::OverwriteOlder);
        answer(*task, {QStringLiteral("unused")});
        EXPECT_FALSE(run(*task).hasError());
        EXPECT_TRUE(asked.isEmpty());
        EXPECT_EQ(targetTree(), QStringList{QString::fromLatin1(expected)});
    }
}

TEST_F(DownloadFileCacheTask, UnchangedAnswersReachTheCopyWhichRefuses) {
    resources.cache({{kRun, "new"}});
    putTarget(kRun, "old");
    auto task = taskFor(kRun);
    answer(*task, {kRun});
    const Error error = run(*task);
    EXPECT_TRUE(error.is(ErrorCode::General));
    EXPECT_EQ(error.errorMessage(), QStringLiteral("Copying a file to the target location failed."));
    EXPECT_TRUE(tracedIn(error, QStringLiteral("HalvaneDownloadFileCacheTask::doFinish")));
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("run1.mzML=old")});
}

TEST_F(DownloadFileCacheTask, AnUnchangedOtherNameReachesTheCopyWhichRefuses) {
    const QString other = QStringLiteral("other.mzML");
    resources.cache({{kRun, "new"}});
    putTarget(other, "old");
    auto task = taskFor(kRun, other);
    answer(*task, {other});
    EXPECT_EQ(run(*task).errorMessage(), QStringLiteral("Copying a file to the target location failed."));
    EXPECT_EQ(asked, QList<QStringList>{QStringList{other}});
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("other.mzML=old")});
}

TEST_F(DownloadFileCacheTask, AnAnswerThatIsTakenTooReachesTheCopyWhichRefuses) {
    resources.cache({{kRun, "new"}});
    putTarget(kRun, "old");
    putTarget(QStringLiteral("taken"), "old, too");
    for (const QString& customName : {QString(), kRun}) {
        auto task = taskFor(kRun, customName);
        answer(*task, {QStringLiteral("taken")});
        EXPECT_TRUE(run(*task).hasError()) << qPrintable(customName);
        EXPECT_EQ(targetTree(),
                  (QStringList{QStringLiteral("run1.mzML=old"), QStringLiteral("taken=old, too")}));
    }
}

TEST_F(DownloadFileCacheTask, WithoutAReceiverNothingIsReplaced) {
    resources.cache({{kRun, "new"}});
    putTarget(kRun, "old");
    auto task = taskFor(kRun);
    EXPECT_TRUE(run(*task).hasError());
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("run1.mzML=old")});
}

TEST_F(DownloadFileCacheTask, APolicySetDuringTheQuestionDecides) {
    resources.cache({{kRun, "new"}});
    putTarget(kRun, "old");
    auto task = taskFor(kRun);
    QObject::connect(task.get(), &HalvaneDownloadFileCacheTask::duplicateFileNameDetectedOnCopy,
                     [&] { task->setDuplicateFilesPolicy(Policy::Overwrite); });
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("run1.mzML=new")});
}

TEST_F(DownloadFileCacheTask, AReceiverThatCancelsPreventsTheCopy) {
    resources.cache({{QStringLiteral("a"), "A"}, {QStringLiteral("b"), "B"}});
    putTarget(QStringLiteral("b"), "old");
    auto task = taskFor(QStringLiteral("a"));
    QObject::connect(task.get(), &HalvaneDownloadFileCacheTask::duplicateFileNameDetectedOnCopy,
                     [&] { task->cancel(); });
    EXPECT_TRUE(run(*task).isCanceled());
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("b=old")});
}

TEST_F(DownloadFileCacheTask, AnErrorOfTheReceiverIsTheTasksOwn) {
    resources.cache({{kRun, "new"}});
    putTarget(kRun, "old");
    auto task = taskFor(kRun);
    QObject::connect(task.get(), &HalvaneDownloadFileCacheTask::duplicateFileNameDetectedOnCopy,
                     [&] { task->setError(Error(ErrorCode::AlreadyExists, QStringLiteral("kept"))); });
    const Error error = run(*task);
    EXPECT_TRUE(error.is(ErrorCode::AlreadyExists));
    EXPECT_EQ(error.errorMessage(), QStringLiteral("kept"));
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("run1.mzML=old")});
}

TEST_F(DownloadFileCacheTask, AReceiverMayDestroyTheTask) {
    resources.fetched = {{kRun, "new"}};
    putTarget(kRun, "old");
    QPointer<HalvaneDownloadFileCacheTask> task = taskFor(kRun).release();
    QObject::connect(task, &HalvaneDownloadFileCacheTask::duplicateFileNameDetectedOnCopy,
                     [&] { delete task; });
    task->exec();
    EXPECT_TRUE(waitUntil([&] { return task.isNull(); }));
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("run1.mzML=old")});
}

TEST_F(DownloadFileCacheTask, AShorterAnswerLeavesTheOtherNamesAsTheyAre) {
    resources.cache({{QStringLiteral("a"), "A"}, {QStringLiteral("b"), "B"}});
    putTarget(QStringLiteral("a"), "old");
    putTarget(QStringLiteral("b"), "old");
    auto task = taskFor(QStringLiteral("a"));
    answer(*task, {QStringLiteral("c")});
    EXPECT_TRUE(run(*task).is(ErrorCode::General));
    EXPECT_EQ(targetTree(), (QStringList{QStringLiteral("a=old"), QStringLiteral("b=old")}));
}

TEST_F(DownloadFileCacheTask, TheFailureTextIsOfTheClass) {
    const ContextTranslator translator;
    resources.cache({{kRun, "new"}});
    putTarget(kRun, "old");
    auto task = taskFor(kRun);
    EXPECT_EQ(
        run(*task).errorMessage(),
        QStringLiteral("orx::HalvaneDownloadFileCacheTask|Copying a file to the target location failed."));
}
