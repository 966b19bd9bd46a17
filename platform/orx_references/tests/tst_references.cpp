#include "HalvaneResourceReference.h"

#include <QMetaEnum>

#include <gtest/gtest.h>

#include <limits>

using namespace orx;
using ItemType = HalvaneResourceReference::ItemType;

TEST(HalvaneReferences, FileKnowsItsPartsAndTexts) {
    const auto reference = HalvaneFileResourceReference::create(12, 3, QStringLiteral("run1.mzML"));
    ASSERT_TRUE(reference) << qPrintable(reference.errorMessage());
    const HalvaneFileResourceReferenceSPtr& file = *reference;
    EXPECT_EQ(file->scheme(), ResourceReference::Scheme::Halvane);
    EXPECT_EQ(file->itemType(), ItemType::File);
    EXPECT_EQ(file->id(), 12);
    EXPECT_EQ(file->version(), 3);
    EXPECT_EQ(file->name(), QStringLiteral("run1.mzML"));
    EXPECT_TRUE(file->variant().isEmpty());
    EXPECT_EQ(file->toText(), QStringLiteral("file:12@3"));
    EXPECT_EQ(file->displayText(), QStringLiteral("run1.mzML (file:12@3)"));
}

TEST(HalvaneReferences, DisplayTextKeepsPlaceMarkersOfTheName) {
    const auto file = HalvaneFileResourceReference::create(1, 2, QStringLiteral("%1 of %2"));
    EXPECT_EQ((*file)->displayText(), QStringLiteral("%1 of %2 (file:1@2)"));
}

TEST(HalvaneReferences, FileKeepsItsVariant) {
    const auto file = HalvaneFileResourceReference::create(
        1, 1, QStringLiteral("a"), HalvaneFileResourceReference::FileKind::ByName, QStringLiteral("v"));
    EXPECT_EQ((*file)->variant(), QStringLiteral("v"));
}

TEST(HalvaneReferences, FolderKnowsItsPartsAndTexts) {
    const auto reference = HalvaneFolderResourceReference::create(7, QStringLiteral("2026"));
    ASSERT_TRUE(reference);
    EXPECT_EQ((*reference)->itemType(), ItemType::Folder);
    EXPECT_EQ((*reference)->toText(), QStringLiteral("folder:7"));
    EXPECT_EQ((*reference)->displayText(), QStringLiteral("2026 (folder:7)"));
}

TEST(References, OnlyAVersionOfAFileIsOneContentForEver) {
    const ResourceReferenceSPtr file = *HalvaneFileResourceReference::create(1, 1, QStringLiteral("a"));
    const ResourceReferenceSPtr folder = *HalvaneFolderResourceReference::create(1, QStringLiteral("a"));
    EXPECT_TRUE(file->namesOneContent());
    EXPECT_FALSE(folder->namesOneContent());
    EXPECT_FALSE(LocalFileResourceReference(QStringLiteral("/a")).namesOneContent());
}

TEST(HalvaneReferences, RefuseWhatNamesNothing) {
    for (const int bad : {0, -1, std::numeric_limits<int>::min()}) {
        const auto noId = HalvaneFileResourceReference::create(bad, 1, QStringLiteral("a"));
        ASSERT_TRUE(noId.hasError());
        EXPECT_TRUE(noId.error().is(ErrorCode::InvalidArgument));
        EXPECT_TRUE(noId.errorMessage().contains(QString::number(bad))) << qPrintable(noId.errorMessage());
        EXPECT_TRUE(HalvaneFileResourceReference::create(1, bad, QStringLiteral("a"))
                        .error()
                        .is(ErrorCode::InvalidArgument));
        EXPECT_TRUE(HalvaneFolderResourceReference::create(bad, QStringLiteral("a"))
                        .error()
                        .is(ErrorCode::InvalidArgument));
    }
    EXPECT_TRUE(HalvaneFileResourceReference::create(1, 1, QString()).error().is(ErrorCode::InvalidArgument));
}

TEST(HalvaneReferences, ItemTypesHaveFixedValuesAndNames) {
    EXPECT_EQ(int(ItemType::File), 0);
    EXPECT_EQ(int(ItemType::Folder), 1);
    EXPECT_STREQ(QMetaEnum::fromType<ItemType>().valueToKey(1), "Folder");
}

