#include "GetDuplicateUploadPolicyTask.h"

#include "HalvaneConnection.h"
#include "HalvaneItemTasks.h"

#include <FileTypes.h>
#include <FileUtils.h>

#include <QDir>
#include <QFileInfo>
#include <QHash>
#include <QPointer>
#include <QSet>

#include <mutex>

namespace orx {

namespace {

//! Names that were given to uploads and are perhaps not on the server yet. Thread: any.
class GivenNames {
public:
    static GivenNames& instance() {
        static GivenNames names;
        return names;
    }
    //! A name like \a name that is not taken, from now on given.
    QString give(const QString& folder, const QString& name,
                 const std::function<bool(const QString&)>& isTaken) {
        const std::lock_guard lock(m_mutex);
        QSet<QString>& given = m_names[folder];
        QString free = FileUtils::freeName(name, [&](const QString& candidate) {
            return candidate == name || given.contains(candidate) || isTaken(candidate);
        });
        given.insert(free);
        return free;
    }

private:
    std::mutex m_mutex;
    QHash<QString, QSet<QString>> m_names;
};

//! Whether a file beside \a path will be uploaded under \a name, as it is or packed.
bool isNameOfSibling(const QFileInfo& path, const QString& name) {
    if (QFileInfo::exists(path.dir().filePath(name)))
        return true;
    if (!name.contains(u'.'))
        return false;
    const QString stem = name.left(name.lastIndexOf(u'.'));
    return FileTypes::addMissingExtension(stem, FileTypes::VONK) == name &&
           QFileInfo::exists(path.dir().filePath(stem));
}

} // namespace

//! The step that waits for the policy.
class DuplicateUploadQuestionTask : public Task {
public:
    DuplicateUploadQuestionTask(const DuplicateUploadPolicyRequest::Input& input,
                                const std::shared_ptr<DuplicateUploadPolicyInterface>& policy)
        : Task(QStringLiteral("DuplicateUploadQuestion(%1)").arg(input.localPath))
        , m_request(std::make_shared<DuplicateUploadPolicyRequest>(input))
        , m_policy(policy) {}
    ~DuplicateUploadQuestionTask() override { m_request->withdraw(); }
    DuplicateUploadAnswer answer() const { return m_answer; }

protected:
    void start() override {
        m_request->m_onAnswer = [this](DuplicateUploadAnswer given) { onAnswer(given); };
        const QPointer<DuplicateUploadQuestionTask> guard(this);
        const auto policy = m_policy;
        policy->decide(m_request);
        if (guard && m_request->isOpen()) {
            m_isLent = true;
            lendSlot();
        }
    }
    void doCancel() override {
        m_request->withdraw();
        finish(Error());
    }

private:
    void onAnswer(DuplicateUploadAnswer given) {
        m_answer = given;
        if (m_isLent)
            takeSlotBack([this] { finish(Error()); });
        else
            finish(Error());
    }
    const DuplicateUploadPolicyRequestPtr m_request;
    const std::shared_ptr<DuplicateUploadPolicyInterface> m_policy;
    DuplicateUploadAnswer m_answer = DuplicateUploadAnswer::Fail;
    bool m_isLent = false;
};

class GetDuplicateUploadPolicyTask::Private {
public:
    Private(GetDuplicateUploadPolicyTask* task, const DuplicateUploadPolicyRequest::Input& asked,
            const std::shared_ptr<DuplicateUploadPolicyInterface>& decides)
        : q(task)
        , input(asked)
        , policy(decides ? decides : std::make_shared<DefaultDuplicateUploadPolicy>())
        , result(asked.localPath) {}

    void onAnswer(DuplicateUploadAnswer answer);
    void appendListTask();
    void onFilesListed(const HalvaneGetFilesTask& task);

    GetDuplicateUploadPolicyTask* const q;
    const DuplicateUploadPolicyRequest::Input input;
    const std::shared_ptr<DuplicateUploadPolicyInterface> policy;
    UploadedFileData result;
};

GetDuplicateUploadPolicyTask::GetDuplicateUploadPolicyTask(
    const DuplicateUploadPolicyRequest::Input& input,
    const std::shared_ptr<DuplicateUploadPolicyInterface>& policy)
    : HalvaneComplexTask(QStringLiteral("GetDuplicateUploadPolicy(%1)").arg(input.localPath), nullptr)
    , d(std::make_unique<Private>(this, input, policy)) {}

GetDuplicateUploadPolicyTask::~GetDuplicateUploadPolicyTask() = default;

UploadedFileData GetDuplicateUploadPolicyTask::uploadedFileData() const {
    return d->result;
}

Error GetDuplicateUploadPolicyTask::initialize() {
    if (!d->input.isValidMsData && QFileInfo(d->input.localPath).isDir()) {
        d->result.setId(d->input.folderId);
        return Error();
    }
    execSubtask(std::make_unique<DuplicateUploadQuestionTask>(d->input, d->policy),
                [this](DuplicateUploadQuestionTask* task) { d->onAnswer(task->answer()); });
    return Error();
}

void GetDuplicateUploadPolicyTask::Private::onAnswer(DuplicateUploadAnswer answer) {
    switch (answer) {
    case DuplicateUploadAnswer::NewVersion:
        result = UploadedFileData(input.existingFileId, UploadedFileData::ItemType::File, input.localPath,
                                  std::nullopt);
        return;
    case DuplicateUploadAnswer::KeepBoth:
        appendListTask();
        return;
    case DuplicateUploadAnswer::Skip:
        return;
    case DuplicateUploadAnswer::Cancel:
        q->cancel();
        return;
    case DuplicateUploadAnswer::Fail:
        q->finish(ORX_ECATCH(Error(ErrorCode::AlreadyExists,
                                   tr("\"%1\" cannot be uploaded: the folder \"%2\" has a file of that name. "
                                      "Choose a new version, another name, or to leave it out.")
                                       .arg(input.localPath, input.folderName))));
        return;
    }
}

void GetDuplicateUploadPolicyTask::Private::appendListTask() {
    q->execSubtask(std::make_unique<HalvaneGetFilesTask>(input.folderId),
                   [this](HalvaneGetFilesTask* task) { onFilesListed(*task); });
}

void GetDuplicateUploadPolicyTask::Private::onFilesListed(const HalvaneGetFilesTask& task) {
    const QFileInfo path(input.localPath);
    QSet<QString> onServer;
    for (const HalvaneFileItemSPtr& file : task.files())
        onServer.insert(file->name());
    const QString name = input.isValidMsData
                             ? FileTypes::addMissingExtension(path.fileName(), FileTypes::VONK)
                             : path.fileName();
    const QString folder = HalvaneConnection::instance().serverKey() + u'/' + QString::number(input.folderId);
    const QString free = GivenNames::instance().give(folder, name, [&](const QString& candidate) {
        return onServer.contains(candidate) || isNameOfSibling(path, candidate);
    });
    result = UploadedFileData(input.folderId, UploadedFileData::ItemType::Folder, input.localPath, free);
}

} // namespace orx
