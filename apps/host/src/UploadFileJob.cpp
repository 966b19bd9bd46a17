#include "UploadFileJob.h"

#include "AwaitRestTask.h"
#include "ErrorText.h"
#include "LocalTree.h"
#include "ResolveItemTask.h"
#include "UploadSettings.h"

#include <FileTypes.h>
#include <HalvaneAcknowledgedContents.h>
#include <HalvaneConnection.h>
#include <HalvaneConnectionUtils.h>
#include <HalvaneError.h>
#include <HalvaneHistory.h>
#include <HalvaneResourceReference.h>
#include <HalvaneUploadTasks.h>
#include <JournalHold.h>
#include <MsDataFileUtils.h>
#include <RemoteResourceHandler.h>
#include <ResourceManager.h>
#include <WorkerStepTask.h>
#include <tasks/HalvaneFileUploadTask.h>
#include <tasks/HalvaneSampleDataUploadTask.h>

#include <QFile>
#include <QFileInfo>

namespace halvane::host {

using orx::BaseTask;
using orx::Error;
using orx::ErrorCode;
using orx::HalvaneApiReference;
using orx::HalvaneFileUploadParameters;
using orx::HalvaneFileUploadTaskBase;
using orx::HalvaneGetFileMetadataTask;
using orx::HalvaneGetFilesTask;
using orx::HalvaneGetFileVersionsTask;
using orx::HalvanePutExtendedMetaDataTask;
using orx::HalvaneServerErrorCode;
using orx::HalvaneSettleUploadTask;
using orx::HalvaneUploadPolicyOption;
using orx::HalvaneUploadPolicyOptions;
using orx::HalvaneUploadTask;
using orx::JournalHold;
using orx::Result;
using orx::WorkerStepTask;

namespace {

HalvaneUploadPolicyOptions policyOptions(const UploadRequest& request) {
    HalvaneUploadPolicyOptions options = HalvaneUploadTask::DEFAULT_UPLOAD_POLICY_OPTIONS;
    options.setFlag(HalvaneUploadPolicyOption::NewVersionByName,
                    request.versioning == UploadRequest::Versioning::NewVersionByName);
    if (request.checkVersion)
        options.setFlag(HalvaneUploadPolicyOption::ReplaceWithoutVersionCheck, false);
    return options;
}

QString conflictText(const QString& localPath, const RemoteItem& onServer, std::optional<int> here) {
    const QString known = here ? QStringLiteral("this machine last had version %1").arg(*here)
                               : QStringLiteral("this machine has not recorded that version");
    return QStringLiteral(
               "\"%1\" was not uploaded: \"%2\" (file:%3) has version %4 on the server, and %5. Fetch the "
               "newer version with \"halvane get file:%3 --to PATH\", or put this file on top of it with "
               "--new-version and without --check-version.")
        .arg(localPath, onServer.name, QString::number(onServer.id), QString::number(onServer.version),
             known);
}

} // namespace

UploadFileJob::UploadFileJob(const UploadRequest& request, QObject* parent)
    : ComplexTask(QStringLiteral("Put(%1)").arg(request.localPath), parent), m_request(request) {}

UploadFileJob::~UploadFileJob() = default;

bool UploadFileJob::isRawData(const UploadRequest& request) {
    return !request.asFile &&
           !orx::FileTypes::fileMatchesAnyType(request.localPath, {orx::FileTypes::VONK}) &&
           orx::MsDataFileUtils::isValidMsData(request.localPath);
}

Error UploadFileJob::checkLocalFile(const UploadRequest& request) {
    const QString path = request.localPath;
    const QFileInfo info(path);
    if (info.isDir() && request.asFile)
        return Error(ErrorCode::InvalidArgument,
                     QStringLiteral("\"%1\" is a directory and cannot go up as a file: leave out --as-file.")
                         .arg(path));
    if (info.isDir() && isRawData(request))
        return {};
    if (info.isDir())
        return Error(ErrorCode::InvalidArgument, QStringLiteral("\"%1\" is a directory.").arg(path));
    if (!info.exists())
        return Error(ErrorCode::NotFound,
                     info.isSymLink()
                         ? QStringLiteral("\"%1\" is a link to a file that does not exist.").arg(path)
                         : QStringLiteral("There is no file \"%1\".").arg(path));
    if (!info.isFile())
        return Error(ErrorCode::InvalidArgument, QStringLiteral("\"%1\" is not a regular file.").arg(path));
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return Error(ErrorCode::FileNotReadable,
                     QStringLiteral("The file \"%1\" cannot be read: %2.").arg(path, file.errorString()));
    return {};
}

Error UploadFileJob::initialize() {
    ORX_RETURN_ON_ERROR(ResolveItemTask::checkText(m_request.target));
    ORX_RETURN_ON_ERROR(checkLocalFile(m_request));
    const auto filters = uploadFilters();
    ORX_RETURN_ON_ERROR(filters.error());
    orx::UploadFileInputValidation::setFilters(filters.value());
    m_isPacked = isRawData(m_request);
    auto resolve = std::make_unique<ResolveItemTask>(m_request.target, ResolveItemTask::Wanted::Any);
    ResolveItemTask* raw = resolve.get();
    execSubtask(
        std::unique_ptr<BaseTask>(std::move(resolve)),
        [this, raw](BaseTask*) { onTargetResolved(raw->item(), raw->versionWasGiven()); },
        [this](BaseTask* task) { onTargetFailed(task->error()); });
    return {};
}

// Who is used to copying files expects to name the new file there.
void UploadFileJob::onTargetFailed(const Error& error) {
    if (!isHalvaneError(error, HalvaneServerErrorCode::NotFound) || !m_request.target.startsWith(u'/'))
        return finish(error);
    finish(
        withMessage(error, joinedSentences(error.errorMessage(),
                                           QStringLiteral("--to takes what is there already: make a folder "
                                                          "with \"halvane mkdir\", give a new file's name "
                                                          "with --as."))));
}

void UploadFileJob::onTargetResolved(const RemoteItem& target, bool versionWasGiven) {
    if (target.isFile() && versionWasGiven)
        return finish(Error(
            ErrorCode::InvalidArgument,
            QStringLiteral("A new version always follows the last one: put to file:%1.").arg(target.id)));
    if (target.isFile() && !m_request.name.isEmpty())
        return finish(
            Error(ErrorCode::InvalidArgument,
                  QStringLiteral("A new version keeps the name of its file, \"%1\": leave out --as.")
                      .arg(target.name)));
    m_target = target;
    chooseTarget();
}

void UploadFileJob::chooseTarget() {
    const bool byName = m_request.versioning == UploadRequest::Versioning::NewVersionByName;
    if (m_target.isFolder() && byName && !m_request.name.isEmpty())
        return findFileByName(m_target);
    prepare(m_target.id, m_target.type, m_target);
}

// The upload task looks for the local file's own name; under another name the file is found here.
void UploadFileJob::findFileByName(const RemoteItem& folder) {
    execSubtask(std::make_unique<HalvaneGetFilesTask>(folder.id), [this, folder](HalvaneGetFilesTask* task) {
        const int fileId = orx::HalvaneConnectionUtils::findFileIdInFiles(nameOnServer(), task->files());
        if (fileId == -1)
            prepare(folder.id, RemoteItem::ItemType::Folder, folder);
        else
            prepare(fileId, RemoteItem::ItemType::File, folder);
    });
}

QString UploadFileJob::nameOnServer() const {
    const QString name =
        m_request.name.isEmpty() ? QFileInfo(m_request.localPath).fileName() : m_request.name;
    return m_isPacked ? orx::FileTypes::addMissingExtension(name, orx::FileTypes::VONK) : name;
}

void UploadFileJob::prepare(int targetId, RemoteItem::ItemType targetType, const RemoteItem& askedFor) {
    const std::optional<QString> name =
        m_request.name.isEmpty() ? std::nullopt : std::optional<QString>(m_request.name);
    const auto parameters =
        HalvaneFileUploadParameters::create(m_request.localPath, targetId, targetType, m_request.alias,
                                            m_request.metadata, policyOptions(m_request), name);
    if (parameters.hasError())
        return finish(parameters.error());
    m_parameters = parameters.value();
    // An upload whose result was never heard of is found by what was asked for: by now a search by name finds
    // the very file that it made.
    m_parameters.originalTargetItemType = askedFor.type;
    m_parameters.originalTargetId = askedFor.id;
    settle();
}

void UploadFileJob::settle() {
    execSubtask(std::make_unique<HalvaneSettleUploadTask>(m_parameters),
                [this](HalvaneSettleUploadTask* task) {
                    const std::optional<HalvaneApiReference> committed = task->committedFile();
                    if (!committed)
                        return awaitRest();
                    m_foundCommitted = true;
                    if (m_request.metadata)
                        putMetadata(*committed);
                    else
                        awaitJournal(*committed);
                });
}

// The run that made the file did not live to attach its metadata.
void UploadFileJob::putMetadata(const HalvaneApiReference& file) {
    auto metadata = std::make_unique<HalvanePutExtendedMetaDataTask>(file.fileId, *m_request.metadata);
    execSubtask(
        std::unique_ptr<BaseTask>(std::move(metadata)), [this, file](BaseTask*) { awaitJournal(file); },
        [this, file](BaseTask* task) { onMetadataFailed(file, task->error()); });
}

// The version is there, and its journal record stays: another run finds it.
void UploadFileJob::onMetadataFailed(const HalvaneApiReference& file, const Error& error) {
    setMade(file);
    m_metadataMissing = m_request.metadata.has_value();
    finish(withMessage(error, QStringLiteral("\"%1\" is on the server as %2, but its metadata could not be "
                                             "attached; run the same command again to attach them. %3")
                                  .arg(m_request.localPath, m_item.reference(), errorText(error))));
}

void UploadFileJob::setMade(const HalvaneApiReference& file) {
    m_item.type = RemoteItem::ItemType::File;
    m_item.id = file.fileId;
    m_item.version = file.version;
    m_item.name = nameOnServer();
    m_item.size = m_isPacked ? -1 : QFileInfo(m_request.localPath).size();
}

void UploadFileJob::awaitRest() {
    execSubtask(std::make_unique<AwaitRestTask>(m_request.localPath),
                [this](AwaitRestTask* task) { onAtRest(task->isRawData() && !m_request.asFile); });
}

// What became raw data, or is none any more, gets another name and may have another upload to go on with.
void UploadFileJob::onAtRest(bool isRawData) {
    if (isRawData == m_isPacked) {
        if (!isRawData && !m_request.asFile)
            warnOfDoubtfulData();
        return upload();
    }
    const Error error = checkLocalFile(m_request);
    if (error.hasError())
        return finish(error);
    m_isPacked = isRawData;
    chooseTarget();
}

void UploadFileJob::warnOfDoubtfulData() {
    if (const QString remark = remarkOnDoubtfulData(m_request.localPath); !remark.isEmpty())
        addWarning(remark);
}

void UploadFileJob::upload() {
    auto created = makeUpload();
    if (created.hasError())
        return finish(created.error());
    HalvaneFileUploadTaskBase* const raw = created->get();
    // Raw data is cached by the upload of its packed file, and not by its own.
    if (!m_request.keepInCache)
        raw->setCachedOnFinished(false);
    const auto onSuccess = [this, raw](BaseTask*) {
        if (const auto uploaded = raw->uploadedFile())
            return awaitJournal(uploaded->reference());
        finish(Error(ErrorCode::General,
                     QStringLiteral("The upload of \"%1\" ended without the server's record of "
                                    "the file.")
                         .arg(m_request.localPath)));
    };
    const auto onFailure = [this, raw](BaseTask*) { onUploadFailed(*raw); };
    execSubtask(std::unique_ptr<BaseTask>(std::move(*created)), onSuccess, onFailure);
}

Result<std::unique_ptr<HalvaneFileUploadTaskBase>> UploadFileJob::makeUpload() const {
    using Made = std::unique_ptr<HalvaneFileUploadTaskBase>;
    if (!m_isPacked)
        return Made(orx::HalvaneFileUploadTask::create(m_parameters));
    return Made(std::make_unique<orx::HalvaneSampleDataUploadTask>(m_parameters, nullptr));
}

void UploadFileJob::onUploadFailed(const HalvaneFileUploadTaskBase& task) {
    if (const auto uploaded = task.uploadedFile())
        return onMetadataFailed(uploaded->reference(), task.error());
    if (isHalvaneError(task.error(), HalvaneServerErrorCode::VersionConflict) &&
        task.targetType() == RemoteItem::ItemType::File)
        return explainConflict(task.error(), task.targetId());
    finish(task.error());
}

void UploadFileJob::explainConflict(const Error& conflict, int fileId) {
    auto metadata = std::make_unique<HalvaneGetFileMetadataTask>(fileId);
    HalvaneGetFileMetadataTask* raw = metadata.get();
    const auto onSuccess = [this, conflict, raw, fileId](BaseTask*) {
        const auto known = orx::HalvaneHistory().fileVersion(m_request.localPath, fileId);
        const RemoteItem onServer = RemoteItem::fromFile(raw->fileItem(), {});
        finish(withMessage(conflict,
                           conflictText(m_request.localPath, onServer, known.valueOr(std::optional<int>()))));
    };
    const auto onFailure = [this, conflict](BaseTask*) { finish(conflict); };
    execSubtask(std::unique_ptr<BaseTask>(std::move(metadata)), onSuccess, onFailure);
}

// A put that follows, of whatever process, is one of its own.
void UploadFileJob::awaitJournal(const HalvaneApiReference& file) {
    setMade(file);
    const auto job = [] {
        JournalHold::awaitReleases();
        return Error();
    };
    execSubtask(std::make_unique<WorkerStepTask>(QStringLiteral("AwaitJournal"), job),
                [this, file](WorkerStepTask*) { describe(file); });
}

// What the server holds is asked for after the upload. It is safe there by then, so that a failure of this
// question is a warning.
void UploadFileJob::describe(const HalvaneApiReference& file) {
    auto metadata = std::make_unique<HalvaneGetFileMetadataTask>(file.fileId);
    HalvaneGetFileMetadataTask* raw = metadata.get();
    const auto onSuccess = [this, raw, version = file.version](BaseTask*) {
        m_item = RemoteItem::fromFile(raw->fileItem(), {});
        if (m_foundCommitted)
            keepFound(version);
        if (m_item.version != version)
            describeVersion(version);
    };
    execSubtask(std::unique_ptr<BaseTask>(std::move(metadata)), onSuccess,
                [this](BaseTask* task) { warnOfUnread(task->error()); });
}

// The run that made the version did not live to put the file into the cache. What is packed or was packed
// would have to be unpacked there: it is fetched when somebody wants it.
void UploadFileJob::keepFound(int version) {
    const bool isPacked =
        m_isPacked || orx::FileTypes::fileMatchesAnyType(m_request.localPath, {orx::FileTypes::VONK});
    if (!m_request.keepInCache || isPacked || m_item.version != version || m_item.sha256.isEmpty())
        return;
    // The journal knows the file by its size and times: what is cached is compared with what was sent.
    orx::HalvaneAcknowledgedContents::record(orx::HalvaneConnection::instance().serverKey(), m_item.id,
                                             version, m_item.sha256.toLatin1());
    const auto reference = orx::HalvaneFileResourceReference::create(m_item.id, version, m_item.name);
    const auto handler = reference.hasError()
                             ? Result<QSharedPointer<orx::ResourceHandler>>(reference.error())
                             : orx::ResourceManager::getHandler(*reference);
    const auto remote = handler.hasError() ? QSharedPointer<orx::RemoteResourceHandler>()
                                           : handler->dynamicCast<orx::RemoteResourceHandler>();
    const Error error =
        remote ? remote->addToCache(orx::Path(m_request.localPath, orx::PathType::File)) : handler.error();
    if (error.hasError())
        addWarning(QStringLiteral("The file is on the server, but no copy of it is in the cache: %1")
                       .arg(errorText(error)));
}

void UploadFileJob::warnOfUnread(const Error& error) {
    addWarning(QStringLiteral("The file is on the server, but its record could not be read: %1")
                   .arg(errorText(error)));
}

// Somebody has put a newer version since; this run's own one is among the versions.
void UploadFileJob::describeVersion(int version) {
    m_item.version = version;
    execSubtask(
        std::make_unique<HalvaneGetFileVersionsTask>(m_item.id),
        [this, version](HalvaneGetFileVersionsTask* task) {
            for (const orx::HalvaneFileVersion& candidate : task->versions()) {
                if (candidate.version == version)
                    m_item.setVersion(candidate);
            }
        },
        [this](BaseTask* task) { warnOfUnread(task->error()); });
}

} // namespace halvane::host
