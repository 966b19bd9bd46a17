#include "HalvaneError.h"
#include "HalvaneItemTasks.h"
#include "HalvaneTaskFixture.h"

using namespace orx;
using namespace orx::testing;

namespace {

class ItemTasksTest : public HalvaneTaskFixture {
protected:
    //! What a task makes of \a data in a success envelope.
    template <typename Task, typename... Arguments>
    Error runOn(const QByteArray& data, Arguments... arguments) {
        m_server.script(QStringLiteral("*"),
                        ScriptedFault::raw(200, "{\"status\": \"success\", \"data\": " + data + '}'));
        Task task(arguments...);
        return run(task);
    }
};

} // namespace

TEST_F(ItemTasksTest, FilesOfAFolder) {
    const int folder = m_server.service().addFolder(QStringLiteral("raw"));
    m_server.service().addFile(QStringLiteral("a"), "1", folder, 7);
    m_server.service().addFile(QStringLiteral("a"), "22", folder, 12);
    HalvaneGetFilesTask task(folder);
    ASSERT_TRUE(succeeded(run(task)));
    ASSERT_EQ(task.files().size(), 2);
    EXPECT_EQ(task.files().at(0)->id(), 7);
    EXPECT_EQ(task.files().at(1)->id(), 12);
    EXPECT_EQ(task.files().at(1)->size(), 2);
    EXPECT_EQ(m_server.log(), QStringList{QStringLiteral("GET /folders/%1/files").arg(folder)});
}

TEST_F(ItemTasksTest, AnEmptyFolderHasNoFilesAndNoFolders) {
    HalvaneGetFilesTask files(1);
    HalvaneGetFoldersTask folders(1);
    EXPECT_TRUE(succeeded(run(files)));
    EXPECT_TRUE(succeeded(run(folders)));
    EXPECT_TRUE(files.files().isEmpty());
    EXPECT_TRUE(folders.foldersTree().isEmpty());
}

TEST_F(ItemTasksTest, AnElementThatIsNoFileIsNamed) {
    const QByteArray good = R"({"id": 7, "folder_id": 1, "name": "a", "last_version": 1, "size": 1})";
    const Error error = runOn<HalvaneGetFilesTask>(
        "{\"files\": [" + good + R"(, {"id": 9, "folder_id": 1, "last_version": 1, "size": 1}]})", 1);
    EXPECT_TRUE(isNetworkError(error, NetworkErrorCode::InvalidReply));
    EXPECT_TRUE(error.errorMessage().contains(
        QStringLiteral("Element 2 of \"files\" (id 9): The key \"name\" is missing.")))
        << qPrintable(error.errorMessage());
    for (const char* bad :
         {"{}", R"({"files": {}})", R"({"files": [null]})", R"({"files": [7]})",
          R"({"files": [{"id": 0, "folder_id": 1, "name": "a", "last_version": 1, "size": 1}]})"})
        EXPECT_TRUE(isNetworkError(runOn<HalvaneGetFilesTask>(bad, 1), NetworkErrorCode::InvalidReply))
            << bad;
}

TEST_F(ItemTasksTest, FoldersOfAFolderAndOfTheRoot) {
    const int raw = m_server.service().addFolder(QStringLiteral("raw"));
    const int year = m_server.service().addFolder(QStringLiteral("2026"), raw);
    HalvaneGetFoldersTask root(std::nullopt);
    ASSERT_TRUE(succeeded(run(root)));
    ASSERT_EQ(root.foldersTree().size(), 1);
    EXPECT_EQ(root.foldersTree().front()->id(), raw);
    EXPECT_TRUE(root.foldersTree().front()->hasChildren());
    HalvaneGetFoldersTask below(raw);
    ASSERT_TRUE(succeeded(run(below)));
    ASSERT_EQ(below.foldersTree().size(), 1);
    EXPECT_EQ(below.foldersTree().front()->id(), year);
    EXPECT_EQ(m_server.log().front(), QStringLiteral("GET /folders/1/folders"));
}

TEST_F(ItemTasksTest, AFolderIsCreatedOnceThoughTheReplyIsLost) {
    m_server.script(QStringLiteral("POST /folders"), ScriptedFault::replyLost());
    HalvaneCreateFolderTask::Input input;
    input.name = QStringLiteral("2026");
    HalvaneCreateFolderTask task(input);
    task.exec();
    ASSERT_TRUE(succeeded(task.waitForFinished()));
    EXPECT_EQ(m_server.service().folders().size(), 2) << "the root and one new folder";
    EXPECT_EQ(task.createdFolderName(), QStringLiteral("2026"));
    EXPECT_TRUE(m_server.service().folders().contains(task.createdFolderId()));
    const auto requests = m_server.requests();
    ASSERT_EQ(requests.size(), 2);
    EXPECT_FALSE(requests.front().header("Idempotency-Key").isEmpty());
    EXPECT_EQ(requests.front().header("Idempotency-Key"), requests.back().header("Idempotency-Key"));
    EXPECT_FALSE(requests.front().json().contains(QStringLiteral("usergroup_ids")));
}

TEST_F(ItemTasksTest, TwoFoldersOfOneNameMayBeCreated) {
    HalvaneCreateFolderTask::Input input;
    input.name = QStringLiteral("2026");
    input.userGroups = {3, 5};
    HalvaneCreateFolderTask first(input);
    HalvaneCreateFolderTask second(input);
    ASSERT_TRUE(succeeded(run(first)));
    ASSERT_TRUE(succeeded(run(second)));
    EXPECT_NE(first.createdFolderId(), second.createdFolderId());
    EXPECT_EQ(m_server.requests().front().json().value(QStringLiteral("usergroup_ids")).toArray(),
              (QJsonArray{3, 5}));
}

