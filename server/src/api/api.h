// The calls of docs/protocol.md.
#pragma once

#include "auth/accounts.h"
#include "core/logging.h"
#include "http/router.h"
#include "uploads/finalizer.h"

namespace halvane::server {

inline constexpr std::int64_t maximumChunkSize = 64 * 1024 * 1024;

// What the handlers work with; outlives the router that they are added to.
struct Services {
    CatalogStore& catalog;
    BlobStore& blobs;
    UploadSessions& sessions;
    Finalizer& finalizer;
    Accounts& accounts;
    Metrics& metrics;
    Log& log;
    std::int64_t chunkSize;
    std::string version;
};

void addSessionCalls(Router& router, Services& services);
void addFolderCalls(Router& router, Services& services);
void addFileCalls(Router& router, Services& services);
void addUploadCalls(Router& router, Services& services);

} // namespace halvane::server
