#pragma once

#include "HalvaneItems.h"

#include <QHash>

namespace orx {

//! The server's upload object. Pure.
struct ORX_HALVANE_EXPORT HalvaneUploadReply {
    int uploadId = -1;
    qint64 size = 0;
    qint64 chunkSize = 0;
    //! XXH3-128 (hexadecimal) of the chunks that the server has, by index.
    QHash<int, QByteArray> received;

    //! Fails with NetworkErrorCode::InvalidReply.
    static Result<HalvaneUploadReply> parse(const QJsonObject& object);
};

//! The file and version that a finalisation made. Pure.
struct ORX_HALVANE_EXPORT HalvaneFinalizedFile {
    HalvaneApiReference reference;
    qint64 size = 0;
    QString sha256;

    //! Fails with NetworkErrorCode::InvalidReply.
    static Result<HalvaneFinalizedFile> parse(const QJsonObject& object);
};

//! What became of the upload that a key was used for. Pure.
struct ORX_HALVANE_EXPORT HalvaneUploadState {
    bool finalized = false;
    //! When it is not finalised.
    HalvaneUploadReply upload;
    //! When it is.
    HalvaneFinalizedFile file;

    //! Fails with NetworkErrorCode::InvalidReply.
    static Result<HalvaneUploadState> parse(const QJsonObject& object);
};

} // namespace orx
