#include "SameContentTask.h"

#include "LocalStamp.h"
#include "SameContent.h"

#include <FileTypes.h>
#include <FileUtils.h>
#include <HalvaneConnectionUtils.h>
#include <HalvaneError.h>
#include <HalvaneHistory.h>
#include <HalvaneItemTasks.h>
#include <MsDataFileUtils.h>
#include <WorkerStepTask.h>

#include <QFileInfo>

namespace halvane::host {

using orx::BaseTask;
using orx::Error;
using orx::FileTypes;
using orx::HalvaneConnectionUtils;
using orx::HalvaneGetFileMetadataTask;
using orx::HalvaneGetFilesTask;
using orx::HalvaneGetVersionTraceTask;
using orx::WorkerStepTask;

namespace {

// One job of a worker reads so much, so that an interruption is heard between two and others get their turn.
constexpr qint64 readAtATime = 32LL * 1024 * 1024;

QList<int> filesOfFreeNames(const QString& name, const QList<orx::HalvaneFileItemSPtr>& files) {
    QList<int> found;
    orx::FileUtils::freeName(name, [&](const QString& candidate) {
        if (candidate == name)
            return true;
        const int id = HalvaneConnectionUtils::findFileIdInFiles(candidate, files);
        if (id != -1)
            found.append(id);
        return id != -1;
    });
    return found;
}

// What beside it goes up under the same name: raw data gets that of its packed acquisition.
QString rivalOf(const QString& path, bool isRawData) {
    if (isRawData) {
        const QString packed = FileTypes::addMissingExtension(path, FileTypes::VONK);
        return QFileInfo(packed).isFile() ? packed : QString();
    }
    if (!FileTypes::fileMatchesAnyType(path, {FileTypes::VONK}))
        return {};
    const QString stem = path.left(path.lastIndexOf(u'.'));
    const bool isRival = FileTypes::addMissingExtension(stem, FileTypes::VONK) == path &&
                         orx::MsDataFileUtils::isValidMsData(stem);
    return isRival ? stem : QString();
}

} // namespace

SameContentTask::SameContentTask(const Wanted& wanted)
    : ComplexTask(QStringLiteral("SameContent(%1)").arg(wanted.localPath)), m_wanted(wanted) {}

SameContentTask::~SameContentTask() = default;

Error SameContentTask::initialize() {
    ask(m_wanted.existingFileId);
    return {};
}

void SameContentTask::ask(int fileId) {
    execSubtask(
        std::make_unique<HalvaneGetFileMetadataTask>(fileId),
        [this](HalvaneGetFileMetadataTask* task) { onAnswered(RemoteItem::fromFile(task->fileItem(), {})); });
}

void SameContentTask::onAnswered(const RemoteItem& item) {
    if (item.id == m_wanted.existingFileId)
        m_existing = item;
    if (m_wanted.known && !item.sha256.isEmpty() && m_wanted.known->sha256 == item.sha256)
        compareStamps(item);
    else
        compareContent(item);
}

void SameContentTask::compareStamps(const RemoteItem& item) {
    const auto now = std::make_shared<LocalStamp>();
    execSubtask(std::make_unique<WorkerStepTask>(
                    QStringLiteral("CompareStamps"),
                    [now, path = m_wanted.localPath, isRawData = m_wanted.isRawData]() -> Error {
                        *now = LocalStamp::of(path, isRawData);
                        return {};
                    }),
                [this, item, now](WorkerStepTask*) {
                    if (!now->text.isEmpty() && now->text == m_wanted.known->stamp)
                        onSame(item);
                    else
                        compareContent(item);
                });
}

void SameContentTask::compareContent(const RemoteItem& item) {
    if (m_wanted.isRawData)
        return askTrace(item);
    const std::shared_ptr<SameContent> content =
        SameContent::ofFile(m_wanted.localPath, item.size, item.sha256.toLatin1());
    if (!FileTypes::fileMatchesAnyType(m_wanted.localPath, {FileTypes::VONK}))
        return compareMore(item, content);
    const auto isOld = std::make_shared<bool>(false);
    execSubtask(std::make_unique<WorkerStepTask>(QStringLiteral("LookAtFormat"),
                                                 [path = m_wanted.localPath, isOld]() -> Error {
                                                     *isOld = SameContent::isOldPacked(path);
                                                     return {};
                                                 }),
                [this, item, content, isOld](WorkerStepTask*) {
                    if (*isOld)
                        askTrace(item);
                    else
                        compareMore(item, content);
                });
}

void SameContentTask::askTrace(const RemoteItem& item) {
    auto trace = std::make_unique<HalvaneGetVersionTraceTask>(item.id, item.version);
    HalvaneGetVersionTraceTask* raw = trace.get();
    execSubtask(
        std::unique_ptr<BaseTask>(std::move(trace)),
        [this, item, raw](BaseTask*) { onTrace(item, raw->trace()); },
        [this](BaseTask* task) {
            // An older server does not tell.
            if (isHalvaneError(task->error(), orx::HalvaneServerErrorCode::NotFound))
                onAnother();
            else
                finish(task->error());
        });
}

void SameContentTask::onTrace(const RemoteItem& item, const QJsonObject& trace) {
    if (trace.isEmpty())
        return onAnother();
    compareMore(item, m_wanted.isRawData ? SameContent::ofRawData(m_wanted.localPath, trace)
                                         : SameContent::ofOldPacked(m_wanted.localPath, trace));
}

void SameContentTask::compareMore(const RemoteItem& item, const std::shared_ptr<SameContent>& content) {
    const auto isSame = std::make_shared<std::optional<bool>>();
    execSubtask(std::make_unique<WorkerStepTask>(QStringLiteral("CompareContent"),
                                                 [content, isSame]() -> Error {
                                                     *isSame = content->isSame(readAtATime);
                                                     return {};
                                                 }),
                [this, item, content, isSame](WorkerStepTask*) {
                    if (!*isSame)
                        compareMore(item, content);
                    else if (**isSame)
                        onSame(item);
                    else
                        onAnother();
                });
}

void SameContentTask::onAnother() {
    if (!std::exchange(m_hasListed, true))
        findRival();
    else
        askNext();
}

// Which looks into what lies beside it.
void SameContentTask::findRival() {
    const auto rival = std::make_shared<QString>();
    execSubtask(std::make_unique<WorkerStepTask>(
                    QStringLiteral("FindRival"),
                    [rival, path = m_wanted.localPath, isRawData = m_wanted.isRawData]() -> Error {
                        *rival = rivalOf(path, isRawData);
                        return {};
                    }),
                [this, rival](WorkerStepTask*) { onRivalKnown(*rival); });
}

void SameContentTask::onRivalKnown(const QString& rival) {
    m_rival = rival;
    if (!m_wanted.alsoFreeNames && m_rival.isEmpty())
        return askNext();
    execSubtask(std::make_unique<HalvaneGetFilesTask>(m_wanted.folderId),
                [this](HalvaneGetFilesTask* task) { onListed(task->files()); });
}

void SameContentTask::askNext() {
    if (m_candidates.empty())
        return;
    const int next = m_candidates.front();
    m_candidates.pop_front();
    ask(next);
}

void SameContentTask::onListed(const QList<orx::HalvaneFileItemSPtr>& files) {
    const QString local = QFileInfo(m_wanted.localPath).fileName();
    const QString name = m_wanted.isRawData ? FileTypes::addMissingExtension(local, FileTypes::VONK) : local;
    if (!m_rival.isEmpty()) {
        for (const orx::HalvaneFileItemSPtr& file : files) {
            if (file->name() == name && file->id() != m_wanted.existingFileId)
                m_candidates.push_back(file->id());
        }
    }
    if (m_wanted.alsoFreeNames) {
        const QList<int> others = filesOfFreeNames(name, files);
        m_candidates.insert(m_candidates.end(), others.begin(), others.end());
    }
    askNext();
}

// A later put compares with it; only when an earlier run was killed it is not there yet.
void SameContentTask::onSame(const RemoteItem& item) {
    m_same = item;
    if (m_wanted.isRawData || !m_wanted.recordsVersion)
        return;
    execSubtask(std::make_unique<WorkerStepTask>(
        QStringLiteral("RecordVersion"), [path = m_wanted.localPath, id = item.id, version = item.version] {
            const auto known = orx::HalvaneHistory().fileVersion(path, id);
            ORX_RETURN_ON_ERROR(known.error());
            if (known->value_or(0) >= version)
                return Error();
            return orx::HalvaneHistory().raiseFileVersion(path, id, version);
        }));
}

} // namespace halvane::host
