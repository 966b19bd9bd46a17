#include "FakeResources.h"

#include <tasks/HalvaneDownloadFolderCacheTask.h>

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QMetaMethod>

using namespace orx;
using namespace orx::testing;

namespace {

using Policy = FileUtils::CopyFilesOptions::DuplicateFilesPolicy;

//! Makes file tasks as the walk of a folder does.
class OpenFolderTask final : public HalvaneDownloadFolderCacheTask {
public:
    explicit OpenFolderTask(const QString& targetDir)
        : HalvaneDownloadFolderCacheTask(*HalvaneFolderResourceReference::create(7, QStringLiteral("2026")),
                                         targetDir, false, nullptr) {}

    std::unique_ptr<HalvaneDownloadFileCacheTask>
    fileTask(const HalvaneFileResourceReferenceSPtr& reference, const QString& targetDir,
             std::optional<DuplicateDownloadPolicy> policy = std::nullopt, const QString& name = QString()) {
        Task* const task = createFileDownloadTask(reference, DirPath(targetDir), name, policy);
        auto* const fileTask = qobject_cast<HalvaneDownloadFileCacheTask*>(task);
        EXPECT_NE(fileTask, nullptr);
        return std::unique_ptr<HalvaneDownloadFileCacheTask>(fileTask);
    }
};

class DownloadFolderCacheTask : public FakeResourcesTest {
protected:
    struct Question {
        QStringList duplicates;
        DuplicateDownloadFileInfo info;
        HalvaneDownloadFileCacheTask* task;
    };

    DownloadFolderCacheTask() {
        resources.apart = true;
        QObject::connect(&folder, &HalvaneDownloadFolderCacheTask::duplicateFileNameDetectedInFolderOnCopy,
                         [this](const QStringList& duplicates, const DuplicateDownloadFileInfo& info,
                                HalvaneDownloadFileCacheTask* task, QStringList* fixedDuplicates) {
                             questions.append({duplicates, info, task});
                             if (!answer.isEmpty())
                                 *fixedDuplicates = answer;
                         });
    }

    //! Brings a resource of two entries, "a" and "b", down: a copy that tells its names.
    HalvaneFileResourceReferenceSPtr download(int id, const QStringList& names = {QStringLiteral("a"),
                                                                                  QStringLiteral("b")}) {
        const auto reference = fileReference(id, 1, names.first());
        for (const QString& name : names)
            resources.cache({{QString::number(id) + u'/' + name, QByteArray::number(id)}});
        auto task = folder.fileTask(reference, targetDir());
        lastError = run(*task);
        return reference;
    }

    OpenFolderTask folder{targetDir()};
    QList<Question> questions;
    QStringList answer;
    Error lastError;
};

} // namespace

TEST_F(DownloadFolderCacheTask, EveryFileIsATaskOfItsOwnWithTheNameGiven) {
    resources.cache({{QStringLiteral("12/run1.mzML"), "content"}});
    auto task = folder.fileTask(fileReference(12, 3, QStringLiteral("run1.mzML")), targetDir(), std::nullopt,
                                QStringLiteral("run1 (file 12).mzML"));
    EXPECT_EQ(task->localFilePath(), targetPath(QStringLiteral("run1 (file 12).mzML")));
    EXPECT_EQ(task->parent(), nullptr);
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("run1 (file 12).mzML=content")});
}

TEST_F(DownloadFolderCacheTask, HasAMetaObjectWithOneSignalAndNoSlots) {
    const QMetaObject& own = HalvaneDownloadFolderCacheTask::staticMetaObject;
    EXPECT_STREQ(own.className(), "orx::HalvaneDownloadFolderCacheTask");
    EXPECT_EQ(own.superClass(), &HalvaneDownloadFolderTaskBase::staticMetaObject);
    ASSERT_EQ(own.methodCount(), own.methodOffset() + 1);
    const QMetaMethod question = own.method(own.methodOffset());
    EXPECT_EQ(question.methodType(), QMetaMethod::Signal);
    EXPECT_EQ(question.methodSignature(),
              QByteArray("duplicateFileNameDetectedInFolderOnCopy(QStringList,DuplicateDownloadFileInfo,"
                         "HalvaneDownloadFileCacheTask*,QStringList*)"));
    EXPECT_EQ(question.parameterNames(),
              (QByteArrayList{"duplicates", "duplicateFileInfo", "task", "fixedDuplicates"}));
}

