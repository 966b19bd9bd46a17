#include "AcquisitionDownloadTask.h"

#include "ContentPlacing.h"
#include "DownloadSteps.h"
#include "ErrorText.h"
#include "Resources.h"
#include "StagingDirectory.h"
#include "UnpackedCheck.h"

#include <DownloadNames.h>
#include <FileCopy.h>
#include <HalvaneDownloadFileTask.h>
#include <HalvaneGetVonkMetadataTask.h>
#include <PackedPaths.h>
#include <RemoteResourceHandler.h>
#include <ResourceHandler.h>

#include <QDir>
#include <QHash>

#include <algorithm>
#include <utility>

namespace halvane::host {

using orx::BaseTask;
using orx::Error;
using orx::ErrorCode;
using orx::HalvaneGetVonkMetadataTask;
using orx::ResourceHandler;
using orx::Result;
using orx::Task;
using orx::vonk::VonkEntry;
using orx::vonk::VonkMetadata;
using Outcome = DownloadedFile::Outcome;

namespace {

QString contentOf(const QString& unpacked) {
    return unpacked + QStringLiteral("/content");
}

//! Of what is on the server, and not of the way to it.
bool isNoAcquisition(const Error& error) {
    return error.is(ErrorCode::ParseError) || error.is(ErrorCode::ChecksumMismatch) ||
           error.is(ErrorCode::InvalidArgument);
}

//! The \a number-th name, of which the first is \a name itself.
QString numbered(const QString& name, int number) {
    int passed = 1;
    return orx::FileUtils::freeName(name, [&passed, number](const QString&) { return passed++ < number; });
}

//! A file that could not be unpacked stays: it need not be fetched again.
Error removeOther(const QString& unpacked) {
    if (!QFileInfo(unpacked).isDir() || QDir(unpacked).removeRecursively())
        return {};
    return Error(
        ErrorCode::FileNotWritable,
        QStringLiteral("The directory \"%1\" is in the way and could not be removed.").arg(unpacked));
}

} // namespace

AcquisitionDownloadTask::AcquisitionDownloadTask(const Wanted& wanted, ClashAnswerer& answerer,
                                                 MakeTask makeTask, QObject* parent)
    : ItemDownloadTask(wanted, answerer, parent), m_makeTask(std::move(makeTask)) {}

AcquisitionDownloadTask::~AcquisitionDownloadTask() = default;

Error AcquisitionDownloadTask::initialize() {
    if (m_wanted.item.size == 0) {
        fetchAsFile(Error(ErrorCode::ParseError, QStringLiteral("it is empty.")));
        return {};
    }
    execSubtask(
        std::make_unique<HalvaneGetVonkMetadataTask>(
            HalvaneGetVonkMetadataTask::Wanted{m_wanted.item.id, m_wanted.item.version, m_wanted.item.name}),
        [this](HalvaneGetVonkMetadataTask* task) { onMetadata(task->metadata()); },
        [this](BaseTask* task) {
            if (isCanceled() || !isNoAcquisition(task->error()))
                return finish(task->error());
            fetchAsFile(task->error());
        });
    return {};
}

QList<AcquisitionDownloadTask::Part> AcquisitionDownloadTask::partsOf(const QList<VonkEntry>& entries) {
    const qsizetype prefix = orx::vonk::contentPrefix().size();
    QList<Part> parts;
    // Entries may come in any order.
    QHash<QString, qsizetype> known;
    for (VonkEntry entry : entries) {
        entry.path = entry.path.mid(prefix);
        const QString name = entry.path.section(u'/', 0, 0);
        if (!known.contains(name)) {
            known.insert(name, parts.size());
            parts.emplace_back();
            parts.last().name = name;
        }
        Part& part = parts[known.value(name)];
        part.isDirectory = !entry.isFile() || entry.path != name;
        part.entries.append(entry);
    }
    return parts;
}

void AcquisitionDownloadTask::onMetadata(const VonkMetadata& metadata) {
    m_entries = metadata.entries;
    m_mainName = metadata.name;
    m_size = metadata.totalSize();
    const auto parts = std::make_shared<QList<Part>>();
    execSubtask(workerStep(QStringLiteral("SortEntries"),
                           [parts, entries = m_entries]() -> Error {
                               *parts = partsOf(entries);
                               return {};
                           }),
                [this, parts](BaseTask*) { onParts(*parts); });
}

void AcquisitionDownloadTask::onParts(const QList<Part>& parts) {
    m_parts = parts;
    if (const Error error = chooseNames(); error.hasError())
        return finish(error);
    if (const Part* part = partInFolder()) {
        const QString path = targetPath(*part);
        return finish(
            Error(ErrorCode::InvalidArgument,
                  QStringLiteral(
                      "\"%1\" (%2) would unfold to \"%3\", which is %4 of this same download, and nothing "
                      "is merged. Get it by a command of its own, with --as or another --to.")
                      .arg(m_wanted.item.name, m_wanted.item.reference(), path, m_answerer.whoMade(path))));
    }
    m_usesCache = mayUseCache(m_size);
    // The name on the server may be none that a file here can have; the one of the target is.
    const auto nameOf = [this](const QString& stem) {
        return orx::DownloadNames::partialName(stem, m_wanted.item.id, m_wanted.item.version);
    };
    m_staging = std::make_shared<StagingDirectory>(m_wanted.directory + u'/' +
                                                       nameOf(m_wanted.name + QStringLiteral("-unpacked")),
                                                   nameOf(m_wanted.name + QStringLiteral("-lock")));
    look([this] { onCompared(); });
}

Error AcquisitionDownloadTask::chooseNames() {
    const bool isNamed = m_wanted.mark.isEmpty() && m_wanted.name != m_wanted.item.name;
    if (isNamed && m_parts.size() > 1)
        return Error(ErrorCode::InvalidArgument,
                     QStringLiteral("\"%1\" holds %2 files and directories, which cannot all be called "
                                    "\"%3\". Let them come under their own names into a directory, or the "
                                    "packed file as it is with --packed.")
                         .arg(m_wanted.item.name, QString::number(m_parts.size()), m_wanted.name));
    for (Part& part : m_parts) {
        part.wantedName = isNamed ? m_wanted.name : part.name;
        if (!m_wanted.mark.isEmpty())
            part.wantedName = orx::DownloadNames::marked(part.name, m_wanted.mark);
        part.as = part.wantedName;
    }
    return {};
}

const AcquisitionDownloadTask::Part* AcquisitionDownloadTask::partInFolder() const {
    const auto found = std::find_if(m_parts.begin(), m_parts.end(), [this](const Part& part) {
        return m_answerer.isOfFolder(targetPath(part));
    });
    return found == m_parts.end() ? nullptr : &*found;
}

void AcquisitionDownloadTask::fetchAsFile(const Error& reason) {
    if (!m_wanted.useCache)
        addWarning(QStringLiteral("\"%1\" comes as the file that it is, since it cannot be unpacked: %2")
                       .arg(m_wanted.item.name, errorText(reason)));
    auto task = std::make_unique<FileDownloadTask>(m_wanted, m_answerer, m_makeTask);
    connect(task.get(), &BaseTask::progressInitiated, this, &BaseTask::progressInitiated);
    connect(task.get(), &BaseTask::progress, this, &BaseTask::progress);
    execSubtask(std::move(task), [this](FileDownloadTask* done) {
        m_result = done->result();
        m_result.warnings = error().warnings();
    });
}

// ---- what is at the target

QString AcquisitionDownloadTask::targetPath(const Part& part) const {
    return m_wanted.directory + u'/' + part.as;
}

const AcquisitionDownloadTask::Part& AcquisitionDownloadTask::mainPart() const {
    const auto found = std::find_if(m_parts.begin(), m_parts.end(),
                                    [this](const Part& part) { return part.name == m_mainName; });
    return found == m_parts.end() ? m_parts.first() : *found;
}

QStringList AcquisitionDownloadTask::targetPaths() const {
    QStringList paths;
    for (const Part& part : m_parts)
        paths.append(targetPath(part));
    return paths;
}

QStringList AcquisitionDownloadTask::makers() const {
    QStringList makers;
    for (const QString& path : targetPaths())
        makers.append(m_answerer.whoMade(path));
    return makers;
}

void AcquisitionDownloadTask::look(const Next& next) {
    m_seenMakers = makers();
    const auto parts = std::make_shared<QList<Part>>(m_parts);
    execSubtask(workerStep(QStringLiteral("LookAtTarget"),
                           [parts, directory = m_wanted.directory,
                            isAsked = m_answerer.policy() == IfExists::Ask]() -> Error {
                               for (Part& part : *parts) {
                                   const QFileInfo target(directory + u'/' + part.as);
                                   part.stamp = isAsked ? stampOfPlace(target.filePath()) : QByteArray();
                                   part.isThere = isThere(target);
                                   part.isSame = false;
                                   part.problem = part.isDirectory ? checkDirectoryPlace(target)
                                                                   : checkFilePlace(target);
                               }
                               return {};
                           }),
                [this, parts, next](BaseTask*) {
                    m_parts = *parts;
                    compareParts(0, next);
                });
}

void AcquisitionDownloadTask::compareParts(qsizetype from, const Next& next) {
    while (from < m_parts.size() && !m_parts[from].isThere)
        ++from;
    if (from == m_parts.size())
        return next();
    const Part& part = m_parts[from];
    compare(std::make_shared<UnpackedCheck>(targetPath(part), part.entries), [this, from, next](bool isSame) {
        m_parts[from].isSame = isSame;
        compareParts(from + 1, next);
    });
}

void AcquisitionDownloadTask::compare(const std::shared_ptr<UnpackedCheck>& check, const Compared& next) {
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
                        compare(check, next);
                });
}

