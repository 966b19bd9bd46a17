#pragma once

#include "HalvaneTask.h"

#include <HalvaneResourceReference.h>

namespace orx {

//! GET /files/ID or GET /folders/ID: whether such an item is there for the caller. The variant result is a
//! bool once the task has succeeded: false when the server knows no such item, or none that the caller may
//! read (the two look the same). Every other failure is the task's error, and leaves no result.
class ORX_HALVANE_EXPORT HalvaneCheckExistenceTask : public HalvaneTask {
    Q_OBJECT
public:
    HalvaneCheckExistenceTask(int id, HalvaneResourceReference::ItemType itemType, QObject* parent = nullptr);

protected:
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
    Error handleReply(const NetworkReply& reply) override;
    Error parseData(const QJsonObject& json) override;

private:
    int m_id;
    HalvaneResourceReference::ItemType m_itemType;
};

} // namespace orx