TEST_F(DownloadFolderCacheTask, HasTheDirectoryAndTheParentItIsGiven) {
    const auto reference = *HalvaneFolderResourceReference::create(7, QStringLiteral("2026"));
    QObject parent;
    EXPECT_EQ((new HalvaneDownloadFolderCacheTask(reference, targetDir(), false, &parent))->parent(),
              &parent);
    EXPECT_EQ(HalvaneDownloadFolderCacheTask(reference, targetDir(), false, nullptr).folderPath(),
              targetPath(QStringLiteral("2026")));
    EXPECT_EQ(HalvaneDownloadFolderCacheTask(reference, targetDir(), true, nullptr).folderPath(),
              targetDir());
}

struct PolicyCase {
    const char* label;
    std::optional<DuplicateDownloadPolicy> policy;
    bool fails;
    QStringList tree;
    int questions;
};

class FolderPolicy : public DownloadFolderCacheTask, public ::testing::WithParamInterface<PolicyCase> {};

TEST_P(FolderPolicy, IsThatOfEveryFile) {
    resources.cache({{QStringLiteral("12/a"), "new"}});
    putTarget(QStringLiteral("a"), "old");
    auto task = folder.fileTask(fileReference(12, 1, QStringLiteral("a")), targetDir(), GetParam().policy);
    EXPECT_EQ(run(*task).hasError(), GetParam().fails);
    EXPECT_EQ(targetTree(), GetParam().tree);
    EXPECT_EQ(questions.size(), GetParam().questions);
}

INSTANTIATE_TEST_SUITE_P(
    All, FolderPolicy,
    ::testing::Values(
        PolicyCase{"None", std::nullopt, true, {QStringLiteral("a=old")}, 1},
        PolicyCase{"Ask", DuplicateDownloadPolicy::Ask, true, {QStringLiteral("a=old")}, 1},
        PolicyCase{"Overwrite", DuplicateDownloadPolicy::Overwrite, false, {QStringLiteral("a=new")}, 0},
        PolicyCase{"Skip", DuplicateDownloadPolicy::Skip, false, {QStringLiteral("a=old")}, 0},
        PolicyCase{"Rename",
                   DuplicateDownloadPolicy::Rename,
                   false,
                   {QStringLiteral("a=old"), QStringLiteral("a (2)=new")},
                   0}),
    [](const auto& testCase) { return testCase.param.label; });

TEST_F(DownloadFolderCacheTask, OnlyAnOlderFileGivesWayToANewerOneWhenThatIsThePolicy) {
    resources.cache({{QStringLiteral("12/a"), "new"}});
    const QDateTime fetched = QFileInfo(resources.directory + QStringLiteral("/12/a")).lastModified();
    for (const auto& [days, expected] : {std::pair(1, "a=old"), std::pair(-1, "a=new")}) {
        putTarget(QStringLiteral("a"), "old");
        QFile there(targetPath(QStringLiteral("a")));
        ASSERT_TRUE(there.open(QIODevice::ReadWrite));
        ASSERT_TRUE(there.setFileTime(fetched.addDays(days), QFileDevice::FileModificationTime));
        there.close();
        auto task = folder.fileTask(fileReference(12, 1, QStringLiteral("a")), targetDir(),
                                    DuplicateDownloadPolicy::OnlyNewer);
        EXPECT_FALSE(run(*task).hasError());
        EXPECT_EQ(targetTree(), QStringList{QString::fromLatin1(expected)});
        EXPECT_TRUE(questions.isEmpty());
    }
}

TEST_F(DownloadFolderCacheTask, AClashWithWhatWasThereBeforeHasNoReference) {
    putTarget(QStringLiteral("a"), "old");
    const auto reference = download(12);
    ASSERT_EQ(questions.size(), 1);
    const DuplicateDownloadFileInfo& info = questions.first().info;
    EXPECT_EQ(questions.first().duplicates, QStringList{QStringLiteral("a")});
    ASSERT_EQ(info.clashes.keys(), QList<QString>{QStringLiteral("a")});
    EXPECT_TRUE(info.clashes.first().isNull());
    EXPECT_EQ(info.targetDir.absolutePath(), targetDir());
    EXPECT_EQ(info.earlierQuestions, 0);
    EXPECT_EQ(info.skipOption, DuplicateDownloadSkipOption::File);
    EXPECT_EQ(info.fileReference, reference);
}

TEST_F(DownloadFolderCacheTask, AClashWithinTheDownloadNamesTheEarlierFile) {
    const auto first = download(12);
    EXPECT_FALSE(lastError.hasError());
    putTarget(QStringLiteral("c"), "old");
    const auto second = download(13, {QStringLiteral("b"), QStringLiteral("c"), QStringLiteral("d")});
    ASSERT_EQ(questions.size(), 1);
    const auto clashes = questions.first().info.clashes;
    EXPECT_EQ(clashes.keys(), (QList<QString>{QStringLiteral("b"), QStringLiteral("c")}));
    EXPECT_EQ(clashes.value(QStringLiteral("b")), first);
    EXPECT_TRUE(clashes.value(QStringLiteral("c")).isNull());
    EXPECT_EQ(questions.first().info.fileReference, second);
}

