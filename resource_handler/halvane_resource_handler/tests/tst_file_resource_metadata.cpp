// What is known of a file, and its JSON form.
#include "HalvaneFileResourceMetadata.h"
#include "MetadataProbes.h"

namespace orx::testing {
namespace {

const QString PathKey = QStringLiteral("Path");
const QString FullPathKey = QStringLiteral("FullPath");
const QString IdsKey = QStringLiteral("ParentFolderIdsPath");
const QString ItemKey = QStringLiteral("FileItem");

class FileResourceMetadata : public ::testing::Test {
protected:
    HalvaneFileResourceMetadata run1{
        fileItem(12, QStringLiteral("run1.mzML")), {QStringLiteral("raw"), QStringLiteral("2026")}, {3, 7}};
    //! Another file's, which differs in everything.
    QJsonObject other = HalvaneFileResourceMetadata(fileItem(99, QStringLiteral("blank.mgf"), 5, 1),
                                                    {QStringLiteral("old")}, {5})
                            .toJson();
    ErrorLog errors;
};

TEST_F(FileResourceMetadata, IsMadeOfTheServersRecordAndTheFoldersAbove) {
    EXPECT_EQ(run1.name(), QStringLiteral("run1.mzML"));
    EXPECT_EQ(run1.path(), QStringLiteral("raw/2026"));
    EXPECT_EQ(run1.fullPath(), QStringLiteral("raw/2026/run1.mzML"));
    EXPECT_EQ(run1.parentFolderIdsPath(), (QList<int>{3, 7}));
    EXPECT_EQ(run1.id(), 12);
    EXPECT_EQ(serialized(run1.fileItem()), serialized(fileItem(12, QStringLiteral("run1.mzML"))));
    EXPECT_EQ(int(run1.itemType()), 1);
}

TEST_F(FileResourceMetadata, WithoutFoldersTheFullPathIsASlashAndTheName) {
    const HalvaneFileResourceMetadata metadata(fileItem(12, QStringLiteral("run1.mzML")), {}, {});
    EXPECT_EQ(metadata.path(), QString());
    EXPECT_EQ(metadata.fullPath(), QStringLiteral("/run1.mzML"));
    EXPECT_TRUE(metadata.parentFolderIdsPath().isEmpty());
}

TEST_F(FileResourceMetadata, TheNameIsWhatFollowsTheLastSlash) {
    const HalvaneFileResourceMetadata metadata(fileItem(12, QStringLiteral("a/b/run1.mzML")),
                                               {QStringLiteral("raw")}, {3});
    EXPECT_EQ(metadata.name(), QStringLiteral("run1.mzML"));
    EXPECT_EQ(metadata.fullPath(), QStringLiteral("raw/run1.mzML"));
    EXPECT_EQ(metadata.fileItem().name(), QStringLiteral("a/b/run1.mzML"));
}

TEST_F(FileResourceMetadata, CopiesAndMovesHaveEverything) {
    static_assert(!std::is_default_constructible_v<HalvaneFileResourceMetadata>);
    HalvaneFileResourceMetadata copy = run1;
    EXPECT_EQ(copy.toJson(), run1.toJson());
    HalvaneFileResourceMetadata assigned(fileItem(1, QStringLiteral("x")), {}, {});
    assigned = copy;
    EXPECT_EQ(assigned.toJson(), run1.toJson());
    assigned = std::move(copy);
    const HalvaneFileResourceMetadata moved = std::move(assigned);
    EXPECT_EQ(moved.toJson(), run1.toJson());
}

TEST_F(FileResourceMetadata, ItsJsonHasTheCommonKeysTheIdsAndTheServersRecord) {
    const QJsonObject expected{{QStringLiteral("ItemType"), QStringLiteral("File")},
                               {PathKey, QStringLiteral("raw/2026")},
                               {FullPathKey, QStringLiteral("raw/2026/run1.mzML")},
                               {IdsKey, QStringLiteral("3,7")},
                               {ItemKey, serialized(fileItem(12, QStringLiteral("run1.mzML")))}};
    EXPECT_EQ(run1.toJson(), expected);
}

TEST_F(FileResourceMetadata, WithoutFoldersTheIdsAreAnEmptyText) {
    const HalvaneFileResourceMetadata metadata(fileItem(12, QStringLiteral("run1.mzML")), {}, {});
    EXPECT_EQ(metadata.toJson().value(IdsKey), QJsonValue(QString()));
}

TEST_F(FileResourceMetadata, JsonReadBackGivesAllFour) {
    ASSERT_FALSE(load(run1, other).hasError());
    EXPECT_EQ(run1.path(), QStringLiteral("old"));
    EXPECT_EQ(run1.fullPath(), QStringLiteral("old/blank.mgf"));
    EXPECT_EQ(run1.parentFolderIdsPath(), QList<int>{5});
    EXPECT_EQ(run1.id(), 99);
    EXPECT_EQ(run1.fileItem().folderId(), 5);
    EXPECT_EQ(run1.toJson(), other);
    EXPECT_TRUE(ErrorLog::lines().isEmpty());
}

TEST_F(FileResourceMetadata, PathsAreTakenFromJsonAsTheyStand) {
    QJsonObject json = with(other, PathKey, QStringLiteral("some/where"));
    json.insert(FullPathKey, QStringLiteral("else"));
    ASSERT_FALSE(load(run1, json).hasError());
    EXPECT_EQ(run1.path(), QStringLiteral("some/where"));
    EXPECT_EQ(run1.fullPath(), QStringLiteral("else"));
    EXPECT_EQ(run1.name(), QStringLiteral("blank.mgf"));
}

TEST_F(FileResourceMetadata, TheItemTypeIsNotRead) {
    EXPECT_FALSE(load(run1, without(other, QStringLiteral("ItemType"))).hasError());
}

//! How far a load came, as the ids of the two files show it.
struct Reached {
    QString path, fullPath;
    QList<int> ids;
    int id;
};

void expectReached(const HalvaneFileResourceMetadata& metadata, const Reached& reached) {
    EXPECT_EQ(metadata.path(), reached.path);
    EXPECT_EQ(metadata.fullPath(), reached.fullPath);
    EXPECT_EQ(metadata.parentFolderIdsPath(), reached.ids);
    EXPECT_EQ(metadata.id(), reached.id);
}

const QString OldPath = QStringLiteral("raw/2026");
const QString OldFullPath = QStringLiteral("raw/2026/run1.mzML");
const QString NewPath = QStringLiteral("old");
const QString NewFullPath = QStringLiteral("old/blank.mgf");

//! A key that is missing or mistyped is the error of JsonUtils, stamped here; the keys before it were stored.
void expectKeyFailure(HalvaneFileResourceMetadata metadata, const QJsonObject& json, const QString& key,
                      const Reached& reached) {
    for (const QJsonObject& bad : {without(json, key), with(json, key, 5)}) {
        const Error error = load(metadata, bad);
        EXPECT_TRUE(error.is(ErrorCode::ParseError)) << qPrintable(error.traceText());
        EXPECT_TRUE(error.errorMessage().contains(u'"' + key + u'"')) << qPrintable(error.errorMessage());
        EXPECT_TRUE(passedThrough(error, QStringLiteral("HalvaneFileResourceMetadata::loadFromJson")));
        expectReached(metadata, reached);
    }
}

TEST_F(FileResourceMetadata, WithoutAPathNothingIsReplaced) {
    expectKeyFailure(run1, other, PathKey, {OldPath, OldFullPath, {3, 7}, 12});
}

TEST_F(FileResourceMetadata, WithoutAFullPathThePathIsReplaced) {
    expectKeyFailure(run1, other, FullPathKey, {NewPath, OldFullPath, {3, 7}, 12});
}

TEST_F(FileResourceMetadata, WithoutIdsThePathsAreReplaced) {
    expectKeyFailure(run1, other, IdsKey, {NewPath, NewFullPath, {3, 7}, 12});
}

TEST_F(FileResourceMetadata, WithoutTheFileItemEverythingElseIsReplaced) {
    expectKeyFailure(run1, other, ItemKey, {NewPath, NewFullPath, {5}, 12});
}

TEST_F(FileResourceMetadata, AFileItemThatIsRejectedIsTheClientLibrarysError) {
    const QJsonObject item = without(other.value(ItemKey).toObject(), QStringLiteral("size"));
    const Error error = load(run1, with(other, ItemKey, item));
    EXPECT_EQ(error.errorMessage(), HalvaneFileItem().deserialize(item).errorMessage());
    EXPECT_TRUE(passedThrough(error, QStringLiteral("HalvaneFileItem::deserialize")));
    EXPECT_TRUE(passedThrough(error, QStringLiteral("HalvaneFileResourceMetadata::loadFromJson")));
    expectReached(run1, {NewPath, NewFullPath, {5}, 12});
}

TEST_F(FileResourceMetadata, EmptyPartsOfTheIdsAreDropped) {
    const QList<std::pair<QString, QList<int>>> cases{{QString(), {}},
                                                      {QStringLiteral(","), {}},
                                                      {QStringLiteral(",,,"), {}},
                                                      {QStringLiteral("3,,7"), {3, 7}},
                                                      {QStringLiteral(",3,7,"), {3, 7}},
                                                      {QStringLiteral("-1"), {-1}}};
    for (const auto& [text, ids] : cases) {
        ASSERT_FALSE(load(run1, with(other, IdsKey, text)).hasError()) << qPrintable(text);
        EXPECT_EQ(run1.parentFolderIdsPath(), ids) << qPrintable(text);
    }
}

TEST_F(FileResourceMetadata, APartOfTheIdsMayHaveBlanksAroundItAndASign) {
    ASSERT_FALSE(load(run1, with(other, IdsKey, QStringLiteral(" 3,7 ,\t8,+9,-1"))).hasError());
    EXPECT_EQ(run1.parentFolderIdsPath(), (QList<int>{3, 7, 8, 9, -1}));
}

TEST_F(FileResourceMetadata, APartOfTheIdsThatIsNoWholeNumberFailsUntranslated) {
    const ContextTranslator translator;
    const QList<std::pair<QString, QString>> cases{
        {QStringLiteral("3,7x,y"), QStringLiteral("7x")},
        {QStringLiteral("3.5"), QStringLiteral("3.5")},
        {QStringLiteral("0x10"), QStringLiteral("0x10")},
        {QStringLiteral("2147483648"), QStringLiteral("2147483648")}};
    for (const auto& [text, part] : cases) {
        const Error error = load(run1, with(other, IdsKey, text));
        EXPECT_TRUE(error.is(ErrorDomain::General, 2)) << qPrintable(text);
        EXPECT_EQ(error.errorMessage(), part + QStringLiteral(" is not an integer number"));
        EXPECT_TRUE(passedThrough(error, QStringLiteral("HalvaneFileResourceMetadata::loadFromJson")));
        expectReached(run1, {NewPath, NewFullPath, {3, 7}, 12});
    }
}

} // namespace
} // namespace orx::testing
