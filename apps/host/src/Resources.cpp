#include "Resources.h"

#include "ErrorText.h"
#include "Quantities.h"

#include <HalvaneAcknowledgedContents.h>
#include <HalvaneConnection.h>
#include <HalvaneHistory.h>
#include <HalvanePaths.h>
#include <HalvaneResourceHandler.h>
#include <HalvaneResourceMetadata.h>
#include <ResourceManager.h>

namespace halvane::host {

using orx::Error;
using orx::HalvaneFileResourceReference;
using orx::HalvaneFolderResourceReference;
using orx::HalvaneHistory;
using orx::HalvaneResourceHandler;
using orx::HalvaneResourceMetadata;
using orx::ResourceCache;
using orx::ResourceManager;
using orx::Result;

namespace {

constexpr qint64 defaultMaxBytes = qint64(20) * 1024 * 1024 * 1024;
constexpr std::chrono::seconds defaultMaxAge = std::chrono::hours(24 * 90);

// \a value stays as it is when the variable is not set.
template <typename T, typename Parse>
Error readVariable(const char* name, Parse parse, std::optional<T>& value) {
    const QString text = qEnvironmentVariable(name);
    if (text.isEmpty())
        return {};
    const Result<T> parsed = parse(text);
    if (parsed.hasError())
        return withMessage(
            parsed.error(),
            QStringLiteral("%1 cannot be used: %2").arg(QLatin1String(name), parsed.errorMessage()));
    value = parsed.value();
    return {};
}

QString checksumOf(const orx::ResourceReference& reference) {
    const auto* file = dynamic_cast<const HalvaneFileResourceReference*>(&reference);
    if (!file)
        return {};
    return QString::fromLatin1(orx::HalvaneAcknowledgedContents::find(
        orx::HalvaneConnection::instance().serverKey(), file->id(), file->version()));
}

} // namespace

Result<std::unique_ptr<Resources>> Resources::start() {
    ResourceCache::Limits limits{defaultMaxBytes, defaultMaxAge};
    ORX_RETURN_ON_ERROR(readVariable("HALVANE_CACHE_MAX_SIZE", parseSize, limits.maxBytes));
    ORX_RETURN_ON_ERROR(readVariable("HALVANE_CACHE_MAX_AGE", parseAge, limits.maxAge));
    return std::unique_ptr<Resources>(new Resources(limits));
}

Resources::Resources(const ResourceCache::Limits& limits)
    : m_cache(orx::HalvanePaths::cacheDir()), m_limits(limits) {
    m_cache.setLimits(limits);
    m_cache.setChecksumSource(checksumOf);
    ResourceManager::setCache(&m_cache);
    HalvaneResourceHandler::registerType();
    HalvaneResourceMetadata::registerType();
    // What is fetched into the cache lies at no path of the user's: the history does not record it there. The
    // directory is made first, so that links on the way to it are known; whether that fails is told by the
    // first use of the cache.
    [[maybe_unused]] const Error unusable = orx::HalvanePaths::ensurePrivateDir(m_cache.rootDir());
    HalvaneHistory::registerTemporaryDir(m_cache.rootDir());
}

Resources::~Resources() {
    m_cache.dropPending();
    HalvaneHistory::unregisterTemporaryDir(m_cache.rootDir());
    HalvaneResourceMetadata::unregisterType();
    HalvaneResourceHandler::unregisterType();
    ResourceManager::setCache(nullptr);
}

Result<orx::HalvaneResourceReferenceSPtr> referenceOf(const RemoteItem& item, const QString& name) {
    if (item.isFile()) {
        const auto file = HalvaneFileResourceReference::create(item.id, item.version, name);
        ORX_RETURN_ON_ERROR(file.error());
        return orx::HalvaneResourceReferenceSPtr(file.value());
    }
    const auto folder = HalvaneFolderResourceReference::create(item.id, name);
    ORX_RETURN_ON_ERROR(folder.error());
    return orx::HalvaneResourceReferenceSPtr(folder.value());
}

Result<QSharedPointer<orx::ResourceHandler>> handlerOf(const RemoteItem& item) {
    const auto reference = referenceOf(item, item.name);
    ORX_RETURN_ON_ERROR(reference.error());
    return ResourceManager::getHandler(reference.value());
}

} // namespace halvane::host
