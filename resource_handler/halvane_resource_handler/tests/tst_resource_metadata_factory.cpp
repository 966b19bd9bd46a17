// What files and folders have in common, and how JSON becomes metadata again.
#include "HalvaneFileResourceMetadata.h"
#include "HalvaneFolderResourceMetadata.h"
#include "HalvaneResourceMetadataCreator.h"
#include "MetadataProbes.h"

#include <ResourceMetadataFactory.h>

namespace orx::testing {
namespace {

const QString ItemTypeKey = QStringLiteral("ItemType");
const QString CreatorName = QStringLiteral("HalvaneResourceMetadataCreator::create");
const QString CreateAsName = QStringLiteral("createAs");

QJsonObject fileJson() {
    return HalvaneFileResourceMetadata(fileItem(12, QStringLiteral("run1.mzML")), {QStringLiteral("raw")},
                                       {3})
        .toJson();
}

QJsonObject folderJson() {
    return HalvaneFolderResourceMetadata().toJson();
}

//! The registration of the scheme while the object lives.
struct Registered {
    Registered() { HalvaneResourceMetadata::registerType(); }
    ~Registered() { HalvaneResourceMetadata::unregisterType(); }
};

TEST(ResourceMetadataBase, IsAbstractAndOfTheSchemeOfHalvaneReferences) {
    static_assert(std::is_abstract_v<HalvaneResourceMetadata>);
    static_assert(std::is_base_of_v<ResourceMetadata, HalvaneResourceMetadata>);
    EXPECT_EQ(int(HalvaneResourceMetadata::schemeType()), 1);
    EXPECT_EQ(HalvaneResourceMetadata::schemeType(), HalvaneResourceReference::schemeType);
}

TEST(ResourceMetadataBase, TheTypeFollowsFromTheName) {
    const auto fileNamed = [](const QString& name) {
        return HalvaneFileResourceMetadata(fileItem(1, name), {}, {}).type();
    };
    EXPECT_EQ(fileNamed(QStringLiteral("run1.mzML")), FileTypes::MZML);
    EXPECT_EQ(fileNamed(QStringLiteral("run1.vonk")), FileTypes::VONK);
    EXPECT_EQ(fileNamed(QStringLiteral("run1")), FileTypes::fileToType(QStringLiteral("run1")));
    EXPECT_EQ(fileNamed(QStringLiteral("run1")), FileTypes::UNKNOWN);
    HalvaneFolderItem folder;
    folder.setName(QStringLiteral("odd.mgf"));
    EXPECT_EQ(HalvaneFolderResourceMetadata(folder, {}, {}).type(), FileTypes::MGF);
}

TEST(ResourceMetadataBase, TheTypeDoesNotFollowFromThePath) {
    const QJsonObject json = with(fileJson(), QStringLiteral("FullPath"), QStringLiteral("raw/blank.mgf"));
    const auto file = HalvaneResourceMetadataCreator::create(json);
    ASSERT_FALSE(file.hasError());
    EXPECT_EQ((*file)->fullPath(), QStringLiteral("raw/blank.mgf"));
    EXPECT_EQ((*file)->type(), FileTypes::MZML);
}

TEST(ResourceMetadataBase, TheIdsPathEndsWithTheItemItself) {
    const HalvaneFileResourceMetadata file(fileItem(12, QStringLiteral("run1.mzML")),
                                           {QStringLiteral("raw"), QStringLiteral("2026")}, {3, 7});
    QList<int> ids = file.idsPath();
    EXPECT_EQ(ids, (QList<int>{3, 7, 12}));
    EXPECT_TRUE(ids.isDetached());
    EXPECT_EQ(file.parentFolderIdsPath(), (QList<int>{3, 7}));
    const HalvaneFileResourceMetadata inRoot(fileItem(12, QStringLiteral("run1.mzML")), {}, {});
    EXPECT_EQ(inRoot.idsPath(), QList<int>{12});
    EXPECT_TRUE(inRoot.idsPath().isDetached());
}

TEST(ResourceMetadataCreator, MakesAFile) {
    const auto metadata = HalvaneResourceMetadataCreator::create(fileJson());
    ASSERT_FALSE(metadata.hasError()) << qPrintable(metadata.error().traceText());
    const auto file = metadata->dynamicCast<HalvaneFileResourceMetadata>();
    ASSERT_TRUE(file);
    EXPECT_EQ(file->toJson(), fileJson());
}

TEST(ResourceMetadataCreator, MakesAFolder) {
    const auto metadata = HalvaneResourceMetadataCreator::create(folderJson());
    ASSERT_FALSE(metadata.hasError()) << qPrintable(metadata.error().traceText());
    const auto folder = metadata->dynamicCast<HalvaneFolderResourceMetadata>();
    ASSERT_TRUE(folder);
    EXPECT_EQ(folder->toJson(), folderJson());
}

TEST(ResourceMetadataCreator, WithoutATextForTheItemTypeItFailsAsJsonUtilsSays) {
    for (const QJsonObject& json : {without(fileJson(), ItemTypeKey), with(fileJson(), ItemTypeKey, 1)}) {
        const auto metadata = HalvaneResourceMetadataCreator::create(json);
        ASSERT_TRUE(metadata.hasError());
        EXPECT_TRUE(metadata.error().is(ErrorCode::ParseError));
        EXPECT_TRUE(metadata.errorMessage().contains(QStringLiteral("\"ItemType\"")));
        EXPECT_TRUE(passedThrough(metadata.error(), CreatorName));
    }
}

TEST(ResourceMetadataCreator, AnItemTypeThatIsNeitherFileNorFolderFailsUntranslated) {
    const ContextTranslator translator;
    const QList<QString> texts{QStringLiteral("file"),
                               QStringLiteral("FOLDER"),
                               QStringLiteral("Unknown"),
                               QString(),
                               QStringLiteral("File "),
                               QStringLiteral("1"),
                               QStringLiteral("Fil"),
                               QStringLiteral("Folder2"),
                               QStringLiteral("File") + QChar(0) + u'x',
                               QStringLiteral("orx::ResourceMetadata::File")};
    for (const QString& text : texts) {
        const auto metadata = HalvaneResourceMetadataCreator::create(with(fileJson(), ItemTypeKey, text));
        ASSERT_TRUE(metadata.hasError()) << qPrintable(text);
        EXPECT_TRUE(metadata.error().is(ErrorDomain::General, 1));
        EXPECT_EQ(metadata.errorMessage(), QStringLiteral("Unable to create metadata of Halvane resource."));
    }
}

TEST(ResourceMetadataCreator, WhatTheClassRejectsIsStampedOnceByTheFrameworkAndOnceHere) {
    const auto file = HalvaneResourceMetadataCreator::create(without(fileJson(), QStringLiteral("Path")));
    ASSERT_TRUE(file.hasError());
    const auto folder = HalvaneResourceMetadataCreator::create(without(folderJson(), QStringLiteral("id")));
    ASSERT_TRUE(folder.hasError());
    EXPECT_TRUE(passedThrough(file.error(), QStringLiteral("HalvaneFileResourceMetadata::loadFromJson")));
    EXPECT_TRUE(passedThrough(folder.error(), QStringLiteral("HalvaneFolderResourceMetadata::loadFromJson")));
    for (const Error& error : {file.error(), folder.error()}) {
        EXPECT_EQ(stampsOf(error, QStringLiteral(" orx::ResourceMetadata::create")), 1)
            << qPrintable(error.traceText());
        EXPECT_EQ(stampsOf(error, CreateAsName), 1) << qPrintable(error.traceText());
    }
}

TEST(ResourceMetadataRegistration, LastsFromRegisteringToUnregistering) {
    const auto create = [] {
        return ResourceMetadataFactory::create(HalvaneResourceReference::schemeType, fileJson());
    };
    EXPECT_TRUE(create().error().is(ErrorCode::NotFound));
    {
        const Registered registered;
        const auto metadata = create();
        ASSERT_FALSE(metadata.hasError());
        EXPECT_TRUE(metadata->dynamicCast<HalvaneFileResourceMetadata>());
        EXPECT_EQ((*metadata)->fullPath(), QStringLiteral("raw/run1.mzML"));
    }
    EXPECT_TRUE(create().error().is(ErrorCode::NotFound));
}

TEST(ResourceMetadataRegistration, TheRegisteredCallStampsTheErrorItPassesOn) {
    const Registered registered;
    const QJsonObject json = with(fileJson(), ItemTypeKey, QStringLiteral("Neither"));
    const auto metadata = ResourceMetadataFactory::create(HalvaneResourceReference::schemeType, json);
    ASSERT_TRUE(metadata.hasError());
    EXPECT_EQ(metadata.errorMessage(), QStringLiteral("Unable to create metadata of Halvane resource."));
    EXPECT_TRUE(passedThrough(metadata.error(), QStringLiteral("createMetadata")));
}

} // namespace
} // namespace orx::testing
