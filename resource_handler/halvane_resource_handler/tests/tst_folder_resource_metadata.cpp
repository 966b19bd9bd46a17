// What is known of a folder, and its JSON form, which is the server's folder object.
#include "HalvaneFolderResourceMetadata.h"
#include "MetadataProbes.h"

#include <QJsonDocument>

namespace orx::testing {
namespace {

using Privilege = HalvaneFolderPrivilegeType;

const QString PathKey = QStringLiteral("path");
const QString GroupsKey = QStringLiteral("usergroup_ids");
const QString PrivilegesKey = QStringLiteral("privilege_ids");

QJsonObject element(int id, const QString& name) {
    return {{QStringLiteral("folder_id"), id}, {QStringLiteral("folder_name"), name}};
}

//! As the server sends it: folder 9 in raw/2026.
QJsonObject serverFolder() {
    return {{QStringLiteral("id"), 9},
            {QStringLiteral("parent_id"), 7},
            {PathKey, QJsonArray{element(3, QStringLiteral("raw")), element(7, QStringLiteral("2026")),
                                 element(9, QStringLiteral("May"))}},
            {GroupsKey, QStringLiteral("3,4")},
            {PrivilegesKey, QStringLiteral("1,2")}};
}

HalvaneFolderItem folderItem(int id, const QString& name, int parentId) {
    HalvaneFolderItem item;
    item.setId(id);
    item.setName(name);
    item.setParentId(parentId);
    item.setHasChildren(true);
    item.setPrivileges({Privilege::Read, Privilege::Manage});
    item.setUserGroups({3, 4});
    return item;
}

//! A folder that differs from serverFolder() in everything.
HalvaneFolderResourceMetadata otherFolder() {
    return HalvaneFolderResourceMetadata(folderItem(20, QStringLiteral("old"), 15), {QStringLiteral("top")},
                                         {15});
}

class FolderResourceMetadata : public ::testing::Test {
protected:
    HalvaneFolderResourceMetadata read(const QJsonObject& json) {
        const auto metadata = HalvaneFolderResourceMetadata::fromJson(json);
        EXPECT_FALSE(metadata.hasError()) << qPrintable(metadata.error().traceText());
        return metadata.hasError() ? HalvaneFolderResourceMetadata() : *metadata;
    }
    ErrorLog errors;
};

TEST_F(FolderResourceMetadata, IsEmptyAtFirst) {
    const HalvaneFolderResourceMetadata metadata;
    EXPECT_EQ(metadata.id(), -1);
    EXPECT_EQ(metadata.parentId(), -1);
    EXPECT_TRUE(metadata.name().isEmpty());
    EXPECT_TRUE(metadata.path().isEmpty());
    EXPECT_TRUE(metadata.fullPath().isEmpty());
    EXPECT_TRUE(metadata.parentFolderIdsPath().isEmpty());
    EXPECT_TRUE(metadata.privileges().isEmpty());
    EXPECT_TRUE(metadata.userGroups().isEmpty());
    EXPECT_FALSE(metadata.hasChildren());
    EXPECT_EQ(int(metadata.itemType()), 2);
}

TEST_F(FolderResourceMetadata, IsMadeOfTheServersRecordAndTheFoldersAbove) {
    const HalvaneFolderResourceMetadata metadata(folderItem(9, QStringLiteral("May"), 7),
                                                 {QStringLiteral("raw"), QStringLiteral("2026")}, {3, 7});
    EXPECT_EQ(metadata.id(), 9);
    EXPECT_EQ(metadata.name(), QStringLiteral("May"));
    EXPECT_EQ(metadata.parentId(), 7);
    EXPECT_EQ(metadata.privileges(), (QSet<Privilege>{Privilege::Read, Privilege::Manage}));
    EXPECT_EQ(metadata.userGroups(), (QList<int>{3, 4}));
    EXPECT_TRUE(metadata.hasChildren());
    EXPECT_EQ(metadata.path(), QStringLiteral("raw/2026"));
    EXPECT_EQ(metadata.fullPath(), QStringLiteral("raw/2026/May"));
    EXPECT_EQ(metadata.parentFolderIdsPath(), (QList<int>{3, 7}));
}

TEST_F(FolderResourceMetadata, AtTopLevelTheFullPathOfAnItemBeginsWithASlash) {
    const HalvaneFolderResourceMetadata metadata(folderItem(3, QStringLiteral("raw"), 1), {}, {});
    EXPECT_EQ(metadata.path(), QString());
    EXPECT_EQ(metadata.fullPath(), QStringLiteral("/raw"));
    EXPECT_EQ(metadata.toJson().value(PathKey), QJsonValue(QJsonArray{element(3, QStringLiteral("raw"))}));
}

TEST_F(FolderResourceMetadata, CopiesAndMovesHaveEverything) {
    HalvaneFolderResourceMetadata copy = otherFolder();
    HalvaneFolderResourceMetadata assigned;
    assigned = copy;
    EXPECT_EQ(assigned.toJson(), otherFolder().toJson());
    EXPECT_TRUE(assigned.hasChildren());
    assigned = std::move(copy);
    const HalvaneFolderResourceMetadata moved = std::move(assigned);
    EXPECT_EQ(moved.toJson(), otherFolder().toJson());
    EXPECT_EQ(moved.fullPath(), QStringLiteral("top/old"));
}

TEST_F(FolderResourceMetadata, ReadsTheServersFolder) {
    const HalvaneFolderResourceMetadata metadata = read(serverFolder());
    EXPECT_EQ(metadata.id(), 9);
    EXPECT_EQ(metadata.parentId(), 7);
    EXPECT_EQ(metadata.name(), QStringLiteral("May"));
    EXPECT_EQ(metadata.path(), QStringLiteral("raw/2026"));
    EXPECT_EQ(metadata.fullPath(), QStringLiteral("raw/2026/May"));
    EXPECT_EQ(metadata.parentFolderIdsPath(), (QList<int>{3, 7}));
    EXPECT_EQ(metadata.privileges(), (QSet<Privilege>{Privilege::Read, Privilege::AddFiles}));
    EXPECT_EQ(metadata.userGroups(), (QList<int>{3, 4}));
    EXPECT_TRUE(ErrorLog::lines().isEmpty());
}

TEST_F(FolderResourceMetadata, HasChildrenIsNeitherReadNorWritten) {
    const QString key = QStringLiteral("has_children");
    EXPECT_FALSE(read(with(serverFolder(), key, true)).hasChildren());
    EXPECT_FALSE(otherFolder().toJson().contains(key));
}

TEST_F(FolderResourceMetadata, ItsJsonIsTheServersObjectAndTheItemTypeAndNoOtherCommonKey) {
    QJsonObject json = read(with(serverFolder(), PrivilegesKey, QStringLiteral("2"))).toJson();
    EXPECT_EQ(json, with(with(serverFolder(), PrivilegesKey, QStringLiteral("2")), QStringLiteral("ItemType"),
                         QStringLiteral("Folder")));
}

TEST_F(FolderResourceMetadata, ReadAndWrittenBackItIsTheSame) {
    const QJsonObject json = read(serverFolder()).toJson();
    for (const char* const key : {"id", "parent_id", "path", "usergroup_ids"})
        EXPECT_EQ(json.value(QLatin1StringView(key)), serverFolder().value(QLatin1StringView(key))) << key;
    QStringList privileges = json.value(PrivilegesKey).toString().split(u',');
    privileges.sort();
    EXPECT_EQ(privileges, (QStringList{QStringLiteral("1"), QStringLiteral("2")}));
    EXPECT_EQ(read(json).toJson().value(PathKey), serverFolder().value(PathKey));
}

TEST_F(FolderResourceMetadata, EmptyListsAreWrittenAsEmptyTexts) {
    const QJsonObject json = HalvaneFolderResourceMetadata().toJson();
    EXPECT_EQ(json.value(GroupsKey), QJsonValue(QString()));
    EXPECT_EQ(json.value(PrivilegesKey), QJsonValue(QString()));
    EXPECT_EQ(json.value(PathKey), QJsonValue(QJsonArray{element(-1, QString())}));
}

TEST_F(FolderResourceMetadata, TheFirstParentOfAnItemCarriesTheFullPathAndTheOthersNothing) {
    const HalvaneFolderResourceMetadata metadata(
        folderItem(9, QStringLiteral("May"), 7),
        {QStringLiteral("lab"), QStringLiteral("raw"), QStringLiteral("2026")}, {2, 3, 7});
    const QJsonArray expected{element(2, QStringLiteral("lab/raw/2026/May")), element(3, QString()),
                              element(7, QString()), element(9, QStringLiteral("May"))};
    EXPECT_EQ(metadata.toJson().value(PathKey), QJsonValue(expected));
}

TEST_F(FolderResourceMetadata, NamesStopAtTheLengthOfThePathsText) {
    // Three parents and a path text of two characters: of a chain that was read only an empty name is cut.
    QJsonArray chain{element(2, QString()), element(3, QString()), element(7, QString()),
                     element(9, QStringLiteral("May"))};
    const HalvaneFolderResourceMetadata metadata = read(with(serverFolder(), PathKey, chain));
    EXPECT_EQ(metadata.path(), QStringLiteral("//"));
    EXPECT_EQ(metadata.toJson().value(PathKey), QJsonValue(chain));
    // An item whose ids outnumber its names: the path is empty, and so is every name but its own.
    const HalvaneFolderResourceMetadata item(folderItem(9, QStringLiteral("May"), 7), {}, {2, 3});
    EXPECT_EQ(item.toJson().value(PathKey),
              QJsonValue(QJsonArray{element(2, QString()), element(3, QString()),
                                    element(9, QStringLiteral("May"))}));
}

TEST_F(FolderResourceMetadata, TheLastNameWithinTheLengthOfThePathsTextIsWritten) {
    for (const QStringList& parents :
         {QStringList{QStringLiteral("a")}, QStringList{QString(), QStringLiteral("b")}}) {
        QJsonArray chain;
        for (const QString& parent : parents)
            chain.append(element(int(2 + chain.size()), parent));
        chain.append(element(9, QStringLiteral("May")));
        const HalvaneFolderResourceMetadata metadata = read(with(serverFolder(), PathKey, chain));
        EXPECT_EQ(metadata.path().size(), parents.size());
        EXPECT_EQ(metadata.toJson().value(PathKey), QJsonValue(chain));
    }
}

TEST_F(FolderResourceMetadata, AChainOfOneHasNoParents) {
    const HalvaneFolderResourceMetadata metadata =
        read(with(serverFolder(), PathKey, QJsonArray{element(9, QStringLiteral("May"))}));
    EXPECT_EQ(metadata.path(), QString());
    EXPECT_EQ(metadata.name(), QStringLiteral("May"));
    EXPECT_EQ(metadata.fullPath(), QStringLiteral("May"));
    EXPECT_TRUE(metadata.parentFolderIdsPath().isEmpty());
}

TEST_F(FolderResourceMetadata, AnEmptyChainLeavesTheNameAndTheIdsAndEmptiesThePath) {
    HalvaneFolderResourceMetadata metadata = otherFolder();
    ASSERT_FALSE(load(metadata, with(serverFolder(), PathKey, QJsonArray())).hasError());
    EXPECT_EQ(metadata.id(), 9);
    EXPECT_EQ(metadata.name(), QStringLiteral("old"));
    EXPECT_EQ(metadata.parentFolderIdsPath(), QList<int>{15});
    EXPECT_EQ(metadata.path(), QString());
    EXPECT_EQ(metadata.fullPath(), QString());
}

TEST_F(FolderResourceMetadata, TheOwnIdAndTheParentsAreNotTakenFromTheChain) {
    const HalvaneFolderResourceMetadata metadata =
        read(with(serverFolder(), PathKey,
                  QJsonArray{element(76, QStringLiteral("2026")), element(77, QStringLiteral("May"))}));
    EXPECT_EQ(metadata.id(), 9);
    EXPECT_EQ(metadata.parentId(), 7);
    EXPECT_EQ(metadata.parentFolderIdsPath(), QList<int>{76});
}

TEST_F(FolderResourceMetadata, NullPrivilegesAndGroupsLeaveWhatWasThere) {
    HalvaneFolderResourceMetadata metadata = otherFolder();
    ASSERT_FALSE(
        load(metadata, with(with(serverFolder(), PrivilegesKey, QJsonValue()), GroupsKey, QJsonValue()))
            .hasError());
    EXPECT_EQ(metadata.privileges(), (QSet<Privilege>{Privilege::Read, Privilege::Manage}));
    EXPECT_EQ(metadata.userGroups(), (QList<int>{3, 4}));
}

TEST_F(FolderResourceMetadata, EmptyOrWronglyTypedPrivilegesAndGroupsClearWhatWasThere) {
    for (const QJsonValue& value : {QJsonValue(QString()), QJsonValue(QStringLiteral(",,")),
                                    QJsonValue(QJsonArray{1, 2}), QJsonValue(1), QJsonValue(true)}) {
        HalvaneFolderResourceMetadata metadata = otherFolder();
        ASSERT_FALSE(load(metadata, with(serverFolder(), PrivilegesKey, value)).hasError());
        EXPECT_TRUE(metadata.privileges().isEmpty());
        EXPECT_EQ(metadata.userGroups(), (QList<int>{3, 4}));
        metadata = otherFolder();
        ASSERT_FALSE(load(metadata, with(serverFolder(), GroupsKey, value)).hasError());
        EXPECT_TRUE(metadata.userGroups().isEmpty());
        EXPECT_FALSE(metadata.privileges().isEmpty());
    }
}

TEST_F(FolderResourceMetadata, APrivilegeThatNobodyKnowsIsKeptAsItsNumber) {
    const HalvaneFolderResourceMetadata metadata =
        read(with(serverFolder(), PrivilegesKey, QStringLiteral("99")));
    EXPECT_EQ(metadata.privileges(), QSet<Privilege>{Privilege(99)});
    EXPECT_EQ(metadata.toJson().value(PrivilegesKey), QJsonValue(QStringLiteral("99")));
}

//! How many of the five steps of a load were taken, as the fields show it.
void expectSteps(const HalvaneFolderResourceMetadata& metadata, int steps) {
    EXPECT_EQ(metadata.id(), steps > 0 ? 9 : 20);
    EXPECT_EQ(metadata.parentId(), steps > 1 ? 7 : 15);
    EXPECT_EQ(metadata.privileges().contains(Privilege::AddFiles), steps > 2);
    EXPECT_EQ(metadata.userGroups(), steps > 3 ? QList<int>{8} : (QList<int>{3, 4}));
    EXPECT_EQ(metadata.name(), QStringLiteral("old"));
    EXPECT_EQ(metadata.path(), QStringLiteral("top"));
    EXPECT_EQ(metadata.fullPath(), QStringLiteral("top/old"));
    EXPECT_EQ(metadata.parentFolderIdsPath(), QList<int>{15});
}

void expectFailure(const QJsonObject& json, const QString& key, int steps) {
    HalvaneFolderResourceMetadata metadata = otherFolder();
    const Error error = load(metadata, json);
    EXPECT_TRUE(error.is(ErrorCode::ParseError)) << qPrintable(error.traceText());
    EXPECT_TRUE(error.errorMessage().contains(u'"' + key + u'"')) << qPrintable(error.errorMessage());
    EXPECT_TRUE(passedThrough(error, QStringLiteral("HalvaneFolderResourceMetadata::loadFromJson")));
    expectSteps(metadata, steps);
}

TEST_F(FolderResourceMetadata, TheFirstKeyThatIsMissingOrMistypedEndsTheLoadThere) {
    const QJsonObject json = with(serverFolder(), GroupsKey, QStringLiteral("8"));
    const QStringList keys{QStringLiteral("id"), QStringLiteral("parent_id"), PrivilegesKey, GroupsKey,
                           PathKey};
    for (qsizetype i = 0; i < keys.size(); ++i)
        expectFailure(without(json, keys[i]), keys[i], int(i));
    for (const qsizetype i : {0, 1, 4})
        expectFailure(with(json, keys[i], QStringLiteral("text")), keys[i], int(i));
}

TEST_F(FolderResourceMetadata, EveryElementOfTheChainNeedsItsNameAndItsId) {
    const QJsonObject json = with(serverFolder(), GroupsKey, QStringLiteral("8"));
    const QString name = QStringLiteral("folder_name");
    const QString id = QStringLiteral("folder_id");
    const QJsonObject good = element(3, QStringLiteral("raw"));
    const auto expectBad = [&](const QJsonValue& bad, const QString& key) {
        expectFailure(with(json, PathKey, QJsonArray{good, bad}), key, 4);
    };
    expectBad(without(good, name), name);
    expectBad(with(good, name, 5), name);
    expectBad(without(good, id), id);
    expectBad(with(good, id, QStringLiteral("3")), id);
    expectBad(QJsonValue(5), name); // no object: read as an empty one, whose name is missing first
}

TEST_F(FolderResourceMetadata, APartThatIsNoWholeNumberFailsUntranslated) {
    const ContextTranslator translator;
    HalvaneFolderResourceMetadata metadata = otherFolder();
    const QSet<Privilege> before = metadata.privileges();
    for (const QString& key : {PrivilegesKey, GroupsKey}) {
        const Error error = load(metadata, with(serverFolder(), key, QStringLiteral("8,x,y")));
        if (key == PrivilegesKey) {
            EXPECT_EQ(metadata.privileges(), before) << "not even the part before the wrong one";
        }
        EXPECT_TRUE(error.is(ErrorDomain::General, 2));
        EXPECT_EQ(error.errorMessage(), QStringLiteral("x is not an integer number"));
        EXPECT_TRUE(passedThrough(error, QStringLiteral("HalvaneFolderResourceMetadata::loadFromJson")));
    }
    EXPECT_EQ(metadata.userGroups(), (QList<int>{3, 4}));
}

TEST_F(FolderResourceMetadata, FromJsonPassesTheErrorOn) {
    const auto metadata = HalvaneFolderResourceMetadata::fromJson({});
    ASSERT_TRUE(metadata.hasError());
    EXPECT_TRUE(
        passedThrough(metadata.error(), QStringLiteral("HalvaneFolderResourceMetadata::loadFromJson")));
    EXPECT_TRUE(passedThrough(metadata.error(), QStringLiteral("HalvaneFolderResourceMetadata::fromJson")));
}

} // namespace
} // namespace orx::testing
