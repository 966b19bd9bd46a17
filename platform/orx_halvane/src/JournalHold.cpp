#include "JournalHold.h"

#include <WorkerPool.h>

#include <QLoggingCategory>

#include <mutex>
#include <vector>

namespace orx {
namespace {

using Change = Error (*)(qint64 rowId);

struct Pending {
    std::mutex running; //!< held while changes are carried out, so that a second caller waits for them
    std::mutex mutex;
    std::vector<std::pair<Change, qint64>> changes;

    std::vector<std::pair<Change, qint64>> takeAll() {
        const std::lock_guard lock(mutex);
        return std::exchange(changes, {});
    }
};

// Workers may use it while the process ends, so that it is never destroyed.
Pending& pending() {
    static Pending* const instance = new Pending;
    return *instance;
}

void submit(Change change, qint64 rowId) {
    if (rowId < 0)
        return;
    {
        const std::lock_guard lock(pending().mutex);
        pending().changes.emplace_back(change, rowId);
    }
    WorkerPool::instance().submit([] { JournalHold::awaitReleases(); }, nullptr, {});
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
    submit(&HalvaneUploadJournal::release, dismiss());
}

void JournalHold::remove() {
    submit(&HalvaneUploadJournal::remove, dismiss());
}

void JournalHold::awaitReleases() {
    const std::lock_guard running(pending().running);
    for (const auto& [change, rowId] : pending().takeAll()) {
        // The record is free again at the latest when this process ends, and a finished upload is settled by
        // it: the failure is worth a line only.
        if (const Error error = change(rowId); error.hasError())
            qCWarning(errorLog).noquote() << error.errorMessage();
    }
}

} // namespace orx
