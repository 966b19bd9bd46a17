#include "DownloadFileJob.h"

#include "CachedDownloadTask.h"
#include "ErrorText.h"
#include "RemotePath.h"
#include "ResolveItemTask.h"

#include <HalvaneDownloadFileTask.h>
#include <ResourceManager.h>

#include <QFileInfo>

namespace halvane::host {

using orx::Error;
using orx::ErrorCode;
using orx::HalvaneDownloadFileTask;
using orx::HalvaneFileDownloadParameters;
using orx::HalvaneFileResourceReference;

DownloadFileJob::DownloadFileJob(const DownloadRequest& request, QObject* parent)
    : ComplexTask(QStringLiteral("Download:File(%1)").arg(request.source), parent), m_request(request) {}

DownloadFileJob::~DownloadFileJob() = default;

QString DownloadFileJob::localPath() const {
    return m_targetDir.absoluteFilePath(m_targetName);
}

Error DownloadFileJob::initialize() {
    ORX_RETURN_ON_ERROR(ResolveItemTask::checkText(m_request.source));
    ORX_RETURN_ON_ERROR(chooseTarget());
    if (!m_targetName.isEmpty())
        ORX_RETURN_ON_ERROR(checkExisting());
    execSubtask(std::make_unique<ResolveItemTask>(m_request.source, ResolveItemTask::Wanted::File),
                [this](ResolveItemTask* task) { onResolved(task->item()); });
    return {};
}

// An existing directory takes the file under its own name; anything else is the path of the file itself.
Error DownloadFileJob::chooseTarget() {
    const QFileInfo target(m_request.targetPath);
    if (target.isDir()) {
        m_targetDir = QDir(m_request.targetPath);
        return {};
    }
    if (m_request.targetPath.endsWith(u'/') || !QFileInfo(target.absolutePath()).isDir())
        return Error(
            ErrorCode::FileNotWritable,
            QStringLiteral("The directory \"%1\" does not exist; make it first.")
                .arg(m_request.targetPath.endsWith(u'/') ? m_request.targetPath : target.absolutePath()));
    m_targetDir = QDir(target.absolutePath());
    m_targetName = target.fileName();
    return {};
}

Error DownloadFileJob::checkExisting() {
    const QFileInfo target(localPath());
    const bool exists = target.exists() || target.isSymLink();
    if (!exists)
        return {};
    if (target.isDir())
        return Error(
            ErrorCode::FileNotWritable,
            QStringLiteral("\"%1\" is a directory; the file cannot take its place.").arg(localPath()));
    // A device or a pipe would be replaced by a file of its name.
    if (!target.isSymLink() && !target.isFile())
        return Error(ErrorCode::FileNotWritable,
                     QStringLiteral("\"%1\" is not a regular file and stays as it is; give another path.")
                         .arg(localPath()));
    if (m_request.ifExists == DownloadRequest::IfExists::Fail)
        return Error(
            ErrorCode::AlreadyExists,
            QStringLiteral("\"%1\" exists already and stays as it is. Give another path, or say what is to "
                           "happen with --if-exists overwrite or --if-exists skip.")
                .arg(localPath()));
    m_skipped = m_request.ifExists == DownloadRequest::IfExists::Skip;
    return {};
}

void DownloadFileJob::onResolved(const RemoteItem& item) {
    m_item = item;
    if (m_targetName.isEmpty()) {
        m_targetName = item.name;
        if (!isUsableLocalName(item.name)) {
            m_targetName.clear();
            return finish(
                Error(ErrorCode::InvalidArgument,
                      QStringLiteral("The name \"%1\" on the server cannot be the name of a local file; give "
                                     "the path of the file to be with --to.")
                          .arg(item.name)));
        }
        if (const Error error = checkExisting(); error.hasError())
            return finish(error);
    }
    if (!m_skipped)
        download();
}

void DownloadFileJob::download() {
    if (canUseCache())
        downloadThroughCache();
    else
        downloadDirectly();
}

bool DownloadFileJob::canUseCache() {
    // The name of the entry is that on the server.
    if (!m_request.useCache || !orx::ResourceManager::cache() || !isUsableLocalName(m_item.name))
        return false;
    if (!m_request.maxCachedBytes || m_item.size <= *m_request.maxCachedBytes)
        return true;
    addWarning(
        QStringLiteral("\"%1\" is larger than the cache may be and comes down without it.").arg(m_item.name));
    return false;
}

void DownloadFileJob::downloadThroughCache() {
    const bool overwrite = m_request.ifExists == DownloadRequest::IfExists::Overwrite;
    auto task = std::make_unique<CachedDownloadTask>(
        m_item, localPath(), overwrite ? orx::FileCopy::IfExists::Replace : orx::FileCopy::IfExists::Fail);
    CachedDownloadTask* raw = task.get();
    const auto onFailure = [this, raw](orx::BaseTask*) {
        if (!raw->cacheFailed())
            return finish(raw->error());
        addWarning(QStringLiteral("The cache could not be used, the file comes down without it: %1")
                       .arg(errorText(raw->error())));
        downloadDirectly();
    };
    execSubtask(
        std::unique_ptr<orx::BaseTask>(std::move(task)),
        [this, raw](orx::BaseTask*) { m_wasInCache = raw->wasInCache(); }, onFailure);
}

void DownloadFileJob::downloadDirectly() {
    const auto reference = HalvaneFileResourceReference::create(m_item.id, m_item.version, m_item.name);
    if (reference.hasError())
        return finish(reference.error());
    HalvaneFileDownloadParameters parameters;
    parameters.reference = reference.value();
    parameters.targetDir = m_targetDir;
    parameters.targetName = m_targetName;
    parameters.overwrite = m_request.ifExists == DownloadRequest::IfExists::Overwrite;
    execSubtask(std::make_unique<HalvaneDownloadFileTask>(parameters), [this](HalvaneDownloadFileTask* task) {
        m_item.sha256 = task->sha256();
        m_item.size = task->size();
    });
}

} // namespace halvane::host