QList<const AcquisitionDownloadTask::Part*> AcquisitionDownloadTask::clashes() const {
    QList<const Part*> clashes;
    for (const Part& part : m_parts) {
        if (part.isThere && !part.isSame)
            clashes.append(&part);
    }
    std::stable_partition(clashes.begin(), clashes.end(), [this](const Part* part) {
        return !m_answerer.whoMade(targetPath(*part)).isEmpty();
    });
    return clashes;
}

bool AcquisitionDownloadTask::isAllSame() const {
    return std::all_of(m_parts.begin(), m_parts.end(), [](const Part& part) { return part.isSame; });
}

// Also when something came to the target while the content was fetched.
void AcquisitionDownloadTask::onCompared() {
    m_mayOverwrite = false;
    if (makers() != m_seenMakers)
        return look([this] { onCompared(); });
    if (isAllSame())
        return endUnchanged();
    if (const QList<const Part*> found = clashes(); !found.isEmpty())
        return onClashes(found);
    fetch();
}

// From now on it is of this download.
void AcquisitionDownloadTask::endUnchanged() {
    takePlaces(targetPaths(), [this] {
        const bool isAsSeen = makers() == m_seenMakers;
        if (isAsSeen)
            rememberFound(targetPaths());
        leavePlaces();
        if (isAsSeen)
            return endAs(Outcome::Unchanged);
        look([this] { onCompared(); });
    });
}