TEST_F(DownloadFolderCacheTask, TheAnswerReachesTheCopy) {
    download(12);
    answer = {QStringLiteral("x"), QStringLiteral("y")};
    download(13);
    EXPECT_FALSE(lastError.hasError());
    EXPECT_EQ(targetTree(), (QStringList{QStringLiteral("a=12"), QStringLiteral("b=12"),
                                         QStringLiteral("x=13"), QStringLiteral("y=13")}));
}

TEST_F(DownloadFolderCacheTask, TheNamesGivenByAnAnswerAreRememberedToo) {
    download(12);
    answer = {QStringLiteral("x"), QStringLiteral("y")};
    const auto second = download(13);
    answer = {QStringLiteral("z")};
    download(14, {QStringLiteral("x"), QStringLiteral("w")});
    ASSERT_EQ(questions.size(), 2);
    EXPECT_EQ(questions.last().info.clashes.value(QStringLiteral("x")), second);
}

TEST_F(DownloadFolderCacheTask, ANameThatTwoFilesReportedGoesToOneOfThem) {
    const auto first = download(12);
    resources.cache({{QStringLiteral("13/a"), "13"}, {QStringLiteral("13/b"), "13"}});
    const auto second = fileReference(13, 1, QStringLiteral("a"));
    EXPECT_FALSE(run(*folder.fileTask(second, targetDir(), DuplicateDownloadPolicy::Overwrite)).hasError());
    download(14);
    ASSERT_EQ(questions.size(), 1);
    const auto whose = questions.first().info.clashes.value(QStringLiteral("a"));
    EXPECT_TRUE(whose == first || whose == second);
}

TEST_F(DownloadFolderCacheTask, WhatAFileMadeIsRememberedForAllLaterQuestions) {
    const auto first = download(12);
    answer = {QStringLiteral("x"), QStringLiteral("y")};
    download(13);
    answer = {QStringLiteral("p"), QStringLiteral("q")};
    download(14);
    ASSERT_EQ(questions.size(), 2);
    for (const Question& question : questions) {
        EXPECT_EQ(question.info.clashes.value(QStringLiteral("a")), first);
        EXPECT_EQ(question.info.clashes.value(QStringLiteral("b")), first);
    }
}

TEST_F(DownloadFolderCacheTask, TheLaterReportOfOneReferenceReplacesTheEarlier) {
    const auto reference = download(12);
    ASSERT_TRUE(QFile::remove(targetPath(QStringLiteral("a"))));
    ASSERT_TRUE(QFile::remove(targetPath(QStringLiteral("b"))));
    answer = {QStringLiteral("x"), QStringLiteral("y")};
    putTarget(QStringLiteral("a"), "old");
    putTarget(QStringLiteral("b"), "old");
    EXPECT_FALSE(run(*folder.fileTask(reference, targetDir())).hasError());
    // "a" is no longer said to be of that file, "x" is.
    answer = {QStringLiteral("p"), QStringLiteral("q")};
    download(13, {QStringLiteral("a"), QStringLiteral("x")});
    ASSERT_EQ(questions.size(), 2);
    EXPECT_TRUE(questions.last().info.clashes.value(QStringLiteral("a")).isNull());
    EXPECT_EQ(questions.last().info.clashes.value(QStringLiteral("x")), reference);
}

TEST_F(DownloadFolderCacheTask, TheSameFileUnderTwoReferenceObjectsCountsTwice) {
    const auto first = download(12);
    answer = {QStringLiteral("x"), QStringLiteral("y")};
    const auto again = download(12);
    EXPECT_FALSE(lastError.hasError());
    ASSERT_EQ(questions.size(), 1);
    EXPECT_EQ(questions.first().info.clashes.value(QStringLiteral("a")), first);
    answer = {QStringLiteral("p"), QStringLiteral("q")};
    download(14, {QStringLiteral("a"), QStringLiteral("x")});
    ASSERT_EQ(questions.size(), 2);
    EXPECT_EQ(questions.last().info.clashes.value(QStringLiteral("a")), first);
    EXPECT_EQ(questions.last().info.clashes.value(QStringLiteral("x")), again);
}

