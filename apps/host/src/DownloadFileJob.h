#pragma once

#include "RemoteItem.h"

#include <ComplexTask.h>

#include <QDir>

#include <optional>

namespace halvane::host {

//! What `get` is asked for.
struct DownloadRequest {
    //! A remote path or a reference of a file, of one of its versions perhaps.
    QString source;
    //! An existing directory (the file goes into it under its own name), else the path of the file to be.
    QString targetPath;
    enum class IfExists { Fail, Overwrite, Skip };
    IfExists ifExists = IfExists::Fail;
    //! From the cache where it is there, else into it first.
    bool useCache = true;
    //! What the cache may hold at most; a larger file is not brought into it.
    std::optional<qint64> maxCachedBytes;
};

//! Brings one file of the server to a local path. What is at the path stays as it is until the new content is
//! there, verified and durable. The version is recorded in the local history, for that path. The content goes
//! through the process's cache; where that cannot be used it comes down directly, with a warning. Errors:
//! those of ResolveItemTask, CachedDownloadTask and HalvaneDownloadFileTask; a target that cannot be is found
//! before any call (ErrorCode::FileNotWritable, ErrorCode::AlreadyExists). Thread: that of the object.
class HALVANE_HOST_EXPORT DownloadFileJob : public orx::ComplexTask {
    Q_OBJECT
public:
    explicit DownloadFileJob(const DownloadRequest& request, QObject* parent = nullptr);
    ~DownloadFileJob() override;

    //! After success; the version that was fetched, or that would have been.
    const RemoteItem& item() const { return m_item; }
    //! Where it is.
    QString localPath() const;
    //! A file was there and stays, as asked for.
    bool skipped() const { return m_skipped; }
    //! It was in the cache already; no content was fetched.
    bool wasInCache() const { return m_wasInCache; }

protected:
    orx::Error initialize() override;

private:
    orx::Error chooseTarget();
    orx::Error checkExisting();
    void onResolved(const RemoteItem& item);
    void download();
    bool canUseCache();
    void downloadThroughCache();
    void downloadDirectly();

    DownloadRequest m_request;
    RemoteItem m_item;
    QDir m_targetDir;
    //! Empty until the file's own name is known, when a directory was given.
    QString m_targetName;
    bool m_skipped = false;
    bool m_wasInCache = false;
};

} // namespace halvane::host
