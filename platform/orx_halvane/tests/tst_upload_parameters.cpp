#include "HalvaneFileUploadParameters.h"

#include <QFile>
#include <QMetaEnum>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace orx;
using ItemType = HalvaneResourceReference::ItemType;

namespace {

using Compact = QList<HalvaneCompactExtendedMetaDataValue>;

Result<HalvaneFileUploadParameters>
create(const QString& path, const std::optional<QString>& name = std::nullopt, int target = 7) {
    return HalvaneFileUploadParameters::create(path, target, ItemType::Folder, QString(), std::nullopt, {},
                                               name);
}

Result<HalvaneFileUploadParameters> createWith(const Compact& values) {
    return HalvaneFileUploadParameters::create(QString(), 7, ItemType::Folder, QString(),
                                               std::optional(values), {}, std::nullopt);
}

} // namespace

TEST(HalvaneUploadParameters, DescribeTheUpload) {
    const QTemporaryDir dir;
    QFile file(dir.filePath(QStringLiteral("run1.mzML")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    ASSERT_EQ(file.write("12345"), 5);
    file.close();

    const Compact metadata = {{QStringLiteral("operator"), QStringLiteral("anna")}};
    const auto parameters = HalvaneFileUploadParameters::create(
        file.fileName(), 12, ItemType::File, QStringLiteral("first"), std::optional(metadata),
        HalvaneUploadPolicyOption::NewVersionByName | HalvaneUploadPolicyOption::KeepGoing,
        QStringLiteral("other.mzML"));
    ASSERT_TRUE(parameters) << qPrintable(parameters.errorMessage());
    EXPECT_EQ(parameters->localPath, file.fileName());
    EXPECT_EQ(parameters->targetId, 12);
    EXPECT_EQ(parameters->targetItemType, ItemType::File);
    EXPECT_EQ(parameters->originalTargetId, 12);
    EXPECT_EQ(parameters->originalTargetItemType, ItemType::File);
    EXPECT_EQ(parameters->alias, QStringLiteral("first"));
    EXPECT_EQ(parameters->extendedMetadata, metadata);
    EXPECT_EQ(parameters->policyOptions.toInt(), 5);
    EXPECT_EQ(parameters->targetFileName, QStringLiteral("other.mzML"));
    EXPECT_EQ(parameters->fileSize, 5);
}

TEST(HalvaneUploadParameters, TheNameIsThatOfTheFileUnlessOneIsGiven) {
    EXPECT_EQ(create(QStringLiteral("/data/run1.mzML"))->targetFileName, QStringLiteral("run1.mzML"));
    EXPECT_EQ(create(QStringLiteral("/data/run1.mzML"), QString())->targetFileName,
              QStringLiteral("run1.mzML"));
    EXPECT_EQ(create(QStringLiteral("/data/run1.mzML"), QStringLiteral("b"))->targetFileName,
              QStringLiteral("b"));
}

TEST(HalvaneUploadParameters, LeaveMissingAndEmptyPathsToTheTasks) {
    for (const QString& path : {QString(), QStringLiteral("/no/such/file")}) {
        const auto parameters = create(path);
        ASSERT_TRUE(parameters) << qPrintable(path);
        EXPECT_EQ(parameters->fileSize, -1);
        EXPECT_FALSE(parameters->extendedMetadata);
    }
}

TEST(HalvaneUploadParameters, RefuseATargetThatIsNone) {
    for (const int target : {0, -1}) {
        const auto parameters = create(QStringLiteral("/a"), std::nullopt, target);
        ASSERT_TRUE(parameters.hasError());
        EXPECT_TRUE(parameters.error().is(ErrorCode::InvalidArgument));
        EXPECT_TRUE(parameters.errorMessage().contains(QString::number(target)));
    }
}

TEST(HalvaneUploadParameters, AnEmptyListOfMetadataIsPresent) {
    const auto parameters = createWith({});
    ASSERT_TRUE(parameters);
    ASSERT_TRUE(parameters->extendedMetadata);
    EXPECT_TRUE(parameters->extendedMetadata->isEmpty());
}

TEST(HalvaneUploadParameters, RefuseMetadataThatTheServerWouldRefuse) {
    const QString key = QStringLiteral("k");
    EXPECT_TRUE(createWith({{QString(), QStringLiteral("v")}}).error().is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(createWith({{QString(255, u'k'), QString()}}));
    EXPECT_TRUE(createWith({{QString(256, u'k'), QString()}}).hasError());
    EXPECT_TRUE(createWith({{QString(128, u'\u00e4'), QString()}}).hasError())
        << "bytes count, not characters";
    EXPECT_TRUE(createWith({{key, QString(65536, u'v')}}));
    EXPECT_TRUE(createWith({{key, QString(65537, u'v')}}).hasError());
    EXPECT_TRUE(createWith(Compact(1000, {key, QString()})));
    EXPECT_TRUE(createWith(Compact(1001, {key, QString()})).hasError());
}

TEST(HalvaneUploadParameters, TakeTheDescribedFormOfMetadataToo) {
    const QList<HalvaneExtendedMetaDataValue> values = {
        {QStringLiteral("operator"), QStringLiteral("anna"), QStringLiteral("Who measured")}};
    const auto parameters = HalvaneFileUploadParameters::create(QString(), 7, ItemType::Folder, QString(),
                                                                std::optional(values), {}, std::nullopt);
    ASSERT_TRUE(parameters);
    EXPECT_EQ(*parameters->extendedMetadata, (Compact{{QStringLiteral("operator"), QStringLiteral("anna")}}));
}

TEST(HalvaneUploadParameters, PolicyOptionsHaveFixedValues) {
    EXPECT_EQ(int(HalvaneUploadPolicyOption::NewVersionByName), 1);
    EXPECT_EQ(int(HalvaneUploadPolicyOption::ReplaceWithoutVersionCheck), 2);
    EXPECT_EQ(int(HalvaneUploadPolicyOption::KeepGoing), 4);
    EXPECT_STREQ(QMetaEnum::fromType<HalvaneUploadPolicyOption>().valueToKey(2),
                 "ReplaceWithoutVersionCheck");
}
