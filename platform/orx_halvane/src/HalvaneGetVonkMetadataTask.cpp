#include "HalvaneGetVonkMetadataTask.h"

#include <NetworkError.h>
#include <WorkerStepTask.h>

#include <memory>

namespace orx {

namespace {

//! Holds the manifest of nearly every acquisition, and the chunk table of one of many GiB.
constexpr qint64 usualTail = 256 * 1024;
//! More than the largest manifest and the largest chunk table together.
constexpr qint64 largestPart = 96 * 1024 * 1024;
//! The end, the beginning, the rest of the end.
constexpr int mostCalls = 3;

//! One range of a version's content, or all of it when it is small.
class ContentPartCall final : public HalvaneTask {
public:
    struct Asked {
        int fileId = -1;
        int version = 0;
        QByteArray range;
        QByteArray entityTag;
    };
    explicit ContentPartCall(const Asked& asked)
        : HalvaneTask(QStringLiteral("GetContentPart(ID=%1)").arg(asked.fileId)), m_asked(asked) {}

    const QByteArray& bytes() const { return m_bytes; }
    const QByteArray& entityTag() const { return m_entityTag; }
    //! Of the whole content.
    qint64 contentSize() const { return m_contentSize; }

protected:
    using HalvaneTask::prepareRequest;
    Result<NetworkRequest> prepareRequest(const QUrl& baseUrl) const override {
        const QString path =
            QStringLiteral("/files/%1/versions/%2/content").arg(m_asked.fileId).arg(m_asked.version);
        Result<NetworkRequest> request = prepareRequest(baseUrl, path, NetworkRequest::Method::Get);
        if (!request)
            return request;
        request->setHeader("Range", m_asked.range);
        if (!m_asked.entityTag.isEmpty())
            request->setHeader("If-Range", m_asked.entityTag);
        request->maxReplySize = largestPart;
        return request;
    }
    Error handleReply(const NetworkReply& reply) override {
        if (reply.status != 200 && reply.status != 206)
            return ORX_ECATCH(HalvaneTask::handleReply(reply));
        m_bytes = reply.body;
        m_entityTag = reply.header("ETag");
        const QByteArray range = reply.header("Content-Range");
        bool isNumber = true;
        m_contentSize = reply.status == 200 ? m_bytes.size()
                                            : range.mid(range.lastIndexOf('/') + 1).toLongLong(&isNumber);
        const bool isOtherContent = !m_asked.entityTag.isEmpty() && m_asked.entityTag != m_entityTag;
        if (!isNumber || m_contentSize < m_bytes.size() || isOtherContent)
            return ORX_ECATCH(Error(ErrorDomain::Network, int(NetworkErrorCode::InvalidReply),
                                    tr("The server sent another part of a file than was asked for.")));
        return Error();
    }

private:
    const Asked m_asked;
    QByteArray m_bytes;
    QByteArray m_entityTag;
    qint64 m_contentSize = 0;
};

} // namespace

HalvaneGetVonkMetadataTask::HalvaneGetVonkMetadataTask(const Wanted& wanted, QObject* parent)
    : HalvaneComplexTask(QStringLiteral("GetVonkMetadata(ID=%1)").arg(wanted.fileId), parent)
    , m_wanted(wanted) {}

HalvaneGetVonkMetadataTask::~HalvaneGetVonkMetadataTask() = default;

Error HalvaneGetVonkMetadataTask::initialize() {
    ask("bytes=-" + QByteArray::number(usualTail));
    return Error();
}

void HalvaneGetVonkMetadataTask::ask(const QByteArray& range) {
    ++m_calls;
    execSubtask(std::make_unique<ContentPartCall>(
                    ContentPartCall::Asked{m_wanted.fileId, m_wanted.version, range, m_entityTag}),
                [this, range](ContentPartCall* call) {
                    m_entityTag = call->entityTag();
                    m_ends.size = call->contentSize();
                    take(range, call->bytes());
                });
}

void HalvaneGetVonkMetadataTask::take(const QByteArray& range, const QByteArray& bytes) {
    const bool isWhole = bytes.size() == m_ends.size;
    (range.startsWith("bytes=0-") && !isWhole ? m_ends.head : m_ends.tail) = bytes;
    look();
}

void HalvaneGetVonkMetadataTask::look() {
    const auto found = std::make_shared<Result<vonk::VonkLook>>(vonk::VonkLook());
    const auto job = [ends = m_ends, found]() -> Error {
        *found = vonk::Vonk::look(ends);
        return Error();
    };
    execSubtask(std::make_unique<WorkerStepTask>(QStringLiteral("LookAtVonk"), job),
                [this, found](WorkerStepTask*) { onLooked(*found); });
}

void HalvaneGetVonkMetadataTask::onLooked(const Result<vonk::VonkLook>& look) {
    if (!look.hasError() && look->metadata) {
        m_metadata = *look->metadata;
        return;
    }
    if (look.hasError() || m_calls == mostCalls) {
        const QString why =
            look.hasError() ? look.errorMessage() : tr("its parts are not where they should be.");
        finish(ORX_ECATCH(Error(
            look.hasError() ? look.error().errorCode() : ErrorCode::ParseError,
            tr("\"%1\" on the server cannot be used as a packed acquisition: %2").arg(m_wanted.name, why))));
        return;
    }
    const qint64 from = look->missing;
    ask("bytes=" + QByteArray::number(from) + '-' +
        (from == 0 ? QByteArray::number(vonk::VonkLook::headSize - 1) : QByteArray()));
}

} // namespace orx
