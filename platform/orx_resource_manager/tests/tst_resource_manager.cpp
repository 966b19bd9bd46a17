#include "ResourceManager.h"

#include <HalvaneResourceReference.h>

#include <gtest/gtest.h>

using namespace orx;

namespace {

constexpr auto kScheme = ResourceReference::Scheme::Halvane;

class FakeHandler final : public RemoteResourceHandler {
public:
    explicit FakeHandler(const ResourceReferenceSPtr& reference)
        : RemoteResourceHandler(reference, nullptr) {}
    Error addToCache(const Path& localPath) override {
        m_added = localPath;
        return Error();
    }
    Path added() const { return m_added; }

private:
    Path m_added;
};

ResourceReferenceSPtr sampleReference() {
    return *HalvaneFileResourceReference::create(12, 3, QStringLiteral("run1.mzML"));
}

class ResourceManagerTest : public ::testing::Test {
protected:
    void TearDown() override { ResourceHandlerFactory::unregisterResourceHandlerScheme(kScheme); }
};

ResourceHandlerFactory::Factory fakeFactory() {
    return [](const ResourceReferenceSPtr& reference,
              ResourceCache*) -> Result<QSharedPointer<ResourceHandler>> {
        return QSharedPointer<ResourceHandler>(new FakeHandler(reference));
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
    EXPECT_TRUE(ResourceManager::getHandler(nullptr).error().is(ErrorCode::InvalidArgument));
}

TEST_F(ResourceManagerTest, GivesTheHandlerThatTheSchemeMakes) {
    ResourceHandlerFactory::registerResourceHandlerScheme(kScheme, fakeFactory());
    const ResourceReferenceSPtr reference = sampleReference();
    const auto handler = ResourceManager::getHandler(reference);
    ASSERT_TRUE(handler) << qPrintable(handler.errorMessage());
    EXPECT_EQ((*handler)->reference(), reference);
    const auto remote = handler->dynamicCast<RemoteResourceHandler>();
    ASSERT_TRUE(remote);
    EXPECT_FALSE(remote->addToCache(Path(QStringLiteral("/a"), PathType::File)).hasError());
    EXPECT_EQ(remote.staticCast<FakeHandler>()->added().type(), PathType::File);
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
    EXPECT_TRUE(ResourceManager::getHandler(sampleReference()).error().is(ErrorCode::General));
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
