#include "JournalHold.h"

#include <WorkerPool.h>

#include <QLoggingCategory>

#include <mutex>
#include <vector>

namespace orx {
namespace {

using End = HalvaneUploadJournal::End;
using Changes = std::vector<std::pair<End, qint64>>;

struct Pending {
    std::mutex running; //!< held while changes are carried out, so that a second caller waits for them
    std::mutex mutex;
    Changes changes;

    //! Whether nothing else waits, so that nobody was told to carry changes out.
    bool add(End how, qint64 rowId) {
        const std::lock_guard lock(mutex);
        changes.emplace_back(how, rowId);
        return changes.size() == 1;
    }
    Changes takeAll() {
        const std::lock_guard lock(mutex);
        return std::exchange(changes, {});
    }
};

// Workers may use it while the process ends, so that it is never destroyed.
Pending& pending() {
    static Pending* const instance = new Pending;
    return *instance;
}

void submit(End how, qint64 rowId) {
    if (rowId >= 0 && pending().add(how, rowId))
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
    submit(End::Release, dismiss());
}

void JournalHold::remove() {
    submit(End::Remove, dismiss());
}

void JournalHold::awaitReleases() {
    const std::lock_guard running(pending().running);
    const Changes changes = pending().takeAll();
    if (changes.empty() || !HalvaneUploadJournal::end(changes).hasError())
        return;
    // What kept one from being recorded may be over for the next. A record is free again at the latest when
    // this process ends, and a finished upload is settled by it: the failure is worth a line only.
    for (const auto& change : changes)
        if (const Error error = HalvaneUploadJournal::end({change}); error.hasError())
            qCWarning(errorLog).noquote() << error.errorMessage();
}

} // namespace orx
