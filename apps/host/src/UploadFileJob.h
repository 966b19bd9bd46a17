#pragma once

#include "RemoteItem.h"

#include <ComplexTask.h>
#include <HalvaneFileUploadParameters.h>

namespace orx {
class HalvaneFileUploadTaskBase;
}

namespace halvane::host {

//! What `put` is asked for.
struct UploadRequest {
    QString localPath;
    //! A remote path or a reference: a folder receives a file, a file receives a new version.
    QString target;
    //! The name on the server; empty: that of the local file. Only for folders.
    QString name;
    //! A further name kept with the version.
    QString alias;
    enum class Versioning {
        NewFile,         //!< always another file, whatever the folder holds
        NewVersionByName //!< a file of the same name in the folder receives a new version
    };
    Versioning versioning = Versioning::NewFile;
    //! Stop when the server has a newer version than this machine last had.
    bool checkVersion = false;
    //! Absent: the file's extended metadata stays; present: it is replaced.
    std::optional<QList<orx::HalvaneCompactExtendedMetaDataValue>> metadata;
    //! Begin to copy the file into the cache once the server has it.
    bool keepInCache = true;
    //! Raw data goes up as the file that it is, and is not packed.
    bool asFile = false;
};

//! Uploads one local file, or raw data, which is packed first. First settles what an interrupted run of the
//! same upload left behind: when the server had committed it, that file is reported and nothing is sent. An
//! interrupted upload of the unchanged file goes on where it stopped. Thread: that of the object.
//!
//! Errors: a local file that is missing (ErrorCode::NotFound), a directory that is no raw data
//! (ErrorCode::InvalidArgument) or
//! unreadable (ErrorCode::FileNotReadable) is found before any call, as are settings that cannot be used;
//! then those of ResolveItemTask, ErrorCode::Busy for an acquisition that does not come to rest, and those of
//! the upload. A version conflict says which version is here and which on the server.
class HALVANE_HOST_EXPORT UploadFileJob : public orx::ComplexTask {
    Q_OBJECT
public:
    explicit UploadFileJob(const UploadRequest& request, QObject* parent = nullptr);
    ~UploadFileJob() override;

    //! Without an id until the server has made the version; then that version, also when the job fails
    //! afterwards or is cancelled (its metadata, its record): another run would make another one unless
    //! metadataMissing().
    const RemoteItem& item() const { return m_item; }
    //! An earlier, interrupted run had made the version already; nothing was sent.
    bool foundCommitted() const { return m_foundCommitted; }
    //! It ended before the metadata of item() were attached: another run finds the version and attaches them.
    bool metadataMissing() const { return m_metadataMissing; }

    //! Whether it is packed before it is sent.
    static bool isRawData(const UploadRequest& request);
    //! Whether the file can be put at all, without a call.
    static orx::Error checkLocalFile(const UploadRequest& request);

protected:
    orx::Error initialize() override;

private:
    void onTargetFailed(const orx::Error& error);
    void onTargetResolved(const RemoteItem& target, bool versionWasGiven);
    void chooseTarget();
    void findFileByName(const RemoteItem& folder);
    void prepare(int targetId, RemoteItem::ItemType targetType, const RemoteItem& askedFor);
    void settle();
    void putMetadata(const orx::HalvaneApiReference& file);
    void onMetadataFailed(const orx::HalvaneApiReference& file, const orx::Error& error);
    void setMade(const orx::HalvaneApiReference& file);
    void awaitRest();
    void onAtRest(bool isRawData);
    void warnOfDoubtfulData();
    void upload();
    orx::Result<std::unique_ptr<orx::HalvaneFileUploadTaskBase>> makeUpload() const;
    void onUploadFailed(const orx::HalvaneFileUploadTaskBase& task);
    void explainConflict(const orx::Error& conflict, int fileId);
    void awaitJournal(const orx::HalvaneApiReference& file);
    void describe(const orx::HalvaneApiReference& file);
    void describeVersion(int version);
    void keepFound(int version);
    void warnOfUnread(const orx::Error& error);

    //! The name that the file is looked for under, and gets.
    QString nameOnServer() const;

    UploadRequest m_request;
    //! As of the last look at the file.
    bool m_isPacked = false;
    RemoteItem m_target;
    orx::HalvaneFileUploadParameters m_parameters;
    RemoteItem m_item;
    bool m_foundCommitted = false;
    bool m_metadataMissing = false;
};

} // namespace halvane::host