TEST_F(ItemTasksTest, AFolderWithTheChainAboveIt) {
    const int raw = m_server.service().addFolder(QStringLiteral("raw"));
    const int year = m_server.service().addFolder(QStringLiteral("2026"), raw);
    HalvaneGetFolderTask task(year);
    ASSERT_TRUE(succeeded(run(task)));
    EXPECT_EQ(task.folderItem().name(), QStringLiteral("2026"));
    EXPECT_EQ(task.folderItem().parentId(), raw);
    EXPECT_EQ(task.folderIdsPath(), (QList<int>{raw, year}));
    EXPECT_EQ(task.folderPath(), (QList<QString>{QStringLiteral("raw"), QStringLiteral("2026")}));
}

TEST_F(ItemTasksTest, AFileAndTheFoldersAboveIt) {
    const int raw = m_server.service().addFolder(QStringLiteral("raw"));
    const int file = m_server.service().addFile(QStringLiteral("a"), "123", raw);
    m_server.service().addVersion(file, "12345");
    HalvaneGetFileMetadataTask metadata(file);
    ASSERT_TRUE(succeeded(run(metadata)));
    EXPECT_EQ(metadata.fileItem().lastVersion(), 2);
    EXPECT_EQ(metadata.fileItem().size(), 5);
    HalvaneGetFilePathTask path(file);
    ASSERT_TRUE(succeeded(run(path)));
    EXPECT_EQ(path.folderIdsPath(), QList<int>{raw});
    EXPECT_EQ(path.folderPath(), QList<QString>{QStringLiteral("raw")});
    HalvaneGetFileVersionsTask versions(file);
    ASSERT_TRUE(succeeded(run(versions)));
    ASSERT_EQ(versions.versions().size(), 2);
    EXPECT_EQ(versions.versions().front().version, 1);
    EXPECT_EQ(versions.versions().front().size, 3);
    EXPECT_EQ(versions.versions().back().version, 2);
    EXPECT_EQ(versions.versions().back().sha256.size(), 64);
}

TEST_F(ItemTasksTest, AFileInTheRootHasNoFoldersAboveIt) {
    HalvaneGetFilePathTask task(m_server.service().addFile(QStringLiteral("a"), "1"));
    ASSERT_TRUE(succeeded(run(task)));
    EXPECT_TRUE(task.folderIdsPath().isEmpty());
    EXPECT_TRUE(task.folderPath().isEmpty());
}

TEST_F(ItemTasksTest, WhatDoesNotExistIsTheServersError) {
    HalvaneGetFileMetadataTask file(999);
    HalvaneGetFolderTask folder(999);
    EXPECT_TRUE(isHalvaneError(run(file), HalvaneServerErrorCode::NotFound));
    EXPECT_TRUE(isHalvaneError(run(folder), HalvaneServerErrorCode::NotFound));
    EXPECT_EQ(file.fileItem().id(), -1);
}

TEST_F(ItemTasksTest, WrongDataIsAnInvalidReplyThatNamesTheKey) {
    const auto expect = [](const Error& error, const char* key) {
        EXPECT_TRUE(isNetworkError(error, NetworkErrorCode::InvalidReply)) << key;
        EXPECT_TRUE(error.errorMessage().contains(QString::fromLatin1(key)))
            << qPrintable(error.errorMessage());
    };
    expect(runOn<HalvaneGetFileMetadataTask>(R"({"id": 7})", 7), "folder_id");
    expect(runOn<HalvaneGetFolderTask>(R"({"id": 7, "name": "a", "parent_id": 1})", 7), "path");
    expect(runOn<HalvaneGetFolderTask>(
               R"({"id": 7, "name": "a", "parent_id": 1, "path": [{"folder_id": 7}]})", 7),
           "folder_name");
    expect(runOn<HalvaneGetFilePathTask>(R"({"path": [{"folder_id": "7", "folder_name": "a"}]})", 7),
           "folder_id");
    expect(runOn<HalvaneGetFileVersionsTask>(R"({"versions": [{"version": 0, "size": 1}]})", 7), "version");
    expect(runOn<HalvaneGetFileVersionsTask>(R"({"versions": [{"version": 1}]})", 7), "size");
    expect(runOn<HalvaneGetVersionTraceTask>(R"({"trace": "none"})", 7, 1), "trace");
    expect(runOn<HalvaneCreateFolderTask>(R"({"id": -7, "name": "a"})", HalvaneCreateFolderTask::Input()),
           "id");
}

TEST_F(ItemTasksTest, ExtendedMetadataIsReplacedAsAWhole) {
    const int file = m_server.service().addFile(QStringLiteral("a"), "1");
    HalvanePutExtendedMetaDataTask task(
        file, {{QStringLiteral("operator"), QStringLiteral("anna")}, {QStringLiteral("empty"), QString()}});
    ASSERT_TRUE(succeeded(run(task)));
    EXPECT_EQ(m_server.log(), QStringList{QStringLiteral("PUT /files/%1/extended-metadata").arg(file)});
    const QJsonArray expected{
        QJsonObject{{QStringLiteral("key"), QStringLiteral("operator")},
                    {QStringLiteral("value"), QStringLiteral("anna")}},
        QJsonObject{{QStringLiteral("key"), QStringLiteral("empty")}, {QStringLiteral("value"), QString()}}};
    EXPECT_EQ(m_server.service().files().value(file).extendedMetadata, expected);

    HalvanePutExtendedMetaDataTask clear(file, {});
    ASSERT_TRUE(succeeded(run(clear)));
    EXPECT_TRUE(m_server.service().files().value(file).extendedMetadata.isEmpty());
}