void AcquisitionDownloadTask::onClashes(const QList<const Part*>& clashes) {
    QList<Made> made;
    for (const Part* clash : clashes) {
        const QString path = targetPath(*clash);
        made.append({path, m_answerer.whoMade(path)});
    }
    decideAbout(made);
}

// To overwrite what this download made is decided about each of it.
void AcquisitionDownloadTask::decideAbout(const QList<Made>& clashes) {
    decide(clashes.first().path, clashes.first().by,
           [this, clashes](const ClashAnswerer::Decision& decision) {
               const QList<Made> others = clashes.mid(1);
               const bool isLast = others.isEmpty() || others.first().by.isEmpty();
               if (!isLast && !decision.hasError() && *decision == IfExists::Overwrite)
                   return decideAbout(others);
               onDecided(decision);
           });
}

void AcquisitionDownloadTask::onDecided(const ClashAnswerer::Decision& decision) {
    if (decision.hasError())
        return finish(decision.error());
    if (*decision == IfExists::Skip)
        return endAs(Outcome::Skipped);
    if (*decision == IfExists::Rename) {
        m_result.isRenamed = true;
        return findFreeNames(2);
    }
    m_mayOverwrite = true;
    fetch();
}

// The first names of one number that are free, or under which an earlier run left this very content.
void AcquisitionDownloadTask::findFreeNames(int number) {
    for (Part& part : m_parts)
        part.as = numbered(part.wantedName, number);
    look([this, number] {
        if (partInFolder() || !clashes().isEmpty())
            findFreeNames(number + 1);
        else
            onCompared();
    });
}

