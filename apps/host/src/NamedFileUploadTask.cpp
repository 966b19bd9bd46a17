#include "NamedFileUploadTask.h"

#include "AwaitRestTask.h"

#include <GetDuplicateUploadPolicyTask.h>
#include <HalvaneConnectionUtils.h>
#include <HalvaneItemTasks.h>
#include <tasks/HalvaneFileUploadTask.h>
#include <tasks/HalvaneSampleDataUploadTask.h>

#include <QFileInfo>

namespace halvane::host {

using orx::Error;
using orx::GetDuplicateUploadPolicyTask;
using orx::HalvaneGetFilesTask;
using orx::HalvaneUploadTask;
using orx::Result;
using orx::UploadedFileData;

NamedFileUploadTask::NamedFileUploadTask(const Input& input,
                                         std::shared_ptr<orx::DuplicateUploadPolicyInterface> policy,
                                         orx::HalvaneUploadPolicyOptions options)
    : ComplexTask(QStringLiteral("PutNamed(%1)").arg(input.entry.path))
    , m_input(input)
    , m_policy(std::move(policy))
    , m_options(options) {}

NamedFileUploadTask::~NamedFileUploadTask() = default;

Error NamedFileUploadTask::initialize() {
    execSubtask(std::make_unique<AwaitRestTask>(m_input.entry.path),
                [this](AwaitRestTask* task) { onAtRest(task->isRawData() && !m_input.asFile); });
    return {};
}

// It may have been something else when all that was named was looked at.
void NamedFileUploadTask::onAtRest(bool isRawData) {
    LocalEntry& entry = m_input.entry;
    const QString expectedName = entry.serverName();
    if (isRawData)
        entry.kind = LocalEntry::Kind::RawData;
    else if (entry.kind == LocalEntry::Kind::RawData)
        entry.kind = LocalEntry::Kind::File;
    if (entry.serverName() != expectedName && m_input.serverNames.contains(entry.serverName()))
        return finish(changed());
    execSubtask(std::make_unique<HalvaneGetFilesTask>(m_input.folder.id), [this](HalvaneGetFilesTask* task) {
        onListed(orx::HalvaneConnectionUtils::findFileIdInFiles(m_input.entry.serverName(), task->files()));
    });
}

void NamedFileUploadTask::onListed(int existingId) {
    const LocalEntry& entry = m_input.entry;
    const RemoteItem& folder = m_input.folder;
    if (existingId == -1)
        return upload(UploadedFileData(folder.id, entry.path));
    const orx::DuplicateUploadPolicyRequest::Input question{entry.path, existingId, folder.id, folder.name,
                                                            entry.kind == LocalEntry::Kind::RawData};
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
    const bool isPacked = qobject_cast<orx::HalvaneSampleDataUploadTask*>(task.get());
    // The files of a directory would go up without the policy, anything else under a name that nobody asked
    // for.
    if (!file || isPacked != (m_input.entry.kind == LocalEntry::Kind::RawData))
        return finish(changed());
    Q_EMIT uploadStarted(file);
    execSubtask(std::unique_ptr<orx::BaseTask>(std::move(task)));
}

Error NamedFileUploadTask::changed() const {
    const QString text =
        QFileInfo(m_input.entry.path).isDir()
            ? QStringLiteral("\"%1\" was raw data and is a plain directory now. Put it once more.")
            : QStringLiteral("\"%1\" was not sent: while it waited for its turn it became another kind of "
                             "file, raw data or no raw data any more. Put it once more.");
    return Error(orx::ErrorCode::FileChanged, text.arg(m_input.entry.path));
}

Result<std::unique_ptr<HalvaneUploadTask>>
NamedFileUploadTask::makeUpload(const UploadedFileData& data) const {
    if (!m_input.asFile)
        return HalvaneUploadTask::create(data.localPath(), data.id(), data.itemType(), QString(),
                                         std::nullopt, {}, m_options, data.name());
    const auto parameters = orx::HalvaneFileUploadParameters::create(
        data.localPath(), data.id(), data.itemType(), QString(), std::nullopt, m_options, data.name());
    ORX_RETURN_ON_ERROR(parameters.error());
    return std::unique_ptr<HalvaneUploadTask>(orx::HalvaneFileUploadTask::create(parameters.value()));
}

} // namespace halvane::host
