// Removes what nothing needs any more: expired uploads, contents of removed versions, leftovers of a kill. A
// thread of its own.
#pragma once

#include "blobs/blob_store.h"
#include "core/logging.h"
#include "core/metrics.h"
#include "store/catalog_store.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace halvane::server {

class Sweeper {
public:
    // Begins with one full sweep and then keeps house every `interval`.
    Sweeper(CatalogStore& catalog, BlobStore& blobs, Log& log, Metrics& metrics,
            std::chrono::milliseconds interval);
    ~Sweeper();
    Sweeper(const Sweeper&) = delete;
    Sweeper& operator=(const Sweeper&) = delete;

    // Removes every file that neither a version nor an open upload names. Safe at any time: a file is made
    // only after its upload's row, and a version takes the name over from the upload in one transaction.
    void sweepLeftovers();
    // Expired uploads and the contents of removed versions.
    void keepHouse();

private:
    void threadMain();
    void remove(const std::string& name);
    bool stopping();

    CatalogStore& m_catalog;
    BlobStore& m_blobs;
    Log& m_log;
    Metrics& m_metrics;
    const std::chrono::milliseconds m_interval;
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_stop = false;
    std::thread m_thread;
};

} // namespace halvane::server
