#include "DownloadBody.h"

#include <NetworkError.h>

#include <QCoreApplication>

namespace orx {
namespace {

//! The header value of a range from \a offset to the end.
QByteArray contentRange(qint64 offset, qint64 size) {
    return "bytes " + QByteArray::number(offset) + "-" + QByteArray::number(size - 1) + "/" +
           QByteArray::number(size);
}

} // namespace

DownloadBody::DownloadBody(const Expected& expected, std::function<void()> onBlock, const Limits& limits)
    : m_expected(expected)
    , m_onBlock(std::move(onBlock))
    , m_limits(limits)
    , m_pool(limits.blockSize, 2 * limits.blocks) {}

DownloadBody::DownloadBody(const Expected& expected, std::function<void()> onBlock)
    : DownloadBody(expected, std::move(onBlock), Limits()) {}

BodySink::Verdict DownloadBody::begin(int status, const QList<HttpHeader>& headers) {
    const QByteArray sha256 = NetworkRequest::header(headers, "Halvane-Content-Sha256");
    if (!sha256.isEmpty() && sha256 != m_expected.sha256)
        return refuse(
            QT_TRANSLATE_NOOP("orx::DownloadBody", "The server sends another content than it announced."));
    m_startsOver = status == 200 && m_expected.offset > 0;
    m_left = m_expected.size - (status == 206 ? m_expected.offset : 0);
    if (status == 206 && NetworkRequest::header(headers, "Content-Range").trimmed() !=
                             contentRange(m_expected.offset, m_expected.size))
        return refuse(QT_TRANSLATE_NOOP(
            "orx::DownloadBody", "The server sends another part of the content than it was asked for."));
    if (status != 200 && status != 206)
        return refuse(
            QT_TRANSLATE_NOOP("orx::DownloadBody", "The server answers a request for a content strangely."));
    return Verdict::Taken;
}

BodySink::Verdict DownloadBody::take(const char* data, qint64 size) {
    if (m_complete.size() >= m_limits.blocks) {
        m_paused = true;
        return Verdict::Pause;
    }
    if (size > m_left)
        return refuse(QT_TRANSLATE_NOOP("orx::DownloadBody", "The server sends more than it announced."));
    m_left -= size;
    const qsizetype before = m_complete.size();
    while (size > 0) {
        const qint64 room = m_limits.blockSize - (m_filling ? m_filling->size() : 0);
        const qint64 part = qMin(size, room);
        addToBlock(data, part);
        data += part;
        size -= part;
    }
    if (m_complete.size() > before && m_onBlock)
        m_onBlock();
    return Verdict::Taken;
}

void DownloadBody::addToBlock(const char* data, qint64 size) {
    if (!m_filling) {
        m_filling = m_pool.take();
        m_filling->resize(0); // keeps the memory
    }
    m_filling->append(data, size);
    if (m_filling->size() == m_limits.blockSize)
        m_complete.append(std::exchange(m_filling, nullptr));
}

QList<DownloadBody::Block> DownloadBody::takeBlocks(bool rest) {
    QList<Block> blocks = std::exchange(m_complete, {});
    if (rest && m_filling)
        blocks.append(std::exchange(m_filling, nullptr));
    return blocks;
}

bool DownloadBody::takeResumable() {
    return m_complete.size() < m_limits.blocks && std::exchange(m_paused, false);
}

BodySink::Verdict DownloadBody::refuse(const char* reason) {
    m_error = Error(ErrorDomain::Network, int(NetworkErrorCode::InvalidReply),
                    QCoreApplication::translate("orx::DownloadBody", reason));
    return Verdict::Abort;
}

} // namespace orx
