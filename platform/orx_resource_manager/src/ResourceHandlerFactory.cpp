#include "ResourceHandlerFactory.h"

#include "SchemeRegistry.h"

#include <QCoreApplication>

namespace orx {

namespace {

using Registry = SchemeRegistry<ResourceHandlerFactory::Factory>;

QString translated(const char* text) {
    return QCoreApplication::translate("orx::ResourceHandlerFactory", text);
}

} // namespace

void ResourceHandlerFactory::registerResourceHandlerScheme(ResourceReference::Scheme scheme,
                                                           Factory factory) {
    Registry::instance().insert(scheme, std::move(factory));
}

void ResourceHandlerFactory::unregisterResourceHandlerScheme(ResourceReference::Scheme scheme) {
    Registry::instance().remove(scheme);
}

Result<QSharedPointer<ResourceHandler>> ResourceHandlerFactory::create(const ResourceReferenceSPtr& reference,
                                                                       ResourceCache* cache) {
    if (!reference)
        return ORX_ECATCH(
            Error(ErrorCode::InvalidArgument, translated("No reference was given to make a handler for.")));
    const Factory factory = Registry::instance().find(reference->scheme());
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
