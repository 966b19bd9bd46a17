// Session, folders, files and contents: the scripted server and the real one behave alike.
#include "ContractFixture.h"

#include <HalvaneConnection.h>
#include <HalvaneItemTasks.h>
#include <HalvaneSessionTasks.h>

namespace orx::testing {
namespace {

class ItemsContract : public ContractTest {
protected:
    static Error run(BaseTask& task) {
        task.exec();
        return task.waitForFinished();
    }
};
ORX_CONTRACT(ItemsContract);

// Session

TEST_P(ItemsContract, HealthNeedsNoToken) {
    const Answer answer = get(QStringLiteral("/health"), {{"Authorization", "Bearer nobody"}});
    EXPECT_EQ(answer.status, 200);
    EXPECT_TRUE(answer.data()[QStringLiteral("healthy")].toBool());
}

TEST_P(ItemsContract, LoginGivesATokenThatWorks) {
    HalvaneLoginTask login(userName(), password());
    EXPECT_FALSE(run(login).hasError());
    EXPECT_FALSE(login.token().isEmpty());
    EXPECT_EQ(login.user().name, userName());
    HalvaneConnection::instance().setCredentials(userName(), login.token());
    HalvaneWhoAmITask whoAmI;
    EXPECT_FALSE(run(whoAmI).hasError());
    EXPECT_EQ(whoAmI.user().name, userName());
    EXPECT_TRUE(whoAmI.user().isAdmin);
}

TEST_P(ItemsContract, WrongNameAndWrongPasswordLookAlike) {
    HalvaneLoginTask wrongPassword(userName(), QStringLiteral("guess"));
    HalvaneLoginTask wrongName(QStringLiteral("nobody"), password());
    const Error first = run(wrongPassword);
    const Error second = run(wrongName);
    EXPECT_TRUE(isHalvaneError(first, HalvaneServerErrorCode::NotAuthenticated));
    EXPECT_TRUE(isHalvaneError(second, HalvaneServerErrorCode::NotAuthenticated));
    EXPECT_EQ(first.errorMessage(), second.errorMessage());
}

TEST_P(ItemsContract, AnUnknownTokenIsRefused) {
    const Answer answer = get(QStringLiteral("/folders/1"), {{"Authorization", "Bearer nobody"}});
    EXPECT_EQ(answer.status, 401);
    EXPECT_EQ(answer.errorCode(), int(HalvaneServerErrorCode::NotAuthenticated));
}

TEST_P(ItemsContract, AnUnknownCallIsNotFound) {
    const Answer answer = get(QStringLiteral("/nonsense"));
    EXPECT_EQ(answer.status, 404);
    EXPECT_EQ(answer.errorCode(), int(HalvaneServerErrorCode::NotFound));
}

// Folders

TEST_P(ItemsContract, TheRootHasTheIdOneAndIsItsOwnPath) {
    HalvaneGetFolderTask task(Root);
    EXPECT_FALSE(run(task).hasError());
    EXPECT_EQ(task.folderItem().id(), Root);
    EXPECT_EQ(task.folderItem().name(), QStringLiteral("/"));
    EXPECT_EQ(task.folderItem().parentId(), -1);
    EXPECT_EQ(task.folderIdsPath(), QList<int>{Root});
}

TEST_P(ItemsContract, ACreatedFolderIsListedAndHasAPathWithoutTheRoot) {
    HalvaneCreateFolderTask create({QStringLiteral("raw"), {}, Root});
    ASSERT_FALSE(run(create).hasError());
    EXPECT_EQ(create.createdFolderName(), QStringLiteral("raw"));
    const int raw = create.createdFolderId();
    const int inner = makeFolder(QStringLiteral("2026"), raw);
    HalvaneGetFolderTask get(inner);
    ASSERT_FALSE(run(get).hasError());
    EXPECT_EQ(get.folderItem().parentId(), raw);
    EXPECT_EQ(get.folderIdsPath(), (QList<int>{raw, inner}));
    EXPECT_EQ(get.folderPath(), (QList<QString>{QStringLiteral("raw"), QStringLiteral("2026")}));
    HalvaneGetFoldersTask list{std::optional<int>()};
    ASSERT_FALSE(run(list).hasError());
    ASSERT_EQ(list.foldersTree().size(), 1);
    EXPECT_EQ(list.foldersTree()[0]->id(), raw);
    EXPECT_TRUE(list.foldersTree()[0]->hasChildren());
}

TEST_P(ItemsContract, FoldersMayShareANameAndAreListedById) {
    const int first = makeFolder(QStringLiteral("same"));
    const int second = makeFolder(QStringLiteral("same"));
    EXPECT_LT(first, second);
    HalvaneGetFoldersTask list(Root);
    ASSERT_FALSE(run(list).hasError());
    ASSERT_EQ(list.foldersTree().size(), 2);
    EXPECT_EQ(list.foldersTree()[0]->id(), first);
    EXPECT_EQ(list.foldersTree()[1]->id(), second);
}

TEST_P(ItemsContract, ARepeatedKeyMakesNoSecondFolder) {
    const QJsonObject body{{QStringLiteral("name"), QStringLiteral("raw")},
                           {QStringLiteral("parent_id"), Root}};
    const int first = post(QStringLiteral("/folders"), body, "key-1").data()[QStringLiteral("id")].toInt();
    EXPECT_EQ(post(QStringLiteral("/folders"), body, "key-1").data()[QStringLiteral("id")].toInt(), first);
    const QJsonObject other{{QStringLiteral("name"), QStringLiteral("new")},
                            {QStringLiteral("parent_id"), Root}};
    const Answer refused = post(QStringLiteral("/folders"), other, "key-1");
    EXPECT_EQ(refused.status, 422);
    EXPECT_EQ(refused.errorCode(), int(HalvaneServerErrorCode::IdempotencyMismatch));
}

TEST_P(ItemsContract, AnUnknownFolderIsNotFound) {
    for (const char* path : {"/folders/99", "/folders/99/files", "/folders/99/folders"}) {
        const Answer answer = get(QString::fromLatin1(path));
        EXPECT_EQ(answer.status, 404) << path;
        EXPECT_EQ(answer.errorCode(), int(HalvaneServerErrorCode::NotFound)) << path;
    }
    HalvaneCreateFolderTask create({QStringLiteral("raw"), {}, 99});
    EXPECT_TRUE(isHalvaneError(run(create), HalvaneServerErrorCode::NotFound));
}

TEST_P(ItemsContract, MissingFieldsAreNamed) {
    const Answer noName = post(QStringLiteral("/folders"), {{QStringLiteral("parent_id"), Root}});
    EXPECT_EQ(noName.status, 400);
    EXPECT_EQ(noName.errorCode(), int(HalvaneServerErrorCode::BadRequest));
    EXPECT_TRUE(noName.body.contains("name"));
    const Answer noParent =
        post(QStringLiteral("/folders"), {{QStringLiteral("name"), QStringLiteral("raw")}});
    EXPECT_EQ(noParent.errorCode(), int(HalvaneServerErrorCode::BadRequest));
    EXPECT_TRUE(noParent.body.contains("parent_id"));
}

TEST_P(ItemsContract, BadNamesAreRefused) {
    const QStringList names{QString(),
                            QStringLiteral("."),
                            QStringLiteral(".."),
                            QStringLiteral("a/b"),
                            QStringLiteral("a\nb"),
                            QString(u'a') + QChar(0x7f),
                            QString(u'a') + QChar(0x85),
                            QString(256, u'x'),
                            QString(128, QChar(0xe9))};
    for (const QString& name : names) {
        HalvaneCreateFolderTask create({name, {}, Root});
        EXPECT_TRUE(isHalvaneError(run(create), HalvaneServerErrorCode::InvalidName)) << qPrintable(name);
    }
}

TEST_P(ItemsContract, EveryOtherNameComesBackAsItWas) {
    const QStringList names{QStringLiteral("\U0001F9EA run"), QStringLiteral("e\u0301"),
                            QStringLiteral("\u202eabc"),      QStringLiteral(".hidden"),
                            QStringLiteral("trailing  "),     QStringLiteral("back\\slash"),
                            QStringLiteral("%41?#&+"),        QString(255, u'x')};
    for (const QString& name : names)
        makeFolder(name);
    HalvaneGetFoldersTask list(Root);
    ASSERT_FALSE(run(list).hasError());
    QStringList found;
    for (const auto& folder : list.foldersTree())
        found.append(folder->name());
    EXPECT_EQ(found, names);
}

// Listings

TEST_P(ItemsContract, AListingIsRevalidatedByItsTag) {
    const int folder = makeFolder(QStringLiteral("raw"));
    const QString path = QStringLiteral("/folders/%1/files").arg(folder);
    const Answer empty = get(path);
    const QByteArray tag = empty.header("ETag");
    EXPECT_FALSE(tag.isEmpty());
    const Answer unchanged = get(path, {{"If-None-Match", tag}});
    EXPECT_EQ(unchanged.status, 304);
    EXPECT_TRUE(unchanged.body.isEmpty());
    makeFile(QStringLiteral("run.raw"), "content", folder);
    const Answer changed = get(path, {{"If-None-Match", tag}});
    EXPECT_EQ(changed.status, 200);
    EXPECT_NE(changed.header("ETag"), tag);
    EXPECT_EQ(changed.data()[QStringLiteral("files")].toArray().size(), 1);
}

TEST_P(ItemsContract, ANewVersionChangesTheTagOfTheListing) {
    const int file = makeFile(QStringLiteral("run.raw"), "content");
    const QByteArray tag = get(QStringLiteral("/folders/1/files")).header("ETag");
    addVersion(file, "newer");
    EXPECT_EQ(get(QStringLiteral("/folders/1/files"), {{"If-None-Match", tag}}).status, 200);
}

TEST_P(ItemsContract, FilesMayShareANameAndAreListedById) {
    const int first = makeFile(QStringLiteral("run.raw"), "one");
    const int second = makeFile(QStringLiteral("run.raw"), "three");
    HalvaneGetFilesTask list(Root);
    ASSERT_FALSE(run(list).hasError());
    ASSERT_EQ(list.files().size(), 2);
    EXPECT_EQ(list.files()[0]->id(), first);
    EXPECT_EQ(list.files()[0]->size(), 3);
    EXPECT_EQ(list.files()[1]->id(), second);
    EXPECT_EQ(list.files()[1]->size(), 5);
}

// Files

TEST_P(ItemsContract, AFileDescribesItsLastVersion) {
    const int file = makeFile(QStringLiteral("run.raw"), "content");
    EXPECT_EQ(addVersion(file, "a newer content"), 2);
    HalvaneGetFileMetadataTask task(file);
    ASSERT_FALSE(run(task).hasError());
    EXPECT_EQ(task.fileItem().id(), file);
    EXPECT_EQ(task.fileItem().folderId(), Root);
    EXPECT_EQ(task.fileItem().name(), QStringLiteral("run.raw"));
    EXPECT_EQ(task.fileItem().lastVersion(), 2);
    EXPECT_EQ(task.fileItem().size(), 15);
    EXPECT_EQ(task.fileItem().sha256().toLatin1(), sha256Hex("a newer content"));
    EXPECT_EQ(task.fileItem().alias(), QStringLiteral("alias"));
    EXPECT_EQ(task.fileItem().dataType(), QStringLiteral("Regular"));
}

TEST_P(ItemsContract, VersionsAreListedOldestFirst) {
    const int file = makeFile(QStringLiteral("run.raw"), "content");
    addVersion(file, "newer");
    HalvaneGetFileVersionsTask task(file);
    ASSERT_FALSE(run(task).hasError());
    ASSERT_EQ(task.versions().size(), 2);
    EXPECT_EQ(task.versions()[0].version, 1);
    EXPECT_EQ(task.versions()[0].sha256.toLatin1(), sha256Hex("content"));
    EXPECT_EQ(task.versions()[1].version, 2);
    EXPECT_EQ(task.versions()[1].size, 5);
}

TEST_P(ItemsContract, ThePathOfAFileLeavesOutTheRoot) {
    const int raw = makeFolder(QStringLiteral("raw"));
    HalvaneGetFilePathTask inFolder(makeFile(QStringLiteral("run.raw"), "content", raw));
    HalvaneGetFilePathTask inRoot(makeFile(QStringLiteral("run.raw"), "content"));
    ASSERT_FALSE(run(inFolder).hasError());
    ASSERT_FALSE(run(inRoot).hasError());
    EXPECT_EQ(inFolder.folderIdsPath(), QList<int>{raw});
    EXPECT_TRUE(inRoot.folderIdsPath().isEmpty());
}

TEST_P(ItemsContract, AnUnknownFileIsNotFound) {
    for (const char* path : {"/files/99", "/files/99/path", "/files/99/versions",
                             "/files/99/extended-metadata", "/files/99/versions/1/content"}) {
        const Answer answer = get(QString::fromLatin1(path));
        EXPECT_EQ(answer.status, 404) << path;
        EXPECT_EQ(answer.errorCode(), int(HalvaneServerErrorCode::NotFound)) << path;
    }
}

TEST_P(ItemsContract, ExtendedMetadataAreReplacedAsAWhole) {
    const int file = makeFile(QStringLiteral("run.raw"), "content");
    HalvanePutExtendedMetaDataTask first(file, {{QStringLiteral("operator"), QStringLiteral("anna")},
                                                {QStringLiteral("column"), QStringLiteral("C18")}});
    ASSERT_FALSE(run(first).hasError());
    const QString path = QStringLiteral("/files/%1/extended-metadata").arg(file);
    EXPECT_EQ(get(path).data()[QStringLiteral("values")].toArray().size(), 2);
    HalvanePutExtendedMetaDataTask second(file, {{QStringLiteral("operator"), QStringLiteral("ben")}});
    ASSERT_FALSE(run(second).hasError());
    EXPECT_EQ(get(path).data()[QStringLiteral("values")].toArray(),
              (QJsonArray{QJsonObject{{QStringLiteral("key"), QStringLiteral("operator")},
                                      {QStringLiteral("value"), QStringLiteral("ben")}}}));
    HalvanePutExtendedMetaDataTask none(file, {});
    ASSERT_FALSE(run(none).hasError());
    EXPECT_TRUE(get(path).data()[QStringLiteral("values")].toArray().isEmpty());
}

// Contents

TEST_P(ItemsContract, AContentComesWithItsChecksumAndValidator) {
    const int file = makeFile(QStringLiteral("run.raw"), "the content");
    addVersion(file, "newer");
    const Answer first = get(QStringLiteral("/files/%1/versions/1/content").arg(file));
    EXPECT_EQ(first.status, 200);
    EXPECT_EQ(first.body, "the content");
    EXPECT_EQ(first.header("Halvane-Content-Sha256"), sha256Hex("the content"));
    EXPECT_EQ(first.header("Halvane-File-Version"), "1");
    EXPECT_EQ(first.header("Content-Length"), "11");
    EXPECT_EQ(first.header("ETag"), '"' + QByteArray::number(file) + "-1-" + sha256Hex("the content") + '"');
    const Answer latest = get(QStringLiteral("/files/%1/versions/latest/content").arg(file));
    EXPECT_EQ(latest.body, "newer");
    EXPECT_EQ(latest.header("Halvane-File-Version"), "2");
    EXPECT_EQ(get(QStringLiteral("/files/%1/versions/3/content").arg(file)).status, 404);
}

TEST_P(ItemsContract, RangesAreHonoured) {
    const int file = makeFile(QStringLiteral("run.raw"), "0123456789");
    const QString path = QStringLiteral("/files/%1/versions/1/content").arg(file);
    struct Range {
        const char* asked;
        const char* body;
        const char* told;
    };
    for (const Range& range :
         {Range{"bytes=2-4", "234", "bytes 2-4/10"}, Range{"bytes=7-", "789", "bytes 7-9/10"},
          Range{"bytes=-3", "789", "bytes 7-9/10"}, Range{"bytes=8-99", "89", "bytes 8-9/10"}}) {
        const Answer answer = get(path, {{"Range", range.asked}});
        EXPECT_EQ(answer.status, 206) << range.asked;
        EXPECT_EQ(answer.body, range.body) << range.asked;
        EXPECT_EQ(answer.header("Content-Range"), range.told) << range.asked;
    }
    const Answer outside = get(path, {{"Range", "bytes=10-"}});
    EXPECT_EQ(outside.status, 416);
    EXPECT_EQ(outside.errorCode(), int(HalvaneServerErrorCode::RangeNotSatisfiable));
}

TEST_P(ItemsContract, ARangeOfAnotherVersionGivesTheWholeContent) {
    const int file = makeFile(QStringLiteral("run.raw"), "0123456789");
    const QString path = QStringLiteral("/files/%1/versions/1/content").arg(file);
    const QByteArray tag = get(path).header("ETag");
    EXPECT_EQ(get(path, {{"Range", "bytes=2-4"}, {"If-Range", tag}}).status, 206);
    const Answer other = get(path, {{"Range", "bytes=2-4"}, {"If-Range", "\"other\""}});
    EXPECT_EQ(other.status, 200);
    EXPECT_EQ(other.body, "0123456789");
}

TEST_P(ItemsContract, AnEmptyContentComesBackEmpty) {
    const int file = makeFile(QStringLiteral("empty"), {});
    const Answer answer = get(QStringLiteral("/files/%1/versions/1/content").arg(file));
    EXPECT_EQ(answer.status, 200);
    EXPECT_TRUE(answer.body.isEmpty());
    EXPECT_EQ(answer.header("Halvane-Content-Sha256"), sha256Hex({}));
}

} // namespace
} // namespace orx::testing
