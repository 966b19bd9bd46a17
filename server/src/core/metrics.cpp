#include "core/metrics.h"

namespace halvane::server {

namespace {

void add(std::string& out, const char* name, const char* type, const char* help, const std::string& value) {
    out += std::string("# HELP ") + name + ' ' + help + "\n# TYPE " + name + ' ' + type + '\n' + name + ' ' +
           value + '\n';
}

void counter(std::string& out, const char* name, const char* help, std::uint64_t value) {
    add(out, name, "counter", help, std::to_string(value));
}

void gauge(std::string& out, const char* name, const char* help, std::int64_t value) {
    add(out, name, "gauge", help, std::to_string(value));
}

} // namespace

std::string Metrics::prometheusText() const {
    std::string out = "# HELP halvane_requests_total Requests answered, by class of status.\n"
                      "# TYPE halvane_requests_total counter\n";
    for (std::size_t i = 2; i < requestsByStatusClass.size(); ++i)
        out += "halvane_requests_total{status=\"" + std::to_string(i) + "xx\"} " +
               std::to_string(requestsByStatusClass[i].load()) + '\n';
    gauge(out, "halvane_requests_running", "Requests begun and not logged yet, the asking one among them.",
          requestsRunning);
    counter(out, "halvane_request_microseconds_total", "Time spent on requests.", requestMicroseconds);
    counter(out, "halvane_received_bytes_total", "Bytes of request bodies.", bytesReceived);
    counter(out, "halvane_sent_bytes_total", "Bytes of reply bodies.", bytesSent);
    counter(out, "halvane_connections_total", "Connections accepted.", connectionsAccepted);
    counter(out, "halvane_connections_refused_total", "Connections refused because too many were open.",
            connectionsRefused);
    gauge(out, "halvane_connections_open", "Connections open.", connectionsOpen);
    counter(out, "halvane_versions_committed_total", "File versions made durable.", versionsCommitted);
    counter(out, "halvane_commit_batches_total", "Transactions that made them durable.", commitBatches);
    counter(out, "halvane_login_failures_total", "Logins refused.", loginFailures);
    counter(out, "halvane_blobs_swept_total", "Leftover files removed.", blobsSwept);
    return out;
}

} // namespace halvane::server
