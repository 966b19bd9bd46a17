#include "NamedFileUploadTask.h"

#include <GetDuplicateUploadPolicyTask.h>
#include <HalvaneConnectionUtils.h>
#include <HalvaneItemTasks.h>
#include <tasks/HalvaneFileUploadTask.h>
#include <tasks/HalvaneValidateUploadInputFileTask.h>

#include <QFileInfo>

namespace halvane::host {

using orx::Error;
using orx::ErrorCode;
using orx::GetDuplicateUploadPolicyTask;
using orx::HalvaneGetFilesTask;
using orx::HalvaneUploadTask;
using orx::HalvaneValidateUploadInputFileTask;
using orx::Result;
using orx::UploadedFileData;
using orx::UploadFileInputValidation;
using orx::UploadRefusal;

NamedFileUploadTask::NamedFileUploadTask(const LocalEntry& entry, const RemoteItem& folder,
                                         std::shared_ptr<orx::DuplicateUploadPolicyInterface> policy,
                                         orx::HalvaneUploadPolicyOptions options, bool asFile)
    : ComplexTask(QStringLiteral("PutNamed(%1)").arg(entry.path))
    , m_entry(entry)
    , m_folder(folder)
    , m_policy(std::move(policy))
    , m_options(options)
    , m_asFile(asFile) {}

NamedFileUploadTask::~NamedFileUploadTask() = default;

Error NamedFileUploadTask::initialize() {
    execSubtask(std::make_unique<HalvaneValidateUploadInputFileTask>(
                    HalvaneValidateUploadInputFileTask::Input{m_entry.path}),
                [this](HalvaneValidateUploadInputFileTask*) { onValidated(); });
    return {};
}

// The rules for names are for what nobody named.
void NamedFileUploadTask::onValidated() {
    const UploadRefusal refusal = UploadFileInputValidation::refusal(QFileInfo(m_entry.path));
    if (refusal == UploadRefusal::StillWritten)
        return finish(Error(ErrorCode::Busy, UploadFileInputValidation::explanation(refusal, m_entry.path)));
    execSubtask(std::make_unique<HalvaneGetFilesTask>(m_folder.id), [this](HalvaneGetFilesTask* task) {
        onListed(orx::HalvaneConnectionUtils::findFileIdInFiles(m_entry.serverName(), task->files()));
    });
}

void NamedFileUploadTask::onListed(int existingId) {
    if (existingId == -1)
        return upload(UploadedFileData(m_folder.id, m_entry.path));
    const orx::DuplicateUploadPolicyRequest::Input question{
        m_entry.path, existingId, m_folder.id, m_folder.name, m_entry.kind == LocalEntry::Kind::RawData};
    execSubtask(std::make_unique<GetDuplicateUploadPolicyTask>(question, m_policy),
                [this](GetDuplicateUploadPolicyTask* task) {
                    if (task->uploadedFileData().id() != -1)
                        upload(task->uploadedFileData());
                });
}

void NamedFileUploadTask::upload(const UploadedFileData& data) {
    auto created = makeUpload(data);
    if (created.hasError())
        return finish(created.error());
    std::unique_ptr<HalvaneUploadTask> task = std::move(*created);
    if (auto* const file = qobject_cast<orx::HalvaneFileUploadTaskBase*>(task.get()))
        Q_EMIT uploadStarted(file);
    execSubtask(std::unique_ptr<orx::BaseTask>(std::move(task)));
}

Result<std::unique_ptr<HalvaneUploadTask>>
NamedFileUploadTask::makeUpload(const UploadedFileData& data) const {
    if (!m_asFile)
        return HalvaneUploadTask::create(data.localPath(), data.id(), data.itemType(), QString(),
                                         std::nullopt, {}, m_options, data.name());
    const auto parameters = orx::HalvaneFileUploadParameters::create(
        data.localPath(), data.id(), data.itemType(), QString(), std::nullopt, m_options, data.name());
    ORX_RETURN_ON_ERROR(parameters.error());
    return std::unique_ptr<HalvaneUploadTask>(orx::HalvaneFileUploadTask::create(parameters.value()));
}

} // namespace halvane::host
