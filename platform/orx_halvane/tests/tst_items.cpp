#include "HalvaneError.h"
#include "HalvaneItems.h"
#include "HalvaneUploadedInfo.h"

#include <JsonUtils.h>

#include <gtest/gtest.h>

using namespace orx;

namespace {

QJsonObject object(const char* json) {
    const auto parsed = JsonUtils::parseObject(json);
    EXPECT_TRUE(parsed) << qPrintable(parsed.errorMessage());
    return parsed.valueOr(QJsonObject());
}

QJsonObject fileObject() {
    return object(R"({"id": 12, "folder_id": 7, "name": "run1.mzML", "alias": "first", "last_version": 3,
        "size": 6000000000, "sha256": "9f86d0", "data_type": "Regular", "created_at": "2026-03-01T12:00:00.125Z",
        "modified_at": "2026-03-02T12:00:00.000Z", "source_modified_at": null, "created_by": "anna",
        "a_field_to_come": [1]})");
}

QJsonObject folderObject() {
    return object(R"({"id": 7, "name": "2026", "parent_id": 3, "has_children": true, "path": [],
        "usergroup_ids": "3,5", "privilege_ids": "1,2,3"})");
}

QJsonObject with(QJsonObject base, const char* key, const QJsonValue& value) {
    base.insert(QString::fromLatin1(key), value);
    return base;
}

} // namespace

