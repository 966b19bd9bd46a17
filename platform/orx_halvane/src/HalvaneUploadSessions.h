#pragma once

#include "HalvaneUploadJournal.h"

#include <QHash>

#include <memory>

namespace orx {

//! What the init task learned about an upload, for the chunk and finalise tasks of the same process.
struct ORX_HALVANE_EXPORT HalvaneUploadSession {
    HalvaneUploadRecord record;
    qint64 size = 0;
    qint64 chunkSize = 0;
    //! XXH3-128 (hexadecimal) of the chunks that the server has, by index.
    QHash<int, QByteArray> received;
    //! The server committed it already under the record's key: nothing is to be sent, the finalisation
    //! answers with the result.
    bool finalized = false;
};

//! The sessions of this process by upload id. Thread: any.
class ORX_HALVANE_EXPORT HalvaneUploadSessions {
public:
    static void add(int uploadId, const HalvaneUploadSession& session);
    static std::shared_ptr<const HalvaneUploadSession> find(int uploadId);
    static std::shared_ptr<const HalvaneUploadSession> take(int uploadId);
};

} // namespace orx