Error AcquisitionDownloadTask::firstProblem() const {
    for (const Part& part : m_parts) {
        if (!part.isSame)
            ORX_RETURN_ON_ERROR(Error(part.problem));
    }
    return {};
}

Error AcquisitionDownloadTask::checkRoom() const {
    qint64 missing = 0;
    for (const Part& part : m_parts) {
        if (part.isSame)
            continue;
        for (const VonkEntry& entry : part.entries)
            missing += entry.isFile() ? entry.size : 0;
    }
    return host::checkRoom(QFileInfo(targetPath(m_parts.first())), missing);
}

void AcquisitionDownloadTask::endAs(Outcome outcome) {
    m_result.outcome = outcome;
    m_result.path = targetPath(mainPart());
    const auto onRemoved = [this] {
        m_result.warnings = error().warnings();
        if (m_result.outcome != Outcome::Skipped)
            recordVersion(targetPaths());
    };
    // An earlier run without the cache may have been killed when everything was in its place.
    if (m_staging->isHeld() || (!m_usesCache && outcome != Outcome::Skipped))
        removeStaging(onRemoved);
    else
        onRemoved();
}

// Everything that was wanted is there without it, or comes otherwise.
void AcquisitionDownloadTask::removeStaging(const Next& next) {
    const auto remove = [staging = m_staging, isHeld = m_staging->isHeld()] {
        return isHeld ? staging->remove() : staging->removeLeft();
    };
    execSubtask(
        workerStep(QStringLiteral("RemoveStaging"), remove), [next](BaseTask*) { next(); },
        [this, next](BaseTask* step) {
            if (isCanceled())
                return;
            addWarning(errorText(step->error()));
            next();
        });
}

// ---- the content

void AcquisitionDownloadTask::fetch() {
    if (const Error problem = firstProblem(); problem.hasError())
        return finish(problem);
    if (!m_usesCache)
        return fetchDirectly();
    if (const Error problem = checkRoom(); problem.hasError())
        return finish(problem);
    if (m_handler)
        return fetchThroughCache();
    const auto handler = handlerOf(m_wanted.item);
    if (handler.hasError())
        return fetchWithoutCache(handler.error());
    m_handler = handler.value();
    m_result.fromCache = m_handler->isAvailableLocally();
    const auto cached = m_handler->expectedPath();
    if (!m_result.fromCache || cached.hasError())
        return fetchThroughCache();
    const auto seen = orx::FileCopy::stampOf(cached->toString());
    if (seen.hasError())
        return fetchThroughCache();
    if (const auto recorded = recordedChecksums(); recorded && !isRecordOf(*recorded, m_entries))
        return replaceCopy();
    // Sizes and times of the entry may be right, and its bytes others.
    compareContent(contentOf(cached->toString()), [this, stamp = *seen](bool isSame) {
        if (isSame)
            return fetchThroughCache();
        discardCopy(stamp, [this] { fetchThroughCache(); });
    });
}

Result<QHash<QString, QString>> AcquisitionDownloadTask::recordedChecksums() const {
    const auto handler = m_handler.dynamicCast<orx::RemoteResourceHandler>();
    return handler ? handler->recordedChecksums() : Error(ErrorCode::NotFound, QString());
}

// What another server at the same address had by this number is no copy, and not damaged either.
void AcquisitionDownloadTask::replaceCopy() {
    m_result.fromCache = false;
    const auto policy = m_handler->cleanupPolicy();
    m_replacesPinned = policy && *policy == orx::ResourceCleanupPolicy::Keep;
    m_handler->overrideRetrieveMode(ResourceHandler::RetrieveMode::Refresh);
    fetchThroughCache();
}

void AcquisitionDownloadTask::fetchThroughCache() {
    retrieve([this] { onRetrieved(); }, [this](const Error& error) { onNotRetrieved(error); });
}

