#include "HalvaneFileUploadParameters.h"

#include <QCoreApplication>
#include <QFileInfo>

namespace orx {

namespace {

using CompactValues = QList<HalvaneCompactExtendedMetaDataValue>;

// The server's own limits: refused here, before a byte of the file is sent.
constexpr qsizetype kMaxPairs = 1000;
constexpr qsizetype kMaxKeyBytes = 255;
constexpr qsizetype kMaxValueBytes = 64 * 1024;

QString translated(const char* text) {
    return QCoreApplication::translate("orx::HalvaneFileUploadParameters", text);
}

Error invalid(const QString& message) {
    return Error(ErrorCode::InvalidArgument, message);
}

Error checkExtendedMetadata(const CompactValues& values) {
    if (values.size() > kMaxPairs)
        return invalid(translated("%1 pairs of extended metadata were given; at most %2 are possible.")
                           .arg(values.size())
                           .arg(kMaxPairs));
    for (const HalvaneCompactExtendedMetaDataValue& value : values) {
        if (value.key.isEmpty())
            return invalid(
                translated("A value of the extended metadata (\"%1\") has no key.").arg(value.value));
        if (value.key.toUtf8().size() > kMaxKeyBytes)
            return invalid(translated("The extended metadata key \"%1\" is longer than %2 bytes.")
                               .arg(value.key, QString::number(kMaxKeyBytes)));
        if (value.value.toUtf8().size() > kMaxValueBytes)
            return invalid(
                translated("The value of the extended metadata key \"%1\" is longer than %2 bytes.")
                    .arg(value.key, QString::number(kMaxValueBytes)));
    }
    return Error();
}

} // namespace

Result<HalvaneFileUploadParameters> HalvaneFileUploadParameters::create(
    const QString& localPath, int targetId, ItemType targetItemType, const QString& alias,
    const std::optional<CompactValues>& extendedMetadata, HalvaneUploadPolicyOptions policyOptions,
    const std::optional<QString>& targetFileName) {
    if (targetId < 1)
        return ORX_ECATCH(
            invalid(translated("%1 is not the id of a file or folder to upload to.").arg(targetId)));
    if (extendedMetadata)
        ORX_RETURN_ON_ERROR(checkExtendedMetadata(*extendedMetadata));

    const QFileInfo info(localPath);
    HalvaneFileUploadParameters parameters;
    parameters.localPath = localPath;
    parameters.targetItemType = parameters.originalTargetItemType = targetItemType;
    parameters.targetId = parameters.originalTargetId = targetId;
    parameters.alias = alias;
    parameters.extendedMetadata = extendedMetadata;
    parameters.policyOptions = policyOptions;
    parameters.targetFileName = targetFileName.value_or(QString());
    if (parameters.targetFileName.isEmpty())
        parameters.targetFileName = info.fileName();
    if (info.isReadable())
        parameters.fileSize = info.size();
    return parameters;
}

Result<HalvaneFileUploadParameters> HalvaneFileUploadParameters::create(
    const QString& localPath, int targetId, ItemType targetItemType, const QString& alias,
    const std::optional<QList<HalvaneExtendedMetaDataValue>>& extendedMetadata,
    HalvaneUploadPolicyOptions policyOptions, const std::optional<QString>& targetFileName) {
    std::optional<CompactValues> compact;
    if (extendedMetadata) {
        compact.emplace();
        for (const HalvaneExtendedMetaDataValue& value : *extendedMetadata)
            compact->append({value.key, value.value});
    }
    return ORX_ECATCH(
        create(localPath, targetId, targetItemType, alias, compact, policyOptions, targetFileName));
}

Result<HalvaneFileUploadParameters> HalvaneFileUploadParameters::create(
    const QString& localPath, int targetId, ItemType targetItemType, const QString& alias, std::nullopt_t,
    HalvaneUploadPolicyOptions policyOptions, const std::optional<QString>& targetFileName) {
    return ORX_ECATCH(create(localPath, targetId, targetItemType, alias, std::optional<CompactValues>(),
                             policyOptions, targetFileName));
}

} // namespace orx
