// Existence, chains of folders, shared listings and whole trees: the scripted server and the real one behave
// alike.
#include "ContractFixture.h"

#include <HalvaneCheckExistenceTask.h>
#include <HalvaneDownloadFolderTask.h>
#include <HalvaneItemTasks.h>

#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>

namespace orx::testing {
namespace {

using ItemType = HalvaneResourceReference::ItemType;

class TreeContract : public ContractTest {
protected:
    static Error run(BaseTask& task) {
        task.exec();
        return task.waitForFinished();
    }
    static QVariant exists(int id, ItemType type) {
        HalvaneCheckExistenceTask task(id, type);
        EXPECT_FALSE(run(task).hasError()) << qPrintable(task.error().traceText());
        return task.variantResult();
    }
    static QStringList filesOf(int folder) {
        HalvaneGetFilesTask task(folder);
        EXPECT_FALSE(run(task).hasError()) << qPrintable(task.error().traceText());
        QStringList names;
        for (const auto& file : task.files())
            names.append(file->name());
        return names;
    }
    static QString text(const char* latin1) { return QString::fromLatin1(latin1); }
};
ORX_CONTRACT(TreeContract);

TEST_P(TreeContract, WhatIsThereExistsAndWhatIsNotDoesNot) {
    const int folder = makeFolder(text("raw"));
    const int file = makeFile(text("run.raw"), "content", folder);
    EXPECT_EQ(exists(file, ItemType::File), QVariant(true));
    EXPECT_EQ(exists(folder, ItemType::Folder), QVariant(true));
    EXPECT_EQ(exists(Root, ItemType::Folder), QVariant(true));
    for (const int id : {9999, 0, -1, std::numeric_limits<int>::max()}) {
        EXPECT_EQ(exists(id, ItemType::File), QVariant(false)) << id;
        EXPECT_EQ(exists(id, ItemType::Folder), QVariant(false)) << id;
    }
}

TEST_P(TreeContract, WhatOneMayNotReadLooksAbsentAndChainsBeginBelowIt) {
    const int outer = makeFolder(text("outer"));
    const int shared = makeFolder(text("shared"), outer);
    const int inner = makeFolder(text("inner"), shared);
    const int hidden = makeFolder(text("hidden"), outer);
    const int hiddenFile = makeFile(text("hidden.raw"), "content", outer);
    const int file = makeFile(text("run.raw"), "content", inner);
    becomeReaderOf(shared);
    for (const int folder : {outer, hidden})
        EXPECT_EQ(exists(folder, ItemType::Folder), QVariant(false)) << folder;
    EXPECT_EQ(exists(hiddenFile, ItemType::File), QVariant(false));
    EXPECT_EQ(exists(inner, ItemType::Folder), QVariant(true));
    EXPECT_EQ(exists(file, ItemType::File), QVariant(true));
    const Answer answer = get(text("/folders/%1/files").arg(outer));
    EXPECT_EQ(answer.status, 404);
    EXPECT_EQ(answer.errorCode(), int(HalvaneServerErrorCode::NotFound));
    HalvaneGetFolderTask folder(inner);
    ASSERT_FALSE(run(folder).hasError());
    EXPECT_EQ(folder.folderIdsPath(), (QList<int>{shared, inner}));
    HalvaneGetFilePathTask path(file);
    ASSERT_FALSE(run(path).hasError());
    EXPECT_EQ(path.folderIdsPath(), (QList<int>{shared, inner}));
    EXPECT_EQ(path.folderPath(), (QList<QString>{text("shared"), text("inner")}));
}

TEST_P(TreeContract, TheRootIsThereForEverybodyAndShowsOnlyWhatOneMayRead) {
    const int hidden = makeFolder(text("hidden"));
    const int shared = makeFolder(text("shared"));
    makeFile(text("hidden.raw"), "content");
    becomeReaderOf(shared);
    EXPECT_EQ(exists(Root, ItemType::Folder), QVariant(true));
    EXPECT_EQ(exists(hidden, ItemType::Folder), QVariant(false));
    EXPECT_EQ(filesOf(Root), QStringList());
    HalvaneGetFoldersTask folders(Root);
    ASSERT_FALSE(run(folders).hasError());
    ASSERT_EQ(folders.foldersTree().size(), 1);
    EXPECT_EQ(folders.foldersTree().first()->id(), shared);
    HalvaneGetFolderTask root(Root);
    ASSERT_FALSE(run(root).hasError());
    EXPECT_TRUE(root.folderItem().privileges().isEmpty());
    EXPECT_TRUE(root.folderItem().hasChildren());
    EXPECT_EQ(root.folderIdsPath(), QList<int>{Root});
}

TEST_P(TreeContract, AListingFollowsEveryChangeThatShowsInIt) {
    const int folder = makeFolder(text("raw"));
    EXPECT_TRUE(filesOf(folder).isEmpty());
    const int file = makeFile(text("a"), "1", folder);
    EXPECT_EQ(filesOf(folder), QStringList{text("a")});
    EXPECT_EQ(filesOf(folder), QStringList{text("a")});
    addVersion(file, "22");
    HalvaneGetFilesTask files(folder);
    ASSERT_FALSE(run(files).hasError());
    ASSERT_EQ(files.files().size(), 1);
    EXPECT_EQ(files.files()[0]->lastVersion(), 2);
    EXPECT_EQ(files.files()[0]->size(), 2);
    for (const bool hasChildren : {false, true}) {
        HalvaneGetFoldersTask folders(Root);
        ASSERT_FALSE(run(folders).hasError());
        ASSERT_EQ(folders.foldersTree().size(), 1);
        EXPECT_EQ(folders.foldersTree()[0]->hasChildren(), hasChildren);
        makeFolder(text("below"), folder);
    }
}

TEST_P(TreeContract, OnlyWhatIsNewOrChangedIsToldToWhoAsksForThat) {
    const int folder = makeFolder(text("raw"));
    const int file = makeFile(text("a"), "1", folder);
    makeFile(text("b"), "1", folder);
    const int below = makeFolder(text("c"), folder);
    makeFolder(text("d"), folder);
    const auto namesOf = [](const Answer& answer, const QString& key) {
        QStringList names;
        for (const QJsonValue item : answer.data()[key].toArray())
            names.append(item.toObject()[text("name")].toString());
        return names;
    };
    for (const QString& key : {text("files"), text("folders")}) {
        const QString path = text("/folders/%1/%2").arg(folder).arg(key);
        const QByteArray tag = get(path).header("ETag");
        const QList<HttpHeader> changesOnly{{"If-None-Match", tag}, {"A-IM", "changes"}};
        EXPECT_EQ(get(path, changesOnly).status, 304);
        const QString old = key == u"files" ? text("a") : text("c");
        if (key == u"files") {
            addVersion(file, "2");
            makeFile(text("new"), "1", folder);
        } else {
            makeFolder(text("in c"), below); // which has children from here on
            makeFolder(text("new"), folder);
        }
        const Answer changes = get(path, changesOnly);
        EXPECT_EQ(changes.status, 226);
        EXPECT_EQ(changes.header("IM"), "changes");
        EXPECT_EQ(changes.header("Delta-Base"), tag);
        EXPECT_EQ(namesOf(changes, key), (QStringList{old, text("new")}));
        const Answer whole = get(path, {{"If-None-Match", tag}});
        EXPECT_EQ(whole.status, 200) << "nobody gets changes unasked";
        EXPECT_EQ(whole.header("ETag"), changes.header("ETag"));
        EXPECT_EQ(namesOf(whole, key).size(), 3);
        for (const QByteArray unknown : {"\"another\"", "*x"}) {
            const Answer answer = get(path, {{"If-None-Match", unknown}, {"A-IM", "changes"}});
            EXPECT_EQ(answer.status, 200) << unknown.constData();
            EXPECT_EQ(namesOf(answer, key).size(), 3);
        }
    }
}

TEST_P(TreeContract, AListingOfAThousandFilesIsWholeAndConfirmedByItsTag) {
    const int folder = makeFolder(text("raw"));
    QStringList names;
    for (int i = 0; i < 1000; ++i) {
        names.append(text("run %1.raw").arg(i));
        makeFile(names.last(), {}, folder);
    }
    EXPECT_EQ(filesOf(folder), names);
    EXPECT_EQ(filesOf(folder), names);
    const QString path = text("/folders/%1/files").arg(folder);
    const QByteArray tag = get(path).header("ETag");
    const Answer confirmed = get(path, {{"If-None-Match", tag}});
    EXPECT_EQ(confirmed.status, 304);
    EXPECT_EQ(confirmed.header("ETag"), tag);
    EXPECT_TRUE(confirmed.body.isEmpty());
    EXPECT_EQ(get(path, {{"If-None-Match", "\"another\", " + tag}}).status, 304);
    EXPECT_EQ(get(path, {{"If-None-Match", "\"another\""}}).status, 200);
}

TEST_P(TreeContract, AWholeTreeComesDown) {
    const int raw = makeFolder(text("raw"));
    const int first = makeFolder(text("same"), raw);
    const int second = makeFolder(text("same"), raw);
    makeFolder(text("empty"), second);
    const int a = makeFile(text("a"), "old", first);
    addVersion(a, "the newest content");
    const int plain = makeFile(text("same"), "a file", raw);
    makeFile(text("none"), {}, raw);
    const int twin = makeFile(text("none"), "not empty", raw);
    const QTemporaryDir target;
    HalvaneDownloadFolderTask task(*HalvaneFolderResourceReference::create(raw, text("raw")), target.path(),
                                   false);
    ASSERT_FALSE(run(task).hasError()) << qPrintable(task.error().traceText());
    QStringList found;
    QDirIterator it(target.path(), QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QFile file(it.next());
        QString entry = QDir(target.path()).relativeFilePath(file.fileName());
        if (it.fileInfo().isFile() && file.open(QIODevice::ReadOnly))
            entry += u'=' + QString::fromUtf8(file.readAll());
        found.append(entry);
    }
    found.sort();
    const QString twinFolder = text("raw/same (folder %1)").arg(second);
    QStringList expected{text("raw"),
                         text("raw/none="),
                         text("raw/none (file %1)=not empty").arg(twin),
                         text("raw/same"),
                         text("raw/same/a=the newest content"),
                         twinFolder,
                         twinFolder + text("/empty"),
                         text("raw/same (file %1)=a file").arg(plain)};
    expected.sort();
    EXPECT_EQ(found, expected);
    EXPECT_EQ(task.downloadedFileCount(), 4);
}

} // namespace
} // namespace orx::testing
