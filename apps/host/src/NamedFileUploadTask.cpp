#include "NamedFileUploadTask.h"

#include "AwaitRestTask.h"

#include <GetDuplicateUploadPolicyTask.h>
#include <HalvaneConnectionUtils.h>
#include <HalvaneItemTasks.h>
#include <tasks/HalvaneFileUploadTask.h>

namespace halvane::host {

using orx::Error;
using orx::GetDuplicateUploadPolicyTask;
using orx::HalvaneGetFilesTask;
using orx::HalvaneUploadTask;
using orx::Result;
using orx::UploadedFileData;

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
    execSubtask(std::make_unique<AwaitRestTask>(m_entry.path), [this](AwaitRestTask*) { onAtRest(); });
    return {};
}

void NamedFileUploadTask::onAtRest() {
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
    auto* const file = qobject_cast<orx::HalvaneFileUploadTaskBase*>(task.get());
    if (!file) // its files would go up without the policy
        return finish(
            Error(orx::ErrorCode::FileChanged,
                  QStringLiteral("\"%1\" was raw data and is a plain directory now.").arg(m_entry.path)));
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