TEST_F(DownloadFolderCacheTask, ASingleFileReportsNoNames) {
    download(12, {QStringLiteral("a")});
    EXPECT_FALSE(lastError.hasError());
    download(13, {QStringLiteral("a")});
    ASSERT_EQ(questions.size(), 1);
    EXPECT_TRUE(questions.first().info.clashes.value(QStringLiteral("a")).isNull());
}

TEST_F(DownloadFolderCacheTask, AFailedFileIsNotSaidToHaveMadeAnything) {
    // The copy makes "a" and then fails over "z", which has become a directory of another kind.
    resources.cache({{QStringLiteral("12/a"), "12"}, {QStringLiteral("12/z"), "12"}});
    ASSERT_TRUE(QDir(targetDir()).mkpath(QStringLiteral("z/kept")));
    auto task = folder.fileTask(fileReference(12, 1, QStringLiteral("a")), targetDir(),
                                DuplicateDownloadPolicy::Overwrite);
    EXPECT_TRUE(run(*task).hasError());
    EXPECT_EQ(task->filenames(), QList<QString>{QStringLiteral("a")});
    download(13);
    ASSERT_EQ(questions.size(), 1);
    EXPECT_TRUE(questions.first().info.clashes.value(QStringLiteral("a")).isNull());
}

TEST_F(DownloadFolderCacheTask, ACancelledFileIsNotSaidToHaveMadeAnything) {
    resources.cache({{QStringLiteral("12/a"), "12"}, {QStringLiteral("12/b"), "12"}});
    putTarget(QStringLiteral("b"), "old");
    auto task = folder.fileTask(fileReference(12, 1, QStringLiteral("a")), targetDir());
    QObject::connect(task.get(), &HalvaneDownloadFileCacheTask::duplicateFileNameDetectedOnCopy, task.get(),
                     [&task] { task->cancel(); });
    answer = {QStringLiteral("c")};
    EXPECT_TRUE(run(*task).isCanceled());
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("b=old")});
    putTarget(QStringLiteral("a"), "of somebody");
    putTarget(QStringLiteral("c"), "of somebody");
    questions.clear();
    answer.clear();
    download(13, {QStringLiteral("a"), QStringLiteral("c")});
    ASSERT_EQ(questions.size(), 1);
    EXPECT_EQ(questions.first().info.clashes.keys(),
              (QList<QString>{QStringLiteral("a"), QStringLiteral("c")}));
    for (const auto& made : questions.first().info.clashes)
        EXPECT_TRUE(made.isNull());
}

TEST_F(DownloadFolderCacheTask, PathsAreComparedByLetterCase) {
    const auto first = download(12);
    putTarget(QStringLiteral("A"), "old");
    answer = {QStringLiteral("x"), QStringLiteral("y")};
    download(13, {QStringLiteral("A"), QStringLiteral("b")});
    ASSERT_EQ(questions.size(), 1);
    EXPECT_TRUE(questions.first().info.clashes.value(QStringLiteral("A")).isNull());
    EXPECT_EQ(questions.first().info.clashes.value(QStringLiteral("b")), first);
}

TEST_F(DownloadFolderCacheTask, FilesOfOtherDirectoriesAreNoClash) {
    download(12);
    ASSERT_TRUE(QDir(targetDir()).mkpath(QStringLiteral("sub")));
    putTarget(QStringLiteral("sub/a"), "old");
    resources.cache({{QStringLiteral("13/a"), "13"}, {QStringLiteral("13/b"), "13"}});
    answer = {QStringLiteral("x")};
    EXPECT_FALSE(
        run(*folder.fileTask(fileReference(13, 1, QStringLiteral("a")), targetPath(QStringLiteral("sub"))))
            .hasError());
    ASSERT_EQ(questions.size(), 1);
    EXPECT_TRUE(questions.first().info.clashes.value(QStringLiteral("a")).isNull());
    EXPECT_EQ(questions.first().info.targetDir.absolutePath(), targetPath(QStringLiteral("sub")));
}

TEST_F(DownloadFolderCacheTask, TheReceiverGetsTheTaskThatAsksAndMayFailIt) {
    putTarget(QStringLiteral("a"), "old");
    QObject::connect(&folder, &HalvaneDownloadFolderCacheTask::duplicateFileNameDetectedInFolderOnCopy,
                     [](const QStringList&, const DuplicateDownloadFileInfo&,
                        HalvaneDownloadFileCacheTask* task) { task->cancel(); });
    download(12);
    EXPECT_TRUE(lastError.isCanceled());
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("a=old")});
}

