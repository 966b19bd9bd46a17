#include "HalvaneResourceHandler.h"

#include "HalvaneFileResourceHandler.h"
#include "HalvaneFolderResourceHandler.h"

#include <FileUtilsGeneric.h>
#include <HalvaneConnection.h>
#include <ResourceManager.h>

#include <QMetaEnum>

namespace orx {

using ItemType = HalvaneResourceReference::ItemType;

HalvaneResourceHandler::HalvaneResourceHandler(const QSharedPointer<ResourceReference>& reference,
                                               ResourceCache* cache)
    : RemoteResourceHandler(reference, cache) {}

HalvaneResourceHandler::~HalvaneResourceHandler() = default;

void HalvaneResourceHandler::registerType() {
    ResourceHandlerFactory::registerResourceHandlerScheme(
        HalvaneResourceReference::schemeType,
        [](const ResourceReferenceSPtr& reference, ResourceCache* cache) {
            auto handler = create(reference, cache);
            ORX_ECATCH(handler);
            return handler;
        });
}

void HalvaneResourceHandler::unregisterType() {
    ResourceHandlerFactory::unregisterResourceHandlerScheme(HalvaneResourceReference::schemeType);
}

Result<QSharedPointer<ResourceHandler>>
HalvaneResourceHandler::create(const QSharedPointer<ResourceReference>& reference, ResourceCache* cache) {
    const auto halvaneReference = reference.dynamicCast<HalvaneResourceReference>();
    if (!halvaneReference)
        return Error(ErrorCode::InvalidArgument, tr("The reference is not a halvane reference"));
    const ItemType itemType = halvaneReference->itemType();
    switch (itemType) {
    case ItemType::File:
        return QSharedPointer<ResourceHandler>(new HalvaneFileResourceHandler(reference, cache));
    case ItemType::Folder:
        return QSharedPointer<ResourceHandler>(new HalvaneFolderResourceHandler(reference, cache));
    }
    const char* const key = QMetaEnum::fromType<ItemType>().valueToKey(int(itemType));
    return Error(
        ErrorCode::InvalidArgument,
        tr("The halvane reference for an item type %1 is not supported.").arg(QString::fromLatin1(key)));
}

Error HalvaneResourceHandler::verifyResourceName(const QSharedPointer<HalvaneResourceReference>& reference) {
    const auto handler = ResourceManager::getHandler(reference);
    ORX_RETURN_ON_ERROR(handler.error());
    const auto metadata = (*handler)->retrieveMetadata();
    ORX_RETURN_ON_ERROR(metadata.error());
    const QString serverName = (*metadata)->name();
    if (serverName == reference->name())
        return Error();
    const QString noun = reference->itemType() == ItemType::Folder ? tr("folder name") : tr("filename");
    // One after the other: each fill takes the lowest place, also one that the text before it brought along.
    return ORX_ECATCH(Error(ErrorCode::General,
                            tr("A %1 pointed by \"%2\" does not match with a %1 on the server (the %1 on "
                               "the server is \"%3\").")
                                .arg(noun)
                                .arg(reference->displayText())
                                .arg(serverName)));
}

QString HalvaneResourceHandler::subCachePath() const {
    static const QString invalid = QStringLiteral("[invalid]");
    const QUrl url = HalvaneConnection::instance().settings().machineSettingsPtr()->url();
    if (!url.isValid())
        return invalid;
    const QString authority = url.authority();
    if (FileUtilsGeneric::isValidFileName(authority))
        return authority;
    return FileUtilsGeneric::validFileName(authority, u'_');
}

} // namespace orx
