#pragma once

#include "orx_halvane_resource_handler_export.h"

#include <ResourceMetadata.h>
#include <ResourceReference.h>

namespace orx {

//! Base of the metadata of files and folders of the Halvane server.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneResourceMetadata : public ResourceMetadata {
public:
    ~HalvaneResourceMetadata() override;

    //! The scheme of Halvane references.
    static ResourceReference::Scheme schemeType();
    //! Lets ResourceMetadataFactory turn the JSON form of Halvane metadata back into objects. For hosts, once
    //! at start-up. Thread: any.
    static void registerType();
    //! For hosts, at shut-down.
    static void unregisterType();

    //! As the item's name says, also for folders.
    FileTypes::Type type() const override;
    //! The ids of the folders above the item, outermost first; empty for an item in the root.
    virtual QList<int> parentFolderIdsPath() const = 0;
    //! The server's id of the item.
    virtual int id() const = 0;
    //! parentFolderIdsPath() and then the item's own id.
    QList<int> idsPath() const;

protected:
    HalvaneResourceMetadata() = default;
    HalvaneResourceMetadata(const HalvaneResourceMetadata&) = default;
    HalvaneResourceMetadata& operator=(const HalvaneResourceMetadata&) = default;
};

} // namespace orx
