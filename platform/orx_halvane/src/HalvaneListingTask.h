#pragma once

#include "HalvaneTask.h"

namespace orx {

struct HalvaneListing;

//! Base of the calls that list what is in a folder. Every run asks the server or takes part in an answer that
//! is as fresh: it sends the entity tag of the listing that this process keeps, if any, and takes that one
//! when the server says that it still holds, or with the changes that the server tells; or it waits for the
//! same call of another task of this thread that is on its way, unless a request of this process that may
//! have changed something has ended since that one was sent. When there has been one and nothing is kept yet,
//! it waits all the same, to ask for the changes only. When the other task is cancelled or destroyed, the
//! call is made after all; its failure is the failure of all who wait for its answer. A large answer is read
//! on a worker.
class ORX_HALVANE_EXPORT HalvaneListingTask : public HalvaneTask {
    Q_OBJECT
public:
    ~HalvaneListingTask() override;

protected:
    HalvaneListingTask(const QString& name, const QString& path, QObject* parent);

    using Reader = Error (*)(const QJsonObject& data, HalvaneListing& listing);
    //! Reads "data" into a listing; called on a worker for what is large, when the task may be gone.
    virtual Reader reader() const = 0;
    //! Null before success. Shared: not to be changed, items included.
    std::shared_ptr<const HalvaneListing> listing() const;

    Error initialize() override;
    void start() override;
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override;
    void replyArrived(const NetworkReply& reply) override;
    Error handleReply(const NetworkReply& reply) override;
    Error parseData(const QJsonObject& json) override;
    Error doFinish() override;

private:
    struct Reading;
    void makeTheCall();
    void take(const Reading& reading);
    Error keep(const std::shared_ptr<HalvaneListing>& listing, const NetworkReply& reply);
    void tellFollowers();
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
