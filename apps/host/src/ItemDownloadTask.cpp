#include "ItemDownloadTask.h"

#include "AcquisitionDownloadTask.h"
#include "ClashStepTask.h"
#include "DownloadSteps.h"
#include "RemotePath.h"

#include <DelayStepTask.h>
#include <FileTypes.h>
#include <HalvaneHistory.h>
#include <RemoteResourceHandler.h>
#include <ResourceManager.h>

namespace halvane::host {

using orx::BaseTask;
using orx::Error;
using orx::Result;

namespace {

constexpr std::chrono::milliseconds waitForAnother(20);

} // namespace

ItemDownloadTask::ItemDownloadTask(const Wanted& wanted, ClashAnswerer& answerer, QObject* parent)
    : ComplexTask(QStringLiteral("Download(%1)").arg(wanted.item.reference()), parent)
    , m_wanted(wanted)
    , m_answerer(answerer)
    , m_alive(&answerer) {
    m_result.item = wanted.item;
}

ItemDownloadTask::~ItemDownloadTask() {
    leavePlaces();
}

std::unique_ptr<ItemDownloadTask> ItemDownloadTask::create(const Wanted& wanted, ClashAnswerer& answerer,
                                                           const MakeTask& makeTask) {
    const bool isPacked = orx::FileTypes::fileType(wanted.item.name) == orx::FileTypes::VONK;
    if (isPacked && !wanted.packed)
        return std::make_unique<AcquisitionDownloadTask>(wanted, answerer, makeTask);
    Wanted file = wanted;
    file.packed = isPacked;
    return std::make_unique<FileDownloadTask>(file, answerer, makeTask);
}

bool ItemDownloadTask::mayUseCache(qint64 bytes) {
    // The name of the entry is that on the server.
    if (!m_wanted.useCache || !orx::ResourceManager::cache() || !isUsableLocalName(m_wanted.item.name))
        return false;
    if (!m_wanted.maxCachedBytes || bytes <= *m_wanted.maxCachedBytes)
        return true;
    addWarning(QStringLiteral("\"%1\" is larger than the cache may be and comes down without it.")
                   .arg(m_wanted.item.name));
    return false;
}

void ItemDownloadTask::retrieve(const Next& next, const std::function<void(const Error&)>& onFailure) {
    auto retrieval =
        m_handler->retrieveAsync(orx::ResourceHandler::AsyncProcessingType::RunByCaller, nullptr);
    if (retrieval.hasError())
        return onFailure(retrieval.error());
    std::unique_ptr<orx::Task> task = std::move(retrieval).value();
    if (!task)
        return next();
    connect(task.get(), &BaseTask::progressInitiated, this, &BaseTask::progressInitiated);
    connect(task.get(), &BaseTask::progress, this, &BaseTask::progress);
    execSubtask(
        std::unique_ptr<BaseTask>(std::move(task)), [next](BaseTask*) { next(); },
        [onFailure](BaseTask* ended) { onFailure(ended->error()); });
}

void ItemDownloadTask::discardCopy(const orx::FileCopy::Stamp& seen, const Next& next) {
    addWarning(
        QStringLiteral("The copy of \"%1\" in the cache is not what the server has; it is fetched anew.")
            .arg(m_wanted.item.name));
    m_result.fromCache = false;
    m_handler->overrideRetrieveMode(orx::ResourceHandler::RetrieveMode::Refresh);
    const auto handler = m_handler.dynamicCast<orx::RemoteResourceHandler>();
    if (!handler)
        return next();
    execSubtask(
        std::unique_ptr<BaseTask>(handler->markDamagedTask(seen)), [next](BaseTask*) { next(); },
        [this, next](BaseTask* task) {
            addWarning(task->error().errorMessage());
            next();
        });
}

Clash ItemDownloadTask::clashAt(const QString& path, const QString& madeBy) const {
    Clash clash;
    clash.existing = QFileInfo(path);
    clash.madeBy = madeBy;
    clash.item = m_wanted.item;
    if (m_answerer.policy() == IfExists::Ask) {
        // For the person only; a history that cannot be read is told when it is written.
        const auto version = orx::HalvaneHistory().fileVersion(path, m_wanted.item.id);
        if (!version.hasError())
            clash.existingVersion = version.value();
    }
    return clash;
}

void ItemDownloadTask::decide(const QString& path, const QString& madeBy,
                              const ClashAnswerer::Decided& then) {
    const Clash clash = clashAt(path, madeBy);
    if (const auto decision = m_answerer.decided(clash))
        return then(*decision);
    auto step = std::make_unique<ClashStepTask>(m_answerer, clash);
    execSubtask(
        std::move(step), [then](ClashStepTask* done) { then(done->decision()); },
        [this, then](BaseTask* ended) {
            if (!isCanceled())
                then(ended->error());
        });
}

void ItemDownloadTask::takePlaces(const QStringList& paths, const Next& next) {
    if (m_answerer.beginWriting(paths)) {
        m_places += paths;
        return next();
    }
    execSubtask(std::unique_ptr<BaseTask>(std::make_unique<orx::DelayStepTask>(waitForAnother)),
                [this, paths, next](BaseTask*) { takePlaces(paths, next); });
}

void ItemDownloadTask::leavePlaces() {
    const QStringList places = std::exchange(m_places, {});
    if (m_alive && !places.isEmpty())
        m_alive->endWriting(places);
}

void ItemDownloadTask::compareWithSeen(const QStringList& paths, const QByteArrayList& seen,
                                       const std::function<void(bool isAsSeen)>& next) {
    if (m_answerer.policy() == IfExists::Overwrite)
        return next(true);
    const auto stamps = std::make_shared<QByteArrayList>();
    execSubtask(workerStep(QStringLiteral("CompareWithSeen"),
                           [stamps, paths]() -> Error {
                               for (const QString& path : paths)
                                   stamps->append(stampOfPlace(path));
                               return {};
                           }),
                [stamps, seen, next](BaseTask*) { next(*stamps == seen); });
}

void ItemDownloadTask::remember(const QStringList& paths) {
    for (const QString& path : paths)
        m_answerer.remember(path, m_wanted.item);
}

void ItemDownloadTask::rememberFound(const QStringList& paths) {
    for (const QString& path : paths) {
        if (m_answerer.whoMade(path).isEmpty())
            remember({path});
    }
}

void ItemDownloadTask::recordVersion(const QStringList& paths) {
    const auto warning = std::make_shared<QString>();
    execSubtask(
        workerStep(QStringLiteral("RecordVersion"),
                   [paths, warning, item = m_wanted.item,
                    isWritten = m_result.outcome == DownloadedFile::Outcome::Downloaded]() -> Error {
                       orx::HalvaneHistory history;
                       for (const QString& path : paths) {
                           const Error error = isWritten
                                                   ? history.setFileVersion(path, item.id, item.version)
                                                   : history.raiseFileVersion(path, item.id, item.version);
                           if (error.hasError())
                               *warning = error.errorMessage();
                       }
                       return {};
                   }),
        [this, warning](BaseTask*) {
            if (!warning->isEmpty())
                addWarning(QStringLiteral("The file \"%1\" was downloaded, but that could not be recorded "
                                          "here: %2")
                               .arg(m_result.path, *warning));
            m_result.warnings = error().warnings();
        });
}

} // namespace halvane::host
