#include "HalvaneCheckExistenceTask.h"

#include "HalvaneError.h"
#include "HalvaneJson.h"

namespace orx {

namespace {

using ItemType = HalvaneResourceReference::ItemType;

QString pathOf(int id, ItemType type) {
    return (type == ItemType::File ? QStringLiteral("/files/%1") : QStringLiteral("/folders/%1")).arg(id);
}

} // namespace

HalvaneCheckExistenceTask::HalvaneCheckExistenceTask(int id, ItemType itemType, QObject* parent)
    : HalvaneTask(QStringLiteral("CheckExistence(%1)").arg(pathOf(id, itemType)), parent)
    , m_id(id)
    , m_itemType(itemType) {}

Result<NetworkRequest> HalvaneCheckExistenceTask::prepareRequest(const QUrl& baseUrl) const {
    return HalvaneTask::prepareRequest(baseUrl, pathOf(m_id, m_itemType), NetworkRequest::Method::Get);
}

Error HalvaneCheckExistenceTask::handleReply(const NetworkReply& reply) {
    Error error = HalvaneTask::handleReply(reply);
    if (isHalvaneError(error, HalvaneServerErrorCode::NotFound)) {
        setVariantResult(false);
        return Error();
    }
    return ORX_ECATCH(error);
}

Error HalvaneCheckExistenceTask::parseData(const QJsonObject& json) {
    ORX_RETURN_ON_ERROR(HalvaneTask::parseData(json));
    int id = -1;
    const QJsonObject data = json.value(QStringLiteral("data")).toObject();
    ORX_RETURN_ON_ERROR(asInvalidReply(halvane_json::takeId(data, QStringLiteral("id"), id)));
    if (id != m_id)
        return asInvalidReply(Error(
            ErrorCode::ParseError,
            tr("It answered for the id %1 instead of %2.").arg(QString::number(id), QString::number(m_id))));
    setVariantResult(true);
    return Error();
}

} // namespace orx