void AcquisitionDownloadTask::onRetrieved() {
    if (std::exchange(m_replacesPinned, false))
        addWarning(QStringLiteral("\"%1\" in the cache is pinned, and what this server has by the number of "
                                  "what was pinned has taken its place.")
                       .arg(m_wanted.item.name));
    m_handler->overrideRetrieveMode(ResourceHandler::RetrieveMode::CacheFirst);
    const auto cached = m_handler->expectedPath();
    if (cached.hasError())
        return fetchWithoutCache(cached.error());
    const QString contentDir = contentOf(cached->toString());
    if (!QFileInfo(contentDir).isDir())
        return fetchAsFile(Error(ErrorCode::ParseError, QStringLiteral("it is damaged.")));
    place(contentDir);
}

void AcquisitionDownloadTask::compareContent(const QString& contentDir, const Compared& next) {
    compare(std::make_shared<UnpackedCheck>(contentDir, m_entries), next);
}

void AcquisitionDownloadTask::compareMissing(const QString& contentDir, qsizetype from,
                                             const Compared& next) {
    while (from < m_parts.size() && m_parts[from].isSame)
        ++from;
    if (from == m_parts.size())
        return next(true);
    const Part& part = m_parts[from];
    compare(std::make_shared<UnpackedCheck>(contentDir + u'/' + part.name, part.entries),
            [this, contentDir, from, next](bool isSame) {
                if (!isSame)
                    return next(false);
                compareMissing(contentDir, from + 1, next);
            });
}

void AcquisitionDownloadTask::onNotRetrieved(const Error& error) {
    if (isCanceled() || !failedHere(error))
        return finish(error);
    fetchWithoutCache(error);
}

void AcquisitionDownloadTask::fetchWithoutCache(const Error& cause) {
    addWarning(QStringLiteral("The cache could not be used, \"%1\" comes down without it: %2")
                   .arg(m_wanted.item.name, errorText(cause)));
    m_usesCache = false;
    m_result.fromCache = false;
    fetchDirectly();
}

// ---- without the cache

void AcquisitionDownloadTask::fetchDirectly() {
    execSubtask(workerStep(QStringLiteral("HoldStaging"), [staging = m_staging] { return staging->hold(); }),
                [this](BaseTask*) {
                    const QString contentDir = contentOf(unpackedPath());
                    compareMissing(contentDir, 0, [this, contentDir](bool isSame) {
                        if (isSame)
                            return place(contentDir);
                        unpackHere();
                    });
                });
}

QString AcquisitionDownloadTask::unpackedPath() const {
    return m_staging->path() + u'/' + m_wanted.name;
}

void AcquisitionDownloadTask::unpackHere() {
    using Names = orx::DownloadNames;
    const int id = m_wanted.item.id;
    const int version = m_wanted.item.version;
    const QString packed = Names::packedName(m_wanted.name, id, version);
    const QDir staging(m_staging->path());
    const QStringList arrived{staging.filePath(packed),
                              staging.filePath(Names::partialName(packed, id, version))};
    const QString unpacked = staging.filePath(Names::unpackedName(m_wanted.name, id, version));
    execSubtask(workerStep(QStringLiteral("PrepareStaging"),
                           [target = targetPath(m_parts.first()), arrived, unpacked, other = unpackedPath(),
                            size = m_wanted.item.size, content = m_size]() -> Error {
                               // A part of it may be in the target already, or be the same file as one there:
                               // it is never written, and gives its room.
                               ORX_RETURN_ON_ERROR(removeOther(other));
                               qint64 rest = size;
                               for (const QString& file : arrived)
                                   rest -= QFileInfo(file).size();
                               // What was unpacked by half goes before it is unpacked again.
                               return host::checkRoom(QFileInfo(target),
                                                      std::max(rest, rest + content - bytesIn(unpacked)));
                           }),
                [this](BaseTask*) { downloadHere(); });
}

