// Metadata: the keys that all share, their way through JSON and through a task's result, and the registry.
#include "ResourceProbes.h"

#include <QJsonDocument>
#include <QMetaEnum>

using namespace orx;
using namespace orx::probes;

namespace {

constexpr auto kScheme = ResourceReference::Scheme::Halvane;
using ItemType = ResourceMetadata::ItemType;

QJsonObject json(const char* text) {
    return QJsonDocument::fromJson(text).object();
}

class ResourceMetadataFactoryTest : public ::testing::Test {
protected:
    void TearDown() override { ResourceMetadataFactory::unregisterMetadataScheme(kScheme); }

    static void registerFactory(ResourceMetadataFactory::Factory factory) {
        ResourceMetadataFactory::registerMetadataScheme(kScheme, std::move(factory));
    }
    static void registerNamed(const QString& name) {
        registerFactory([name](const QJsonObject&) -> Result<QSharedPointer<ResourceMetadata>> {
            return QSharedPointer<ResourceMetadata>(new SampleMetadata(name));
        });
    }
};

} // namespace

TEST(ResourceMetadataTest, WritesTheCommonKeysThroughItsAccessors) {
    const struct {
        ItemType type;
        const char* text;
    } rows[] = {
        {ItemType::File, R"({"FullPath":"raw/2026/run1.mzML","ItemType":"File","Path":"raw/2026"})"},
        {ItemType::Folder, R"({"FullPath":"raw/2026/run1.mzML","ItemType":"Folder","Path":"raw/2026"})"},
        {ItemType::Unknown, R"({"FullPath":"raw/2026/run1.mzML","ItemType":"Unknown","Path":"raw/2026"})"},
        {ItemType(9), R"({"FullPath":"raw/2026/run1.mzML","ItemType":"","Path":"raw/2026"})"},
    };
    SampleMetadata metadata(QStringLiteral("run1.mzML"));
    for (const auto& row : rows) {
        metadata.setItemType(row.type);
        EXPECT_EQ(QJsonDocument(metadata.toJson()).toJson(QJsonDocument::Compact).toStdString(), row.text);
    }
}

TEST(ResourceMetadataTest, ItemTypesHaveTheirValuesAndKeys) {
    const auto keys = QMetaEnum::fromType<ItemType>();
    EXPECT_STREQ(keys.name(), "ItemType");
    EXPECT_EQ(ResourceMetadata::staticMetaObject.indexOfEnumerator("ItemType"), 0);
    EXPECT_EQ(keys.keyToValue("Unknown"), 0);
    EXPECT_EQ(keys.keyToValue("File"), 1);
    EXPECT_EQ(keys.keyToValue("Folder"), 2);
    EXPECT_EQ(keys.keyCount(), 3);
}

TEST(ResourceMetadataTest, IsMadeFromJson) {
    const auto metadata =
        ResourceMetadata::create<SampleMetadata>(json(R"({"Name": "a.mgf", "Comment": "x"})"));
    ASSERT_TRUE(metadata) << qPrintable(metadata.errorMessage());
    EXPECT_EQ((*metadata)->name(), QStringLiteral("a.mgf"));
    EXPECT_EQ((*metadata)->type(), FileTypes::MGF);
}

TEST(ResourceMetadataTest, JsonThatCannotBeReadIsAnErrorThatNamesThePlace) {
    const auto metadata = ResourceMetadata::create<SampleMetadata>(json(R"({"Name": "a.mgf"})"));
    ASSERT_TRUE(metadata.hasError());
    EXPECT_TRUE(metadata.error().is(ErrorCode::ParseError));
    EXPECT_TRUE(metadata.errorMessage().contains(QStringLiteral("Comment")));
    ASSERT_FALSE(metadata.error().trace().isEmpty());
    EXPECT_TRUE(metadata.error().trace().constLast().file.endsWith(QStringLiteral("ResourceMetadata.h")));
}

