#include "FileDownloadTask.h"

#include "DownloadSteps.h"
#include "ErrorText.h"
#include "Resources.h"

#include <ContentCheck.h>
#include <DownloadNames.h>
#include <FileUtils.h>
#include <HalvaneAcknowledgedContents.h>
#include <HalvaneConnection.h>
#include <HalvaneDownloadFileTask.h>
#include <RemoteResourceHandler.h>
#include <ReplaceGuard.h>
#include <tasks/HalvaneDownloadFileCacheTask.h>

#include <QDir>
#include <QFileInfo>

#include <utility>

namespace halvane::host {

using orx::BaseTask;
using orx::DuplicateDownloadPolicy;
using orx::Error;
using orx::ErrorCode;
using orx::HalvaneDownloadFileCacheTask;
using orx::HalvaneDownloadFileTask;
using orx::HalvaneFileResourceReference;
using orx::ResourceHandler;
using orx::Result;
using Outcome = DownloadedFile::Outcome;

namespace {

//! Of \a size bytes beside \a target those are there that are in \a partial.
Error checkRoomForRest(const QString& target, const QString& partial, qint64 size) {
    return checkRoom(QFileInfo(target), size - QFileInfo(partial).size());
}

} // namespace

struct FileDownloadTask::Look {
    bool isThere = false;
    bool isFile = false;
    QByteArray stamp;
    Error problem;
    //! For a copy out of the cache. What is fetched directly looks for room itself.
    Error noRoom;
};

FileDownloadTask::FileDownloadTask(const Wanted& wanted, ClashAnswerer& answerer, MakeTask makeTask,
                                   QObject* parent)
    : ItemDownloadTask(wanted, answerer, parent), m_makeTask(std::move(makeTask)), m_name(wanted.name) {}

FileDownloadTask::~FileDownloadTask() = default;

QString FileDownloadTask::targetPath() const {
    return m_wanted.directory + u'/' + m_name;
}

QString FileDownloadTask::partialPath() const {
    return m_wanted.directory + u'/' +
           orx::DownloadNames::partialName(m_name, m_wanted.item.id, m_wanted.item.version);
}

Error FileDownloadTask::initialize() {
    // The cache holds packed acquisitions unpacked.
    m_usesCache = !m_wanted.packed && mayUseCache(m_wanted.item.size);
    look();
    return {};
}

void FileDownloadTask::look() {
    m_seenMaker = m_answerer.whoMade(targetPath());
    const auto look = std::make_shared<Look>();
    execSubtask(workerStep(QStringLiteral("LookAtTarget"),
                           [look, path = targetPath(), partial = partialPath(), size = m_wanted.item.size,
                            isCopied = m_usesCache]() -> Error {
                               const QFileInfo target(path);
                               look->isThere = isThere(target);
                               look->isFile = target.isFile();
                               look->problem = checkFilePlace(target);
                               if (!look->problem.hasError())
                                   look->stamp = stampOfPlace(path);
                               if (isCopied)
                                   look->noRoom = checkRoomForRest(path, partial, size);
                               return {};
                           }),
                [this, look](BaseTask*) { onLooked(*look); });
}

// Something has come to the target that no decision was about.
void FileDownloadTask::lookAgain() {
    leavePlaces();
    m_name = m_wanted.name;
    m_mayOverwrite = false;
    look();
}

// What is complete already needs neither room nor permission.
void FileDownloadTask::onLooked(const Look& look) {
    m_seenStamp = look.stamp;
    if (!look.isFile) {
        if (look.problem.hasError())
            return finish(look.problem);
        return look.isThere ? onOtherContent(look) : fetchInto(look);
    }
    compare(targetPath(), [this, look](bool isSame) {
        if (isSame)
            return endUnchanged();
        onOtherContent(look);
    });
}

void FileDownloadTask::onOtherContent(const Look& look) {
    // Nobody is asked about what cannot be done.
    if (m_answerer.policy() == IfExists::Ask && look.problem.hasError())
        return finish(look.problem);
    decide(targetPath(), m_seenMaker,
           [this, look](const ClashAnswerer::Decision& decision) { onDecided(look, decision); });
}

void FileDownloadTask::onDecided(const Look& look, const ClashAnswerer::Decision& decision) {
    if (decision.hasError())
        return finish(decision.error());
    if (*decision == IfExists::Skip)
        return endAs(Outcome::Skipped);
    if (look.problem.hasError())
        return finish(look.problem);
    if (*decision == IfExists::Rename)
        return findFreeName(2);
    m_mayOverwrite = *decision == IfExists::Overwrite;
    fetchInto(look);
}

void FileDownloadTask::fetchInto(const Look& look) {
    if (look.noRoom.hasError())
        return finish(look.noRoom);
    fetch();
}

// What an interrupted run left is called after that name.
void FileDownloadTask::fetchRenamed() {
    const auto prepare = [usesCache = m_usesCache, left = std::exchange(m_leftPartial, {}),
                          path = targetPath(), partial = partialPath(), size = m_wanted.item.size] {
        if (usesCache)
            return checkRoomForRest(path, partial, size);
        // So is what this one fetched before something else came to the target.
        return left.isEmpty() ? Error() : renamePartial(left, partial);
    };
    execSubtask(workerStep(QStringLiteral("PrepareFreeName"), prepare), [this](BaseTask*) { fetch(); });
}

// The first name that is free, or under which an earlier run left this very content.
void FileDownloadTask::findFreeName(int number) {
    int passed = 1;
    m_name = orx::FileUtils::freeName(m_wanted.name,
                                      [&passed, number](const QString&) { return passed++ < number; });
    m_seenMaker = m_answerer.whoMade(targetPath());
    if (m_answerer.isOfFolder(targetPath()))
        return findFreeName(number + 1);
    if (!isThere(QFileInfo(targetPath())))
        return fetchRenamed();
    compare(targetPath(), [this, number](bool isSame) {
        if (isSame)
            return endUnchanged();
        findFreeName(number + 1);
    });
}

void FileDownloadTask::compare(const QString& path, const Compared& next) {
    if (m_wanted.item.sha256.isEmpty())
        return next(false);
    compareMore(
        std::make_shared<orx::ContentCheck>(path, m_wanted.item.size, m_wanted.item.sha256.toLatin1()), next);
}

void FileDownloadTask::compareMore(const std::shared_ptr<orx::ContentCheck>& check, const Compared& next) {
    const auto isSame = std::make_shared<std::optional<bool>>();
    execSubtask(workerStep(QStringLiteral("CompareContent"),
                           [check, isSame]() -> Error {
                               *isSame = check->isSame(readAtATime);
                               return {};
                           }),
                [this, check, isSame, next](BaseTask*) {
                    if (*isSame)
                        next(**isSame);
                    else
                        compareMore(check, next);
                });
}

// From now on it is a file of this download.
void FileDownloadTask::endUnchanged() {
    takePlaces({targetPath()}, [this] {
        if (m_answerer.whoMade(targetPath()) != m_seenMaker)
            return lookAgain();
        rememberFound({targetPath()});
        leavePlaces();
        endAs(Outcome::Unchanged);
    });
}

void FileDownloadTask::endAs(Outcome outcome) {
    m_result.outcome = outcome;
    m_result.path = targetPath();
    m_result.warnings = error().warnings();
    if (outcome == Outcome::Unchanged)
        recordVersion({targetPath()});
    // Nobody wants it any more. Where this fails it stays for a later run.
    if (!m_leftPartial.isEmpty())
        execSubtask(workerStep(QStringLiteral("RemovePartial"), [path = m_leftPartial]() -> Error {
            removePartial(path);
            return {};
        }));
}

// ---- through the cache

void FileDownloadTask::fetch() {
    if (!m_usesCache)
        return fetchDirectly();
    const auto handler = handlerOf(m_wanted.item);
    if (handler.hasError())
        return fetchWithoutCache(handler.error());
    m_handler = handler.value();
    m_handler->overrideRetrieveMode(ResourceHandler::RetrieveMode::CacheFirst);
    // What another server at the same address had by this number is no copy, and not damaged either.
    orx::HalvaneAcknowledgedContents::record(orx::HalvaneConnection::instance().serverKey(), m_wanted.item.id,
                                             m_wanted.item.version, m_wanted.item.sha256.toLatin1());
    m_result.fromCache = m_handler->isAvailableLocally();
    const auto cached = m_handler->expectedPath();
    if (!m_result.fromCache || cached.hasError() || QFileInfo(cached->toString()).isDir() ||
        m_wanted.item.sha256.isEmpty())
        return fetchThroughCache();
    // Size and time of the entry are right; whether its bytes still are only they can tell.
    const auto seen = orx::FileCopy::stampOf(cached->toString());
    if (seen.hasError())
        return fetchThroughCache();
    compare(cached->toString(), [this, stamp = *seen](bool isSame) {
        if (isSame)
            return fetchThroughCache();
        discardCopy(stamp, [this] { fetchThroughCache(); });
    });
}

void FileDownloadTask::fetchThroughCache() {
    retrieve([this] { place(); }, [this](const Error& error) { onNotCopied(error); });
}

// What came to the target meanwhile the plug-in's task tells, unless it may overwrite.
void FileDownloadTask::place() {
    takePlaces({targetPath()}, [this] {
        m_mayOverwrite = m_mayOverwrite && m_answerer.whoMade(targetPath()) == m_seenMaker;
        ifAsSeen([this] { copy(); });
    });
}

void FileDownloadTask::ifAsSeen(const Next& next) {
    if (!m_mayOverwrite)
        return next();
    compareWithSeen({targetPath()}, {m_seenStamp},
                    [this, next](bool isAsSeen) { isAsSeen ? next() : lookAgain(); });
}

void FileDownloadTask::copy() {
    // Whether it is to be skipped or renamed this task answers itself, so that it knows what came of it.
    const auto policy = m_mayOverwrite ? DuplicateDownloadPolicy::Overwrite : DuplicateDownloadPolicy::Ask;
    HalvaneDownloadFileCacheTask* task = nullptr;
    if (m_makeTask) {
        task = m_makeTask(*this, m_name, policy);
    } else {
        const auto reference = referenceOf(m_wanted.item, m_wanted.item.name);
        if (reference.hasError())
            return finish(reference.error());
        task = new HalvaneDownloadFileCacheTask(reference->dynamicCast<HalvaneFileResourceReference>(),
                                                orx::DirPath(m_wanted.directory), m_name, nullptr);
        task->setDuplicateFilesPolicy(orx::duplicatePolicy(policy));
        connect(task, &HalvaneDownloadFileCacheTask::duplicateFileNameDetectedOnCopy, this,
                [this, task](const QStringList& names, QStringList* newNames) {
                    onClash(names, {}, *task, *newNames);
                });
    }
    if (m_mayOverwrite && m_answerer.policy() != IfExists::Overwrite)
        guard(*task);
    execSubtask(
        std::unique_ptr<BaseTask>(task), [this, task](BaseTask*) { onCopied(*task); },
        [this](BaseTask* ended) { onNotCopied(ended->error()); });
}

// An answer holds for what was shown, also when that changes while the copy is made.
void FileDownloadTask::guard(HalvaneDownloadFileCacheTask& task) {
    orx::ReplaceGuard::attach(task, [this, seen = m_seenStamp](const QString& path) {
        m_isToBeAsked = stampOfPlace(path) != seen;
        return !m_isToBeAsked;
    });
}

// What came to the target while the content was fetched. All names of one file get the decision that the
// first of them got. Somebody who has to be asked is asked when the copy has been given up.
void FileDownloadTask::onClash(const QStringList& names, const MadeBy& madeBy,
                               HalvaneDownloadFileCacheTask& task, QStringList& newNames) {
    const QDir directory(m_wanted.directory);
    const QString first = names.value(0);
    const auto reference = madeBy.value(first);
    const QString path = directory.filePath(first);
    const QString maker = reference ? reference->toText() : m_answerer.whoMade(path);
    const auto decision = m_answerer.decided(clashAt(path, maker));
    using Policy = orx::FileUtils::DuplicateFilesPolicy;
    if (!decision) {
        m_isToBeAsked = true;
        task.setError(Error(ErrorCode::AlreadyExists, QStringLiteral("\"%1\" exists already.").arg(path)));
    } else if (decision->hasError()) {
        m_refusal = decision->error();
        task.setError(m_refusal);
    } else if (**decision == IfExists::Overwrite) {
        m_mayOverwrite = true;
        m_seenMaker = maker;
        task.setDuplicateFilesPolicy(Policy::Overwrite);
    } else if (**decision == IfExists::Skip) {
        m_skipped = true;
        task.setDuplicateFilesPolicy(Policy::Skip);
    } else {
        const auto isTaken = [&](const QString& name) {
            const QString place = m_wanted.directory + u'/' + name;
            if (isThere(QFileInfo(place)) || newNames.contains(name) || m_answerer.isOfFolder(place) ||
                !m_answerer.beginWriting({place}))
                return true;
            m_places.append(place);
            return false;
        };
        for (QString& name : newNames)
            name = orx::FileUtils::freeName(name, isTaken);
        m_name = newNames.value(0);
    }
}

void FileDownloadTask::onCopied(HalvaneDownloadFileCacheTask& task) {
    QStringList paths;
    for (const QString& name : task.filenames())
        paths.append(m_wanted.directory + u'/' + name);
    if (paths.isEmpty() && m_skipped) {
        leavePlaces();
        return endAs(Outcome::Skipped);
    }
    if (paths.isEmpty())
        paths.append(targetPath());
    remember(paths);
    leavePlaces();
    m_result.path = paths.first();
    m_result.outcome = Outcome::Downloaded;
    m_result.isRenamed = m_name != m_wanted.name;
    recordVersion(paths);
}

// ---- when the cache or the copy failed

void FileDownloadTask::onNotCopied(const Error& error) {
    leavePlaces();
    if (isCanceled())
        return finish(error);
    if (std::exchange(m_isToBeAsked, false))
        return lookAgain();
    if (m_refusal.hasError())
        return finish(m_refusal);
    if (!failedHere(error))
        return finish(error);
    explain(error);
}

// The copy does not say what was wrong with it. The target is looked at; when it is not to blame, the cache
// is.
void FileDownloadTask::explain(const Error& error) {
    const auto problem = std::make_shared<Error>();
    execSubtask(workerStep(QStringLiteral("LookAgain"),
                           [problem, path = targetPath(), partial = partialPath(),
                            size = m_wanted.item.size]() -> Error {
                               *problem = checkFilePlace(QFileInfo(path));
                               if (!problem->hasError())
                                   *problem = checkRoomForRest(path, partial, size);
                               return {};
                           }),
                [this, problem, error](BaseTask*) {
                    if (problem->hasError())
                        return finish(*problem);
                    fetchWithoutCache(error);
                });
}

void FileDownloadTask::fetchWithoutCache(const Error& cause) {
    addWarning(QStringLiteral("The cache could not be used, the file comes down without it: %1")
                   .arg(errorText(cause)));
    fetchDirectly();
}

// Whatever else would write to the target waits until it is fetched.
void FileDownloadTask::fetchDirectly() {
    m_usesCache = false;
    takePlaces({targetPath()}, [this] {
        const bool isSeen = m_mayOverwrite && m_answerer.whoMade(targetPath()) == m_seenMaker;
        if (!isSeen && isThere(QFileInfo(targetPath())))
            return lookAgain();
        ifAsSeen([this] { download(); });
    });
}

void FileDownloadTask::download() {
    m_result.fromCache = false;
    const auto reference =
        HalvaneFileResourceReference::create(m_wanted.item.id, m_wanted.item.version, m_wanted.item.name);
    if (reference.hasError())
        return finish(reference.error());
    orx::HalvaneFileDownloadParameters parameters;
    parameters.reference = reference.value();
    parameters.targetDir = QDir(m_wanted.directory);
    parameters.targetName = m_name;
    parameters.overwrite = m_mayOverwrite;
    if (m_mayOverwrite && m_answerer.policy() != IfExists::Overwrite)
        parameters.mayReplace = [path = targetPath(), seen = m_seenStamp] {
            return stampOfPlace(path) == seen;
        };
    auto task = std::make_unique<HalvaneDownloadFileTask>(parameters);
    connect(task.get(), &BaseTask::progressInitiated, this, &BaseTask::progressInitiated);
    connect(task.get(), &BaseTask::progress, this, &BaseTask::progress);
    HalvaneDownloadFileTask* raw = task.get();
    execSubtask(
        std::unique_ptr<BaseTask>(std::move(task)),
        [this, raw](BaseTask*) {
            remember({targetPath()});
            leavePlaces();
            m_result.item.sha256 = raw->sha256();
            m_result.item.size = raw->size();
            m_result.path = targetPath();
            m_result.outcome = Outcome::Downloaded;
            m_result.isRenamed = m_name != m_wanted.name;
            m_result.warnings = error().warnings();
        },
        [this](BaseTask* ended) { onNotDownloaded(ended->error()); });
}

// Somebody else may have been faster.
void FileDownloadTask::onNotDownloaded(const Error& error) {
    leavePlaces();
    const bool isTaken = error.is(ErrorCode::AlreadyExists) && isThere(QFileInfo(targetPath()));
    const bool isOther = error.is(ErrorCode::FileChanged);
    if ((isOther || (isTaken && !m_mayOverwrite)) && !isCanceled()) {
        m_leftPartial = partialPath();
        return lookAgain();
    }
    finish(error);
}

} // namespace halvane::host
