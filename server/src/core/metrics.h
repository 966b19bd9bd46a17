// What the process counts about itself, and its text in the Prometheus exposition format. Thread-safe.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

namespace halvane::server {

struct Metrics {
    std::array<std::atomic<std::uint64_t>, 6> requestsByStatusClass{}; // index: status / 100
    // Begun, and neither counted above nor in the log yet.
    std::atomic<std::int64_t> requestsRunning{0};
    std::atomic<std::uint64_t> requestMicroseconds{0};
    std::atomic<std::uint64_t> bytesReceived{0};
    std::atomic<std::uint64_t> bytesSent{0};
    std::atomic<std::uint64_t> connectionsAccepted{0};
    std::atomic<std::int64_t> connectionsOpen{0};
    std::atomic<std::uint64_t> connectionsRefused{0};
    std::atomic<std::uint64_t> versionsCommitted{0};
    std::atomic<std::uint64_t> commitBatches{0};
    std::atomic<std::uint64_t> loginFailures{0};
    std::atomic<std::uint64_t> blobsSwept{0};

    // A version was made; `transaction` is the same for those that were committed together.
    void countSmallVersion(std::uint64_t transaction) {
        ++versionsCommitted;
        if (lastSmallCommit.exchange(transaction) != transaction)
            ++commitBatches;
    }
    std::atomic<std::uint64_t> lastSmallCommit{0};

    std::string prometheusText() const;
};

} // namespace halvane::server
