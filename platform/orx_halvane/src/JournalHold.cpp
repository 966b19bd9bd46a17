#include "JournalHold.h"

#include <WorkerPool.h>

#include <QLoggingCategory>

#include <mutex>
#include <vector>

namespace orx {
namespace {

struct Pending {
    std::mutex running; //!< held while releases are carried out, so that a second caller waits for them
    std::mutex mutex;
    std::vector<qint64> rowIds;

    std::vector<qint64> takeAll() {
        const std::lock_guard lock(mutex);
        return std::exchange(rowIds, {});
    }
};

// Workers may use it while the process ends, so that it is never destroyed.
Pending& pending() {
    static Pending* const instance = new Pending;
    return *instance;
}

} // namespace

JournalHold& JournalHold::operator=(JournalHold&& other) noexcept {
    if (this != &other) {
        release();
        m_rowId = std::exchange(other.m_rowId, -1);
    }
    return *this;
}

void JournalHold::release() {
    const qint64 rowId = dismiss();
    if (rowId < 0)
        return;
    {
        const std::lock_guard lock(pending().mutex);
        pending().rowIds.push_back(rowId);
    }
    WorkerPool::instance().submit([] { awaitReleases(); }, nullptr, {});
}

void JournalHold::awaitReleases() {
    const std::lock_guard running(pending().running);
    for (const qint64 rowId : pending().takeAll()) {
        // The record is free again at the latest when this process ends: the failure is worth a line only.
        if (const Error error = HalvaneUploadJournal::release(rowId); error.hasError())
            qCWarning(errorLog).noquote() << error.errorMessage();
    }
}

} // namespace orx