TEST(ResourceMetadataTest, TravelsInAVariantUnderItsFixedTypeName) {
    const QSharedPointer<ResourceMetadata> metadata(new SampleMetadata(QStringLiteral("run1.mzML")));
    const QVariant variant = ResourceMetadata::toVariant(metadata);
    EXPECT_STREQ(variant.typeName(), "QSharedPointer<orx::ResourceMetadata>");
    EXPECT_STREQ(variant.metaType().name(), "QSharedPointer<orx::ResourceMetadata>");
    EXPECT_EQ(QMetaType::fromName("QSharedPointer<orx::ResourceMetadata>"),
              ResourceMetadata::sharedPointerType());
    EXPECT_EQ(variant.value<QSharedPointer<ResourceMetadata>>(), metadata);
    EXPECT_EQ(ResourceMetadata::fromVariant(variant), metadata);
    EXPECT_EQ(ResourceMetadata::fromVariant(QVariant::fromValue(metadata)), metadata);
}

TEST(ResourceMetadataTest, AVariantOfAnotherTypeHoldsNoMetadata) {
    EXPECT_FALSE(ResourceMetadata::fromVariant(QVariant()));
    EXPECT_FALSE(ResourceMetadata::fromVariant(QVariant(7)));
    const QSharedPointer<SampleMetadata> derived(new SampleMetadata(QStringLiteral("run1.mzML")));
    EXPECT_FALSE(ResourceMetadata::fromVariant(QVariant::fromValue(derived)));
}

TEST_F(ResourceMetadataFactoryTest, SaysWhichSchemeIsNotRegistered) {
    expectError(ResourceMetadataFactory::create(kScheme, {}), ErrorCode::NotFound,
                QStringLiteral("No metadata is registered for resources of the scheme \"Halvane\"."));
    expectError(ResourceMetadataFactory::create(ResourceReference::Scheme(9), {}), ErrorCode::NotFound,
                QStringLiteral("No metadata is registered for resources of the scheme \"9\"."));
}

TEST_F(ResourceMetadataFactoryTest, GivesWhatTheSchemeMakesOfTheJson) {
    registerFactory([](const QJsonObject& object) -> Result<QSharedPointer<ResourceMetadata>> {
        auto metadata = ResourceMetadata::create<SampleMetadata>(object);
        if (metadata.hasError())
            return metadata.error();
        return metadata->staticCast<ResourceMetadata>();
    });
    const auto metadata =
        ResourceMetadataFactory::create(kScheme, json(R"({"Name": "a.mgf", "Comment": "x"})"));
    ASSERT_TRUE(metadata) << qPrintable(metadata.errorMessage());
    EXPECT_EQ((*metadata)->name(), QStringLiteral("a.mgf"));
    EXPECT_TRUE(ResourceMetadataFactory::create(kScheme, {}).error().is(ErrorCode::ParseError));
}

TEST_F(ResourceMetadataFactoryTest, ALaterRegistrationReplacesTheEarlier) {
    registerNamed(QStringLiteral("first"));
    registerNamed(QStringLiteral("second"));
    EXPECT_EQ((*ResourceMetadataFactory::create(kScheme, {}))->name(), QStringLiteral("second"));
}

TEST_F(ResourceMetadataFactoryTest, AnUnregisteredSchemeIsUnknownAgain) {
    registerNamed(QStringLiteral("first"));
    ResourceMetadataFactory::unregisterMetadataScheme(kScheme);
    EXPECT_TRUE(ResourceMetadataFactory::create(kScheme, {}).error().is(ErrorCode::NotFound));
    ResourceMetadataFactory::unregisterMetadataScheme(kScheme); // nothing to remove, nothing to say
}

TEST_F(ResourceMetadataFactoryTest, AFactoryThatMakesNothingIsAnError) {
    registerFactory([](const QJsonObject&) -> Result<QSharedPointer<ResourceMetadata>> {
        return QSharedPointer<ResourceMetadata>();
    });
    expectError(ResourceMetadataFactory::create(kScheme, {}), ErrorCode::General,
                QStringLiteral("No metadata was made for a resource of the scheme \"Halvane\"."));
}

TEST_F(ResourceMetadataFactoryTest, AFactoryMayUseTheRegistryItself) {
    registerFactory([](const QJsonObject& object) -> Result<QSharedPointer<ResourceMetadata>> {
        registerNamed(QStringLiteral("inner"));
        return ResourceMetadataFactory::create(kScheme, object);
    });
    EXPECT_EQ((*ResourceMetadataFactory::create(kScheme, {}))->name(), QStringLiteral("inner"));
}
