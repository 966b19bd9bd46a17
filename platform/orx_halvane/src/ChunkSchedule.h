#pragma once

#include "ChunkPlan.h"

#include <QHash>
#include <QList>

#include <optional>

namespace orx {

//! Decides which chunk of an upload is read and sent next. Chunks are read once, from first to last, and sent
//! in that order; a chunk is skipped when the checksum taken now equals the server's. Pure; one thread.
class ORX_HALVANE_EXPORT ChunkSchedule {
public:
    struct Limits {
        int inFlight = 2;
        //! Chunks that may be held at a time: being read, waiting, and in flight.
        int held = 4;
        //! How often one chunk is sent before its refusal counts.
        int attempts = 3;
    };
    enum class Verdict { Skip, Send };

    //! \a received: checksums of the chunks that the server has; others than those of \a plan are ignored.
    ChunkSchedule(const ChunkPlan& plan, const QHash<int, QByteArray>& received, const Limits& limits);

    //! Whether the next chunk is to be read: none is being read, one is left, and there is room to hold it.
    bool mayRead() const;
    //! The chunk to read; marks it as being read. Only when mayRead().
    int startReading();
    //! The chunk that was being read is there. A chunk to send waits for takeNextToSend().
    Verdict onRead(const QByteArray& checksum);
    //! The chunk to send next, in flight from then on; nothing when none waits or enough are in flight.
    std::optional<int> takeNextToSend();
    void onSent(int index);
    //! The server found the chunk damaged. True: it waits to be sent again, before all others; false: it was
    //! sent often enough, and is not held any more.
    bool onRefused(int index);

    //! The last chunk of the file carries the checksum of the whole content; when it was skipped (or there is
    //! none) and everything else arrived, the checksum is to travel alone.
    bool needsContentHashAlone() const;
    void onContentHashSent();
    //! Everything is at the server, the checksum of the content included.
    bool isComplete() const;

private:
    ChunkPlan m_plan;
    QHash<int, QByteArray> m_received;
    Limits m_limits;
    bool m_reading = false;
    bool m_hashSent = false;
    int m_nextToRead = 0;
    int m_inFlight = 0;
    QList<int> m_waiting;
    //! How often the chunks in flight or waiting were sent.
    QHash<int, int> m_attempts;
};

} // namespace orx
