// Takes an upload from "every chunk is there" to a version: verifies the content, flushes it and hands it to
// the committer. The same finalisation asked twice at once runs once.
#pragma once

#include "uploads/committer.h"
#include "uploads/upload_sessions.h"

namespace halvane::server {

// Thread-safe.
class Finalizer {
public:
    using Done = Committer::Done;

    Finalizer(CatalogStore& catalog, UploadSessions& sessions, Committer& committer, WorkerPool& hashing);

    // `request` without sha256. `done` is called once, on any thread, when the version is
    // durable or the finalisation failed.
    void finalize(Finalisation request, Done done);

private:
    struct Running {
        CallKey key;
        std::vector<std::pair<CallKey, Done>> waiting;
    };

    bool attach(const Finalisation& request, Done& done);
    void run(Finalisation request);
    void runInline(Finalisation request);
    void runStaged(Finalisation request, const UploadRecord& upload);
    void verifyStaged(UploadSession& session, const UploadRecord& upload);
    void conclude(Id upload, const FinalisationOutcome& outcome);

    CatalogStore& m_catalog;
    UploadSessions& m_sessions;
    Committer& m_committer;
    WorkerPool& m_hashing;
    std::mutex m_mutex;
    std::map<Id, Running> m_running;
};

} // namespace halvane::server
