// Which scheme makes which handler.
#include "ResourceProbes.h"

using namespace orx;
using namespace orx::probes;

namespace {

constexpr auto kScheme = ResourceReference::Scheme::Halvane;

class ResourceManagerTest : public ::testing::Test {
protected:
    void TearDown() override {
        ResourceHandlerFactory::unregisterResourceHandlerScheme(kScheme);
        ResourceManager::setCache(nullptr);
    }
};

ResourceHandlerFactory::Factory fakeFactory() {
    return [](const ResourceReferenceSPtr& reference,
              ResourceCache* cache) -> Result<QSharedPointer<ResourceHandler>> {
        return QSharedPointer<ResourceHandler>(new SampleHandler(reference, cache));
    };
}

} // namespace

TEST_F(ResourceManagerTest, SaysWhichSchemeIsNotRegistered) {
    const auto handler = ResourceManager::getHandler(sampleReference());
    ASSERT_TRUE(handler.hasError());
    EXPECT_TRUE(handler.error().is(ErrorCode::NotFound));
    EXPECT_EQ(handler.errorMessage(),
              QStringLiteral("No handler is registered for resources of the scheme \"Halvane\"; "
                             "\"run1.mzML (file:12@3)\" cannot be handled."));
}

TEST_F(ResourceManagerTest, RefusesANullReference) {
    ResourceHandlerFactory::registerResourceHandlerScheme(kScheme, fakeFactory());
    expectError(ResourceManager::getHandler(nullptr), ErrorCode::InvalidArgument,
                QStringLiteral("No reference was given to make a handler for."));
}

TEST_F(ResourceManagerTest, GivesTheHandlerThatTheSchemeMakes) {
    ResourceHandlerFactory::registerResourceHandlerScheme(kScheme, fakeFactory());
    const ResourceReferenceSPtr reference = sampleReference();
    const auto handler = ResourceManager::getHandler(reference);
    ASSERT_TRUE(handler) << qPrintable(handler.errorMessage());
    EXPECT_EQ((*handler)->reference(), reference);
    EXPECT_EQ(handler->staticCast<SampleHandler>()->cache(), nullptr);
}

TEST_F(ResourceManagerTest, NewHandlersGetTheCacheOfTheManager) {
    ResourceHandlerFactory::registerResourceHandlerScheme(kScheme, fakeFactory());
    EXPECT_EQ(ResourceManager::cache(), nullptr);
    ResourceCache cache(QStringLiteral("/nowhere")); // not used, so that nothing is made there
    ResourceManager::setCache(&cache);
    EXPECT_EQ(ResourceManager::cache(), &cache);
    const auto handler = ResourceManager::getHandler(sampleReference());
    ASSERT_TRUE(handler) << qPrintable(handler.errorMessage());
    EXPECT_EQ(handler->staticCast<SampleHandler>()->cache(), &cache);
}

TEST_F(ResourceManagerTest, ALaterRegistrationReplacesTheEarlier) {
    ResourceHandlerFactory::registerResourceHandlerScheme(
        kScheme, [](const ResourceReferenceSPtr&, ResourceCache*) -> Result<QSharedPointer<ResourceHandler>> {
            return Error(ErrorCode::General, QStringLiteral("the first"));
        });
    EXPECT_EQ(ResourceManager::getHandler(sampleReference()).errorMessage(), QStringLiteral("the first"));
    ResourceHandlerFactory::registerResourceHandlerScheme(kScheme, fakeFactory());
    EXPECT_TRUE(ResourceManager::getHandler(sampleReference()));
}

TEST_F(ResourceManagerTest, AnUnregisteredSchemeIsUnknownAgain) {
    ResourceHandlerFactory::registerResourceHandlerScheme(kScheme, fakeFactory());
    ResourceHandlerFactory::unregisterResourceHandlerScheme(kScheme);
    EXPECT_TRUE(ResourceManager::getHandler(sampleReference()).error().is(ErrorCode::NotFound));
}

TEST_F(ResourceManagerTest, AFactoryThatMakesNothingIsAnError) {
    ResourceHandlerFactory::registerResourceHandlerScheme(
        kScheme, [](const ResourceReferenceSPtr&, ResourceCache*) -> Result<QSharedPointer<ResourceHandler>> {
            return QSharedPointer<ResourceHandler>();
        });
    expectError(ResourceManager::getHandler(sampleReference()), ErrorCode::General,
                QStringLiteral("No handler was made for \"run1.mzML (file:12@3)\"."));
}

TEST_F(ResourceManagerTest, AFactoryMayUseTheRegistryItself) {
    ResourceHandlerFactory::registerResourceHandlerScheme(
        kScheme,
        [](const ResourceReferenceSPtr& reference,
           ResourceCache*) -> Result<QSharedPointer<ResourceHandler>> {
            ResourceHandlerFactory::registerResourceHandlerScheme(kScheme, fakeFactory());
            return ResourceManager::getHandler(reference);
        });
    EXPECT_TRUE(ResourceManager::getHandler(sampleReference()));
}
