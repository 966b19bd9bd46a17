#pragma once

#include "HalvaneItems.h"
#include "HalvaneUploadPolicyOption.h"

#include <HalvaneResourceReference.h>

#include <optional>

namespace orx {

//! Describes one single-file upload. A copyable value.
struct ORX_HALVANE_EXPORT HalvaneFileUploadParameters {
    using ItemType = HalvaneResourceReference::ItemType;

    QString localPath;
    //! File: the upload is a new version of it; anything else: a folder that receives a new file.
    ItemType targetItemType = ItemType::Folder;
    int targetId = -1;
    //! A further name kept with the version; may be empty.
    QString alias;
    //! Absent: the file's extended metadata stays as it is; present, even if empty: it is replaced.
    std::optional<QList<HalvaneCompactExtendedMetaDataValue>> extendedMetadata;
    HalvaneUploadPolicyOptions policyOptions;
    //! The name on the server; create() fills in the file name part of localPath when none is given.
    QString targetFileName;
    //! Bytes; -1 when the path could not be read by create().
    qint64 fileSize = -1;
    //! The target as it was asked for, before a search by name replaced it; set by create() and kept by
    //! copies.
    ItemType originalTargetItemType = ItemType::Folder;
    int originalTargetId = -1;

    //! Accepts empty and missing paths (the tasks report them). Fails with ErrorCode::InvalidArgument for a
    //! target id below 1 and for extended metadata that the server would refuse (an empty key, one over 255
    //! bytes, a value over 64 KiB, more than 1,000 pairs).
    static Result<HalvaneFileUploadParameters>
    create(const QString& localPath, int targetId, ItemType targetItemType, const QString& alias,
           const std::optional<QList<HalvaneCompactExtendedMetaDataValue>>& extendedMetadata,
           HalvaneUploadPolicyOptions policyOptions, const std::optional<QString>& targetFileName);
    static Result<HalvaneFileUploadParameters>
    create(const QString& localPath, int targetId, ItemType targetItemType, const QString& alias,
           const std::optional<QList<HalvaneExtendedMetaDataValue>>& extendedMetadata,
           HalvaneUploadPolicyOptions policyOptions, const std::optional<QString>& targetFileName);
    //! Without extended metadata: a plain std::nullopt would fit both of the others.
    static Result<HalvaneFileUploadParameters> create(const QString& localPath, int targetId,
                                                      ItemType targetItemType, const QString& alias,
                                                      std::nullopt_t,
                                                      HalvaneUploadPolicyOptions policyOptions,
                                                      const std::optional<QString>& targetFileName);
};

} // namespace orx
