#pragma once

#include "HalvaneResourceMetadata.h"

namespace orx {

//! Makes metadata objects of their JSON form.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneResourceMetadataCreator {
public:
    //! The metadata of a file or a folder, by the key in ResourceMetadata::kItemType. Fails with
    //! ErrorCode::General when that names neither, and with what JsonUtils or the class's loadFromJson() says
    //! otherwise. Thread: any.
    static Result<QSharedPointer<HalvaneResourceMetadata>> create(const QJsonObject& json);
};

} // namespace orx
