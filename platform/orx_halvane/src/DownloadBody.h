#pragma once

#include "BufferPool.h"

#include <NetworkRequest.h>

#include <QList>

#include <functional>

namespace orx {

//! Takes the body of a content request and hands it on in blocks; makes the server wait when too many have
//! not been taken. Checks that the reply is the part that was asked for. Thread: that of the transport.
class ORX_HALVANE_EXPORT DownloadBody final : public BodySink {
public:
    using Block = std::shared_ptr<const QByteArray>;

    struct Limits {
        qint64 blockSize = 512 * 1024;
        int blocks = 8;
    };
    struct Expected {
        //! Where the part begins that was asked for; it goes on to the end.
        qint64 offset = 0;
        //! Of the whole content.
        qint64 size = 0;
        //! Of the whole content, hexadecimal.
        QByteArray sha256;
    };

    //! \a onBlock is called whenever a block is complete, until detach().
    DownloadBody(const Expected& expected, std::function<void()> onBlock, const Limits& limits);
    DownloadBody(const Expected& expected, std::function<void()> onBlock);

    Verdict begin(int status, const QList<HttpHeader>& headers) override;
    Verdict take(const char* data, qint64 size) override;

    //! The complete blocks in order; with \a rest also what has come of the next one. Each comes once.
    QList<Block> takeBlocks(bool rest);
    //! The reply is the whole content although a part was asked for: what was there before does not count.
    bool startsOver() const { return m_startsOver; }
    //! True once after the sink said Pause, when it has room again: the call is to be resumed.
    bool takeResumable();
    //! Why it said Abort.
    const Error& error() const { return m_error; }
    void detach() { m_onBlock = {}; }

private:
    Verdict refuse(const char* reason);
    void addToBlock(const char* data, qint64 size);

    Expected m_expected;
    std::function<void()> m_onBlock;
    Limits m_limits;
    //! As many blocks are being written as are complete; fresh memory would cost the event loop page faults.
    BufferPool m_pool;
    qint64 m_left = 0;
    bool m_startsOver = false;
    bool m_paused = false;
    std::shared_ptr<QByteArray> m_filling;
    QList<Block> m_complete;
    Error m_error;
};

} // namespace orx
