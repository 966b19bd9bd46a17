#include "ResourceHandlerFactory.h"

#include <QCoreApplication>
#include <QMap>
#include <QMetaEnum>
#include <QMutex>
#include <QMutexLocker>

namespace orx {

namespace {

struct Registry {
    QMutex mutex;
    QMap<ResourceReference::Scheme, ResourceHandlerFactory::Factory> factories;
};

Registry& registry() {
    static Registry instance;
    return instance;
}

QString translated(const char* text) {
    return QCoreApplication::translate("orx::ResourceHandlerFactory", text);
}

QString schemeName(ResourceReference::Scheme scheme) {
    const char* key = QMetaEnum::fromType<ResourceReference::Scheme>().valueToKey(int(scheme));
    return key ? QString::fromLatin1(key) : QString::number(int(scheme));
}

} // namespace

void ResourceHandlerFactory::registerResourceHandlerScheme(ResourceReference::Scheme scheme,
                                                           Factory factory) {
    const QMutexLocker lock(&registry().mutex);
    registry().factories.insert(scheme, std::move(factory));
}

void ResourceHandlerFactory::unregisterResourceHandlerScheme(ResourceReference::Scheme scheme) {
    const QMutexLocker lock(&registry().mutex);
    registry().factories.remove(scheme);
}

Result<QSharedPointer<ResourceHandler>> ResourceHandlerFactory::create(const ResourceReferenceSPtr& reference,
                                                                       ResourceCache* cache) {
    if (!reference)
        return ORX_ECATCH(
            Error(ErrorCode::InvalidArgument, translated("No reference was given to make a handler for.")));
    Factory factory;
    {
        // The factory is called without the lock: it may register or ask for other schemes.
        const QMutexLocker lock(&registry().mutex);
        factory = registry().factories.value(reference->scheme());
    }
    if (!factory)
        return ORX_ECATCH(Error(
            ErrorCode::NotFound,
            translated(
                "No handler is registered for resources of the scheme \"%1\"; \"%2\" cannot be handled.")
                .arg(schemeName(reference->scheme()), reference->displayText())));
    auto handler = factory(reference, cache);
    if (!handler.hasError() && *handler == nullptr)
        return ORX_ECATCH(Error(ErrorCode::General,
                                translated("No handler was made for \"%1\".").arg(reference->displayText())));
    return ORX_ECATCH(std::move(handler));
}

} // namespace orx