TEST_F(DownloadFolderCacheTask, FileTasksThatOutliveTheFolderTaskAskNobody) {
    resources.cache({{QStringLiteral("12/a"), "new"}});
    putTarget(QStringLiteral("a"), "old");
    auto shortLived = std::make_unique<OpenFolderTask>(targetDir());
    auto task = shortLived->fileTask(fileReference(12, 1, QStringLiteral("a")), targetDir());
    shortLived.reset();
    EXPECT_TRUE(run(*task).hasError());
    EXPECT_EQ(targetTree(), QStringList{QStringLiteral("a=old")});
}

//! The whole walk: the folder "raw" of a scripted server, whose files lie in the cache already.
class WalkedFolder : public FakeResourcesTest {
protected:
    WalkedFolder() {
        server.connectClient();
        resources.apart = true;
    }
    //! A file of the server, of which the cache has \a path with \a content.
    int file(const QString& name, int parent, const QString& path, const QByteArray& content) {
        const int id = server.service().addFile(name, content, parent);
        resources.cache({{QString::number(id) + u'/' + path, content}});
        return id;
    }
    std::unique_ptr<HalvaneDownloadFolderCacheTask> walk() {
        const auto reference = HalvaneFolderResourceReference::create(raw, QStringLiteral("raw"));
        return std::make_unique<HalvaneDownloadFolderCacheTask>(*reference, targetDir(), false, nullptr);
    }

    ClientEnvironment client{QUrl(QStringLiteral("http://scripted.invalid"))};
    ScriptedHalvaneServer server;
    int raw = server.service().addFolder(QStringLiteral("raw"));
};

TEST_F(WalkedFolder, FilesOfAllLevelsComeToTheirPlaces) {
    const int sub = server.service().addFolder(QStringLiteral("May"), raw);
    const QString name = QStringLiteral("run1.mzML");
    file(name, raw, name, "above");
    file(name, sub, name, "below");
    const auto task = walk();
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(targetTree(), (QStringList{QStringLiteral("raw/"), QStringLiteral("raw/May/"),
                                         QStringLiteral("raw/May/run1.mzML=below"),
                                         QStringLiteral("raw/run1.mzML=above")}));
}

TEST_F(WalkedFolder, PackedFilesOfOneNameAreNamedApartByWhatTheyHold) {
    const QString packed = QStringLiteral("run1.raw.vonk");
    const QString content = packed + QStringLiteral("/content/run1.raw");
    file(packed, raw, content, "first");
    const int twin = file(packed, raw, content, "second");
    const auto task = walk();
    EXPECT_FALSE(run(*task).hasError());
    EXPECT_EQ(targetTree(),
              (QStringList{QStringLiteral("raw/"), QStringLiteral("raw/run1 (file %1).raw=second").arg(twin),
                           QStringLiteral("raw/run1.raw=first")}));
}

TEST_F(WalkedFolder, AsksAboutTheFilesOfItsFoldersOrDoesAsItsPolicySays) {
    const QString name = QStringLiteral("run1.mzML");
    const int id = file(name, raw, name, "new");
    putTarget(QStringLiteral("raw/run1.mzML"), "old");
    const auto asking = walk();
    QStringList asked;
    QObject::connect(asking.get(), &HalvaneDownloadFolderCacheTask::duplicateFileNameDetectedInFolderOnCopy,
                     [&](const QStringList& duplicates, const DuplicateDownloadFileInfo& info,
                         HalvaneDownloadFileCacheTask*, QStringList* fixedDuplicates) {
                         for (const QString& duplicate : duplicates)
                             asked << info.targetDir.filePath(duplicate);
                         EXPECT_EQ(info.fileReference->id(), id);
                         *fixedDuplicates = {QStringLiteral("run2.mzML")};
                     });
    EXPECT_FALSE(run(*asking).hasError());
    EXPECT_EQ(asked, QStringList{targetPath(QStringLiteral("raw/run1.mzML"))});
    EXPECT_EQ(targetTree(), (QStringList{QStringLiteral("raw/"), QStringLiteral("raw/run1.mzML=old"),
                                         QStringLiteral("raw/run2.mzML=new")}));
    const auto replacing = walk();
    replacing->setDuplicatePolicy(DuplicateDownloadPolicy::Overwrite);
    EXPECT_FALSE(run(*replacing).hasError());
    EXPECT_TRUE(targetTree().contains(QStringLiteral("raw/run1.mzML=new")));
}

TEST(DuplicateDownload, NothingCanBeSkippedWithoutARunningTask) {
    EXPECT_EQ(duplicateDownloadSkipOption(nullptr), DuplicateDownloadSkipOption::Nothing);
    const Task notStarted(QStringLiteral("not started"));
    EXPECT_EQ(duplicateDownloadSkipOption(&notStarted), DuplicateDownloadSkipOption::Nothing);
}
