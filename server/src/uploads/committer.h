// The one thread that makes versions: it puts blobs into place, flushes their directories once per batch and
// commits the batch as one transaction. What arrives while a batch is being committed makes the next one.
#pragma once

#include "blobs/blob_store.h"
#include "core/metrics.h"
#include "store/catalog_store.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace halvane::server {

// Thread-safe. Destroying it commits what was submitted.
class Committer {
public:
    // Called on the committer's thread, after the commit; must be quick and must not throw.
    using Done = std::function<void(FinalisationOutcome)>;

    Committer(CatalogStore& catalog, BlobStore& blobs, Metrics& metrics);
    ~Committer();
    Committer(const Committer&) = delete;
    Committer& operator=(const Committer&) = delete;

    // `stagedName`: the staging file, whose content is flushed; empty for a content that goes into the
    // catalogue.
    void submit(Finalisation request, std::string stagedName, Done done);

private:
    struct Member {
        Finalisation request;
        std::string stagedName;
        Done done;
    };

    static constexpr std::size_t maximumBatch = 256;

    void threadMain();
    std::vector<Member> nextBatch();
    void commit(std::vector<Member> batch);
    std::vector<Member> placeBlobs(std::vector<Member> batch);

    CatalogStore& m_catalog;
    BlobStore& m_blobs;
    Metrics& m_metrics;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<Member> m_queue;
    bool m_stop = false;
    std::thread m_thread;
};

} // namespace halvane::server