TEST(LocalFileReference, IsNamedAfterItsFile) {
    const LocalFileResourceReference reference(QStringLiteral("/data/raw/run1.mzML"));
    EXPECT_EQ(reference.scheme(), ResourceReference::Scheme::LocalFile);
    EXPECT_EQ(reference.name(), QStringLiteral("run1.mzML"));
    EXPECT_EQ(reference.displayText(), reference.path());
}

TEST(HalvaneReferenceText, ReadsTheThreeForms) {
    struct Row {
        QString text;
        ItemType type;
        int id;
        int version;
    };
    const QList<Row> rows = {
        {QStringLiteral("file:12"), ItemType::File, 12, 0},
        {QStringLiteral("file:12@3"), ItemType::File, 12, 3},
        {QStringLiteral("folder:7"), ItemType::Folder, 7, 0},
        {QStringLiteral("file:2147483647@2147483647"), ItemType::File, 2147483647, 2147483647},
    };
    for (const Row& row : rows) {
        const auto parsed = HalvaneReferenceText::parse(row.text);
        ASSERT_TRUE(parsed) << qPrintable(parsed.errorMessage());
        EXPECT_EQ(parsed->itemType, row.type);
        EXPECT_EQ(parsed->id, row.id);
        EXPECT_EQ(parsed->version, row.version);
    }
}

TEST(HalvaneReferenceText, ReadsBackWhatReferencesWrite) {
    const auto file = HalvaneFileResourceReference::create(5, 9, QStringLiteral("a"));
    const auto parsed = HalvaneReferenceText::parse((*file)->toText());
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->id, 5);
    EXPECT_EQ(parsed->version, 9);
}

TEST(HalvaneReferenceText, RefusesEverythingElseAndShowsTheForms) {
    const QStringList bad = {
        QString(),
        QStringLiteral("file:"),
        QStringLiteral("file:0"),
        QStringLiteral("file:-1"),
        QStringLiteral("file:+1"),
        QStringLiteral("file:012"),
        QStringLiteral("file: 1"),
        QStringLiteral("file:1 "),
        QStringLiteral("file:1.5"),
        QStringLiteral("file:1e3"),
        QStringLiteral("file:0x10"),
        QStringLiteral("file:1,000"),
        QStringLiteral("file:2147483648"),
        QStringLiteral("file:99999999999999999999999"),
        QString::fromUtf8("file:\xd9\xa3"), // a digit, but not an ASCII one
        QStringLiteral("file:1@"),
        QStringLiteral("file:1@0"),
        QStringLiteral("file:1@-1"),
        QStringLiteral("file:1@2@3"),
        QStringLiteral("file:@1"),
        QStringLiteral("file:1@2147483648"),
        QStringLiteral("folder:7@1"),
        QStringLiteral("folder:"),
        QStringLiteral("folder:seven"),
        QStringLiteral("File:1"),
        QStringLiteral("12"),
        QStringLiteral("/raw/2026"),
        QStringLiteral(" file:1"),
    };
    for (const QString& text : bad) {
        const auto parsed = HalvaneReferenceText::parse(text);
        ASSERT_TRUE(parsed.hasError()) << qPrintable(text);
        EXPECT_TRUE(parsed.error().is(ErrorCode::InvalidArgument)) << qPrintable(text);
        EXPECT_TRUE(parsed.errorMessage().contains(QStringLiteral("file:12@3"))) << qPrintable(text);
        EXPECT_TRUE(parsed.errorMessage().startsWith(u'"' + text + u'"')) << qPrintable(text);
    }
}

TEST(HalvaneReferenceText, TellsReferencesFromRemotePaths) {
    EXPECT_TRUE(HalvaneReferenceText::looksLikeReference(QStringLiteral("file:12")));
    EXPECT_TRUE(HalvaneReferenceText::looksLikeReference(QStringLiteral("folder:abc")));
    EXPECT_FALSE(HalvaneReferenceText::looksLikeReference(QStringLiteral("/file:12")));
    EXPECT_FALSE(HalvaneReferenceText::looksLikeReference(QStringLiteral("files/12")));
    EXPECT_FALSE(HalvaneReferenceText::looksLikeReference(QString()));
}