TEST(HalvaneFileItem, ReadsTheServersObject) {
    HalvaneFileItem item;
    const Error error = item.deserialize(fileObject());
    ASSERT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_EQ(item.id(), 12);
    EXPECT_EQ(item.folderId(), 7);
    EXPECT_EQ(item.name(), QStringLiteral("run1.mzML"));
    EXPECT_EQ(item.alias(), QStringLiteral("first"));
    EXPECT_EQ(item.lastVersion(), 3);
    EXPECT_EQ(item.size(), 6'000'000'000);
    EXPECT_EQ(item.dataType(), QStringLiteral("Regular"));
    EXPECT_EQ(item.createdBy(), QStringLiteral("anna"));
    EXPECT_EQ(item.createdAt(), QDateTime(QDate(2026, 3, 1), QTime(12, 0, 0, 125), Qt::UTC));
    EXPECT_FALSE(item.sourceModifiedAt().isValid());
}

TEST(HalvaneFileItem, WritesWhatItReads) {
    HalvaneFileItem item;
    ASSERT_FALSE(item.deserialize(fileObject()).hasError());
    QJsonObject written;
    item.serialize(written);
    QJsonObject expected = fileObject();
    expected.remove(QStringLiteral("a_field_to_come"));
    EXPECT_EQ(written, expected);
}

TEST(HalvaneFileItem, ADefaultItemSurvivesTheRoundTrip) {
    QJsonObject written;
    HalvaneFileItem().serialize(written);
    HalvaneFileItem item;
    item.setId(5);
    ASSERT_FALSE(item.deserialize(written).hasError());
    EXPECT_EQ(item.id(), -1);
    EXPECT_FALSE(item.createdAt().isValid());
}

TEST(HalvaneFileItem, TimesAreUtcWhateverTheirZone) {
    HalvaneFileItem item;
    const QDateTime noon(QDate(2026, 3, 1), QTime(12, 0), Qt::UTC);
    for (const char* text :
         {"2026-03-01T12:00:00Z", "2026-03-01T14:00:00.000+02:00", "2026-03-01T12:00:00"}) {
        ASSERT_FALSE(
            item.deserialize(with(fileObject(), "created_at", QString::fromLatin1(text))).hasError());
        EXPECT_EQ(item.createdAt(), noon) << text;
        EXPECT_EQ(item.createdAt().timeSpec(), Qt::UTC) << text;
    }
}

TEST(HalvaneFileItem, KeepsAnyName) {
    const QStringList names = {QString::fromUtf8("\xf0\x9f\xa7\xaa run\xcc\x88.raw "),
                               QStringLiteral("..\\a"), QStringLiteral(".hidden"),
                               QString::fromUtf8("\xe2\x80\xae"
                                                 "evil")};
    for (const QString& name : names) {
        HalvaneFileItem item;
        ASSERT_FALSE(item.deserialize(with(fileObject(), "name", name)).hasError());
        EXPECT_EQ(item.name(), name);
    }
}

TEST(HalvaneFileItem, NamesTheFaultyKeyAndStaysAsItWas) {
    struct Row {
        const char* key;
        QJsonValue value;
    };
    const QList<Row> rows = {
        {"id", QJsonValue::Undefined},
        {"id", QStringLiteral("12")},
        {"folder_id", 1.5},
        {"name", QJsonValue::Null},
        {"last_version", 1e12},
        {"size", QStringLiteral("big")},
        {"size", QJsonValue::Undefined},
        {"sha256", 7},
        {"created_at", QStringLiteral("yesterday")},
        {"created_at", QString()},
        {"source_modified_at", 0},
    };
    for (const Row& row : rows) {
        HalvaneFileItem item;
        ASSERT_FALSE(item.deserialize(fileObject()).hasError());
        QJsonObject before;
        item.serialize(before);
        const Error error = item.deserialize(with(with(fileObject(), "id", 99), row.key, row.value));
        ASSERT_TRUE(error.is(ErrorCode::ParseError)) << row.key;
        EXPECT_TRUE(error.errorMessage().contains(QString::fromLatin1(row.key)))
            << qPrintable(error.errorMessage());
        QJsonObject after;
        item.serialize(after);
        EXPECT_EQ(after, before) << row.key;
    }
}

TEST(HalvaneFolderItem, ReadsTheServersObject) {
    HalvaneFolderItem item;
    ASSERT_FALSE(item.deserialize(folderObject()).hasError());
    EXPECT_EQ(item.id(), 7);
    EXPECT_EQ(item.name(), QStringLiteral("2026"));
    EXPECT_EQ(item.parentId(), 3);
    EXPECT_TRUE(item.hasChildren());
    EXPECT_EQ(item.userGroups(), (QList<int>{3, 5}));
    EXPECT_EQ(item.privileges(), (QSet<HalvaneFolderPrivilegeType>{
                                     HalvaneFolderPrivilegeType::Read, HalvaneFolderPrivilegeType::AddFiles,
                                     HalvaneFolderPrivilegeType::CreateFolders}));
}

TEST(HalvaneFolderItem, GroupsAndPrivilegesMayBeAbsent) {
    HalvaneFolderItem item;
    ASSERT_FALSE(item.deserialize(folderObject()).hasError());
    const Error error =
        item.deserialize(object(R"({"id": 1, "name": "/", "parent_id": -1, "usergroup_ids": null})"));
    ASSERT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_EQ(item.parentId(), -1);
    EXPECT_FALSE(item.hasChildren());
    EXPECT_TRUE(item.userGroups().isEmpty());
    EXPECT_TRUE(item.privileges().isEmpty());
}

TEST(HalvaneFolderItem, RefusesWhatItCannotReadAndStaysAsItWas) {
    const QList<QPair<const char*, QJsonValue>> rows = {{"id", QJsonValue::Undefined},
                                                        {"name", 3},
                                                        {"parent_id", QJsonValue::Null},
                                                        {"has_children", 1},
                                                        {"usergroup_ids", QStringLiteral("3,x")},
                                                        {"privilege_ids", QJsonArray{1}}};
    for (const auto& [key, value] : rows) {
        HalvaneFolderItem item;
        ASSERT_FALSE(item.deserialize(folderObject()).hasError());
        EXPECT_TRUE(item.deserialize(with(with(folderObject(), "id", 99), key, value)).hasError()) << key;
        EXPECT_EQ(item.id(), 7) << key;
    }
}

TEST(HalvaneUploadedInfo, TurnsIntoAReferenceOfTheUploadedVersion) {
    const HalvaneUploadedFileInfo info({12, 3}, QStringLiteral("/data/run1.mzML"),
                                       QStringLiteral("run1.mzML"));
    const auto reference = info.toResourceReference();
    ASSERT_TRUE(reference);
    EXPECT_EQ((*reference)->displayText(), QStringLiteral("run1.mzML (file:12@3)"));
    EXPECT_TRUE(HalvaneUploadedFileInfo({}, QString(), QStringLiteral("a"))
                    .toResourceReference()
                    .error()
                    .is(ErrorCode::InvalidArgument));
}

TEST(HalvaneUploadedInfo, FoldersFormATree) {
    HalvaneUploadedFolderInfo root(7, {}, {});
    HalvaneUploadedFolderInfo child(8, {}, {});
    child.addFile(HalvaneUploadedFileInfo({1, 1}, QStringLiteral("/a"), QStringLiteral("a")));
    root.addFolder(child);
    ASSERT_EQ(root.folders().size(), 1);
    EXPECT_EQ(root.folders().front().folderId(), 8);
    EXPECT_EQ(root.folders().front().files().size(), 1);
}

TEST(HalvaneErrors, AreOfTheServersDomain) {
    const Error conflict = halvaneError(HalvaneServerErrorCode::VersionConflict, QString());
    EXPECT_TRUE(conflict.hasError());
    EXPECT_TRUE(isHalvaneError(conflict, HalvaneServerErrorCode::VersionConflict));
    EXPECT_TRUE(conflict.errorMessage().isEmpty());
    EXPECT_FALSE(conflict.is(ErrorCode::FileNotReadable)) << "the general code of the same number";
}
