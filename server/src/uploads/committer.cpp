#include "uploads/committer.h"

#include <algorithm>
#include <map>

namespace halvane::server {

namespace {

ApiError asApiError(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const ApiError& error) {
        return error;
    } catch (const std::exception& error) {
        return {ErrorCode::Internal, error.what()};
    }
}

} // namespace

Committer::Committer(CatalogStore& catalog, BlobStore& blobs, Metrics& metrics)
    : m_catalog(catalog), m_blobs(blobs), m_metrics(metrics), m_thread([this] { threadMain(); }) {}

Committer::~Committer() {
    {
        const std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_one();
    m_thread.join();
}

void Committer::submit(Finalisation request, std::string stagedName, Done done) {
    {
        const std::lock_guard lock(m_mutex);
        m_queue.push_back({std::move(request), std::move(stagedName), std::move(done)});
    }
    m_wake.notify_one();
}

std::vector<Committer::Member> Committer::nextBatch() {
    std::unique_lock lock(m_mutex);
    m_wake.wait(lock, [this] { return m_stop || !m_queue.empty(); });
    std::vector<Member> batch;
    while (!m_queue.empty() && batch.size() < maximumBatch) {
        batch.push_back(std::move(m_queue.front()));
        m_queue.pop_front();
    }
    return batch;
}

void Committer::threadMain() {
    for (std::vector<Member> batch = nextBatch(); !batch.empty(); batch = nextBatch())
        commit(placeBlobs(std::move(batch)));
}

// Moves the members' blobs into place and makes that durable; members whose blob fails are answered and left
// out.
std::vector<Committer::Member> Committer::placeBlobs(std::vector<Member> batch) {
    std::map<std::string, std::vector<Member>> byDirectory;
    std::vector<Member> ready;
    for (Member& member : batch) {
        if (member.stagedName.empty()) {
            ready.push_back(std::move(member));
            continue;
        }
        try {
            const std::string directory = m_blobs.place(member.stagedName);
            byDirectory[directory].push_back(std::move(member));
        } catch (...) {
            member.done(asApiError(std::current_exception()));
        }
    }
    for (auto& [directory, members] : byDirectory) {
        try {
            m_blobs.syncDirectory(directory);
            std::move(members.begin(), members.end(), std::back_inserter(ready));
        } catch (...) {
            for (const Member& member : members)
                member.done(asApiError(std::current_exception()));
        }
    }
    return ready;
}

void Committer::commit(std::vector<Member> batch) {
    if (batch.empty())
        return;
    std::vector<Finalisation> requests;
    requests.reserve(batch.size());
    for (Member& member : batch)
        requests.push_back(std::move(member.request));
    const std::vector<FinalisationOutcome> outcomes = m_catalog.commit(requests);
    ++m_metrics.commitBatches;
    for (std::size_t i = 0; i < batch.size(); ++i) {
        m_metrics.versionsCommitted += std::holds_alternative<FinalizedFile>(outcomes[i]) ? 1 : 0;
        batch[i].done(outcomes[i]);
    }
}

} // namespace halvane::server
