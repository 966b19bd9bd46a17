#pragma once

#include "CacheFill.h"

#include <ComplexTask.h>

#include <chrono>
#include <functional>

namespace orx {

//! See ResourceCache::fillTask(). Waits for another fill of the entry, fetches, seals. Keeps the entry from
//! being removed as long as the task lives.
class CacheFillTask final : public ComplexTask {
    Q_OBJECT
public:
    using Fetch = std::function<std::unique_ptr<Task>(const DirPath&)>;

    //! \a checksum and \a limits are asked on the owner's thread when the content was fetched.
    CacheFillTask(std::shared_ptr<CacheFill> fill, Fetch fetch, std::function<QString()> checksum,
                  std::function<ResourceCache::Limits()> limits);
    ~CacheFillTask() override;

protected:
    Error initialize() override;
    void doCancel() override;
    Error doFinish() override;

private:
    void begin();
    void onBegun(CacheFill::Begun begun);
    std::unique_ptr<Task> makeFetch();
    void fetchContent();
    void startOver(std::unique_ptr<Task> fetch);
    void runFetch(std::unique_ptr<Task> fetch);
    void onFetchFailed(const Error& error);
    void seal(BaseTask* fetched);

    std::shared_ptr<CacheFill> m_fill;
    Fetch m_fetch;
    std::function<QString()> m_checksum;
    std::function<ResourceCache::Limits()> m_limits;
    std::chrono::milliseconds m_pause;
};

} // namespace orx