void AcquisitionDownloadTask::downloadHere() {
    const auto reference = orx::HalvaneFileResourceReference::create(m_wanted.item.id, m_wanted.item.version,
                                                                     m_wanted.item.name);
    if (reference.hasError())
        return finish(reference.error());
    orx::HalvaneFileDownloadParameters parameters;
    parameters.reference = reference.value();
    parameters.targetDir = QDir(m_staging->path());
    parameters.targetName = m_wanted.name;
    auto task = orx::HalvaneDownloadFileTaskCreator::create(parameters);
    connect(task.get(), &BaseTask::progressInitiated, this, &BaseTask::progressInitiated);
    connect(task.get(), &BaseTask::progress, this, &BaseTask::progress);
    execSubtask(std::unique_ptr<BaseTask>(std::move(task)), [this](BaseTask*) {
        if (QFileInfo(unpackedPath()).isDir())
            return place(contentOf(unpackedPath()));
        // Its end reads well, the rest does not.
        removeStaging(
            [this] { fetchAsFile(Error(ErrorCode::ParseError, QStringLiteral("it is damaged."))); });
    });
}

// ---- into the target

// Another file of this download may come to the same place, or have come there meanwhile.
void AcquisitionDownloadTask::place(const QString& contentDir) {
    QStringList paths;
    QByteArrayList seen;
    for (const Part& part : m_parts) {
        if (part.isSame)
            continue;
        paths.append(targetPath(part));
        seen.append(part.stamp);
    }
    const auto onSeen = [this, contentDir, paths](bool isAsSeen) {
        if (isAsSeen)
            return copy(contentDir, paths);
        leavePlaces();
        look([this] { onCompared(); });
    };
    takePlaces(paths, [this, paths, seen, onSeen] {
        if (makers() != m_seenMakers || !m_mayOverwrite)
            return onSeen(makers() == m_seenMakers);
        compareWithSeen(paths, seen, onSeen);
    });
}

void AcquisitionDownloadTask::copy(const QString& contentDir, const QStringList& paths) {
    ContentPlacing placing;
    placing.contentDir = contentDir;
    placing.targetDir = m_wanted.directory;
    placing.overwrites = m_mayOverwrite;
    placing.mayMove = !m_usesCache;
    for (const Part& part : m_parts) {
        if (!part.isSame)
            placing.names.append({part.name, part.as});
    }
    if (isAnswered())
        placing.mayReplace = [stamps = seenStamps()](const QString& path) {
            return stampOfPlace(path) == stamps.value(path);
        };
    execSubtask(
        workerStep(QStringLiteral("PlaceContent"), [placing] { return placing.run(); }),
        [this, paths](BaseTask*) {
            remember(paths);
            rememberFound(targetPaths());
            leavePlaces();
            endAs(Outcome::Downloaded);
        },
        [this](BaseTask* ended) {
            leavePlaces();
            onNotPlaced(ended->error());
        });
}

bool AcquisitionDownloadTask::isAnswered() const {
    return m_mayOverwrite && m_answerer.policy() == IfExists::Ask;
}

QHash<QString, QByteArray> AcquisitionDownloadTask::seenStamps() const {
    QHash<QString, QByteArray> stamps;
    for (const Part& part : m_parts)
        stamps.insert(QDir::cleanPath(targetPath(part)), part.stamp);
    return stamps;
}

void AcquisitionDownloadTask::onNotPlaced(const Error& error) {
    if (isCanceled())
        return finish(error);
    if (error.is(ErrorCode::AlreadyExists) && !m_mayOverwrite)
        return look([this] { onCompared(); });
    if (error.is(ErrorCode::FileChanged) && isAnswered()) {
        // It may tell where something was kept.
        addWarning(errorText(error));
        return look([this] { onCompared(); });
    }
    if (m_usesCache && error.is(ErrorCode::FileChanged))
        return onChanged(error);
    if (m_usesCache && (error.is(ErrorCode::NotFound) || error.is(ErrorCode::FileNotReadable)))
        return fetchWithoutCache(error);
    finish(error);
}

// Either what is in the cache or the target.
void AcquisitionDownloadTask::onChanged(const Error& error) {
    const auto cached = m_handler->expectedPath();
    if (cached.hasError())
        return fetchWithoutCache(error);
    compareContent(contentOf(cached->toString()),
                   [this, error](bool isSame) { isSame ? finish(error) : fetchWithoutCache(error); });
}

} // namespace halvane::host
