#pragma once

#include "HalvaneFileUploadParameters.h"
#include "HalvaneTask.h"

#include <QFile>

namespace orx {

//! Opens an upload, or finds the open one of an earlier run of the same unchanged file to the same target
//! (see HalvaneUploadJournal). The journal record is durable before the request goes out. Fails when the file
//! cannot be read (ErrorCode::FileNotReadable) or differs in size from the parameters
//! (ErrorCode::FileChanged).
class ORX_HALVANE_EXPORT HalvaneInitUploadTask : public HalvaneComplexTask {
    Q_OBJECT
public:
    explicit HalvaneInitUploadTask(const HalvaneFileUploadParameters& parameters, QObject* parent = nullptr);
    ~HalvaneInitUploadTask() override;
    //! -1 until it succeeded.
    int uploadId() const;

protected:
    Error initialize() override;
    Error doFinish() override;

private:
    class Private;
    std::unique_ptr<Private> d;
};

//! Sends the chunks that the server does not have. Progress: 0..100 of 100, resumed bytes included; ends at
//! 100 for empty and fully resumed files too. A chunk counts as there only when its XXH3-128, taken now from
//! the file, equals the server's. The SHA-256 of the whole content goes with the last request. Reading and
//! hashing happen on workers; two chunks in flight, from pooled buffers. A file that shrinks, grows or is
//! changed meanwhile fails with ErrorCode::FileChanged, and the upload is abandoned; after any other failure
//! a later run goes on with it.
class ORX_HALVANE_EXPORT HalvanePostChunksTask : public HalvaneComplexTask {
    Q_OBJECT
public:
    struct Input {
        int uploadId = -1;
        //! Bytes that the upload was opened with.
        qint64 fileSize = 0;
        //! For messages.
        QString localPath;
    };
    //! \a file is open for reading; its descriptor is duplicated in initialize(), so that it may be closed
    //! afterwards. Not owned.
    HalvanePostChunksTask(const Input& input, QFile* file, QObject* parent = nullptr);
    ~HalvanePostChunksTask() override;

protected:
    Error initialize() override;
    Error doFinish() override;

private:
    class Private;
    std::unique_ptr<Private> d;
};

//! POST /uploads/finalize with the journal's key: asking again gives the same file and version. On success
//! the version is recorded in HalvaneHistory and the journal record removed; when extended metadata follow,
//! by the success of the HalvanePutExtendedMetaDataTask that is made before this task is destroyed.
class ORX_HALVANE_EXPORT HalvaneFinalizeUploadTask : public HalvaneComplexTask {
    Q_OBJECT
public:
    explicit HalvaneFinalizeUploadTask(const QJsonObject& request, QObject* parent = nullptr);
    ~HalvaneFinalizeUploadTask() override;
    HalvaneApiReference createdFileReference() const;
    int createdFileId() const;
    //! SHA-256 (hexadecimal) and size as the server holds them.
    QString sha256() const;

protected:
    Error initialize() override;
    Error doFinish() override;

private:
    class Private;
    std::unique_ptr<Private> d;
};

//! Settles what earlier runs left open for this file and its original target: an upload that the server
//! committed, and whose version is still the file's last one, is recorded in the history and reported here;
//! an open one is left for the init task, any other is forgotten. When the parameters have extended metadata,
//! the record of what is reported stays until the HalvanePutExtendedMetaDataTask that is made before this
//! task is destroyed has succeeded.
class ORX_HALVANE_EXPORT HalvaneSettleUploadTask : public HalvaneComplexTask {
    Q_OBJECT
public:
    explicit HalvaneSettleUploadTask(const HalvaneFileUploadParameters& parameters,
                                     QObject* parent = nullptr);
    ~HalvaneSettleUploadTask() override;
    //! The file that an earlier run made and never heard of, or without its metadata; empty when there is
    //! none.
    std::optional<HalvaneApiReference> committedFile() const;

protected:
    Error initialize() override;
    Error doFinish() override;

private:
    class Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
