#include "uploads/finalizer.h"

namespace halvane::server {

namespace {

ApiError mismatch(Id upload, std::size_t damagedChunks) {
    const std::string id = std::to_string(upload);
    if (damagedChunks > 0)
        return {ErrorCode::ChecksumMismatch,
                std::to_string(damagedChunks) + " chunks of the upload " + id +
                    " differ from their checksums and were forgotten; send them again."};
    return {ErrorCode::ChecksumMismatch,
            "The content of the upload " + id +
                " differs from its SHA-256; the file changed while it was sent."};
}

Sha256Digest requireDigest(const UploadRecord& upload) {
    if (!upload.contentSha256)
        throw ApiError(ErrorCode::UploadIncomplete,
                       "The upload " + std::to_string(upload.id) + " lacks the SHA-256 of its content.");
    return *upload.contentSha256;
}

// What a caller who asked with `key` gets when the finalisation that ran had another one.
FinalisationOutcome outcomeFor(const CallKey& key, const CallKey& ran, Id upload,
                               const FinalisationOutcome& outcome) {
    if (std::holds_alternative<ApiError>(outcome) ||
        (key.key == ran.key && key.fingerprint == ran.fingerprint))
        return outcome;
    if (!key.key.empty() && key.key == ran.key)
        return ApiError(ErrorCode::IdempotencyMismatch,
                        "The idempotency key '" + key.key + "' was used for a different request.");
    return ApiError(ErrorCode::UploadGone,
                    "The upload " + std::to_string(upload) + " was finalised by another call.");
}

} // namespace

Finalizer::Finalizer(CatalogStore& catalog, UploadSessions& sessions, Committer& committer,
                     WorkerPool& hashing)
    : m_catalog(catalog), m_sessions(sessions), m_committer(committer), m_hashing(hashing) {}

void Finalizer::finalize(Finalisation request, Done done) {
    const Id upload = request.uploadId;
    if (attach(request, done))
        return;
    try {
        run(std::move(request));
    } catch (const ApiError& error) {
        conclude(upload, error);
    } catch (const std::exception& error) {
        conclude(upload, ApiError(ErrorCode::Internal, error.what()));
    }
}

// True when a finalisation of that upload runs, whose end will answer this one too; else it is registered as
// the one that runs.
bool Finalizer::attach(const Finalisation& request, Done& done) {
    const std::lock_guard lock(m_mutex);
    const auto [running, isNew] = m_running.try_emplace(request.uploadId, Running{request.key, {}});
    running->second.waiting.emplace_back(request.key, std::move(done));
    return !isNew;
}

void Finalizer::run(Finalisation request) {
    if (auto earlier = m_catalog.finalizedOfKey(request.caller, request.key)) {
        conclude(request.uploadId, std::move(*earlier));
        return;
    }
    const UploadRecord upload = m_catalog.uploadWithoutChunks(request.caller, request.uploadId);
    if (isInline(upload))
        runInline(std::move(request));
    else
        runStaged(std::move(request), upload);
}

void Finalizer::runInline(Finalisation request) {
    const Id id = request.uploadId;
    m_committer.submit(std::move(request), {},
                       [this, id](const FinalisationOutcome& outcome) { conclude(id, outcome); });
}

void Finalizer::runStaged(Finalisation request, const UploadRecord& upload) {
    request.sha256 = requireDigest(upload);
    const std::shared_ptr<UploadSession> session = m_sessions.session(request.caller, upload.id);
    session->beginFinalising();
    m_hashing.post([this, session, upload, request = std::move(request)]() mutable {
        const auto end = [this, session, id = upload.id](const FinalisationOutcome& outcome) {
            // Once it is a version no chunk changes any more, not even for a request that found it open.
            if (std::holds_alternative<ApiError>(outcome))
                session->endFinalising();
            conclude(id, outcome);
        };
        try {
            verifyStaged(*session, upload);
            session->flush();
            m_committer.submit(std::move(request), upload.blobName, end);
        } catch (const ApiError& error) {
            end(error);
        } catch (const std::exception& error) {
            end(ApiError(ErrorCode::Internal, error.what()));
        }
    });
}

void Finalizer::verifyStaged(UploadSession& session, const UploadRecord& upload) {
    if (session.contentDigest() == upload.contentSha256)
        return;
    const std::size_t damaged = session.forgetDamagedChunks();
    if (damaged == 0)
        m_catalog.setContentSha256(upload.id, std::nullopt);
    throw mismatch(upload.id, damaged);
}

void Finalizer::conclude(Id upload, const FinalisationOutcome& outcome) {
    if (std::holds_alternative<FinalizedFile>(outcome))
        m_sessions.drop(upload);
    Running running;
    {
        const std::lock_guard lock(m_mutex);
        running = std::move(m_running.extract(upload).mapped());
    }
    for (const auto& [key, done] : running.waiting)
        done(outcomeFor(key, running.key, upload, outcome));
}

} // namespace halvane::server
