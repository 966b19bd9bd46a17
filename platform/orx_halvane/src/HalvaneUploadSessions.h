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
    //! The upload is done only when HalvanePutExtendedMetaDataTask has succeeded for its file.
    bool metadataFollow = false;
    //! SHA-256 (hexadecimal) of what the chunk task read; empty before it was through.
    QByteArray contentSha256;
};

//! The sessions of this process by upload id: from the init task's success until the upload succeeded or
//! failed. Thread: any.
class ORX_HALVANE_EXPORT HalvaneUploadSessions {
public:
    static void add(int uploadId, const HalvaneUploadSession& session);
    //! Null when there is none.
    static std::shared_ptr<const HalvaneUploadSession> find(int uploadId);
    //! The same, and forgets it.
    static std::shared_ptr<const HalvaneUploadSession> take(int uploadId);
    //! Nothing when there is none.
    static void setContentSha256(int uploadId, const QByteArray& sha256);
};

} // namespace orx
