// What the commands ask the resource framework: metadata, existence, names, and the cache.
#include "Interruption.h"
#include "Output.h"
#include "Runner.h"
#include "TextForms.h"

#include <ErrorText.h>
#include <ExitCodes.h>
#include <HalvaneAcknowledgedContents.h>
#include <HalvaneConnection.h>
#include <HalvaneError.h>
#include <HalvaneFileResourceMetadata.h>
#include <HalvaneFolderResourceMetadata.h>
#include <HalvaneGetVonkMetadataTask.h>
#include <HalvaneResourceHandler.h>
#include <PackedPaths.h>
#include <RemoteResourceHandler.h>
#include <ResolveItemTask.h>
#include <WorkerStepTask.h>

#include <QFileInfo>
#include <QJsonArray>

#include <cstdlib>

namespace halvane::cli {

using host::ExitCode;
using host::RemoteItem;
using host::ResolveItemTask;
using host::Resources;
using orx::Error;
using orx::ErrorCode;
using orx::HalvaneFileResourceMetadata;
using orx::HalvaneFolderPrivilegeType;
using orx::HalvaneFolderResourceMetadata;
using orx::HalvaneReferenceText;
using orx::HalvaneResourceMetadata;
using orx::ResourceCache;
using orx::ResourceCacheEntry;
using orx::ResourceCleanupPolicy;
using orx::ResourceHandler;
using orx::Result;

namespace {

QString nameOf(HalvaneFolderPrivilegeType privilege) {
    switch (privilege) {
    case HalvaneFolderPrivilegeType::Read:
        return QStringLiteral("read");
    case HalvaneFolderPrivilegeType::AddFiles:
        return QStringLiteral("add_files");
    case HalvaneFolderPrivilegeType::CreateFolders:
        return QStringLiteral("create_folders");
    case HalvaneFolderPrivilegeType::Remove:
        return QStringLiteral("remove");
    case HalvaneFolderPrivilegeType::Manage:
        return QStringLiteral("manage");
    }
    return QString::number(int(privilege));
}

QStringList textsOf(const QList<int>& numbers) {
    QStringList texts;
    for (const int number : numbers)
        texts.append(QString::number(number));
    return texts;
}

template <typename List>
QJsonArray arrayOf(const List& values) {
    QJsonArray array;
    for (const auto& value : values)
        array.append(value);
    return array;
}

QStringList privilegesOf(const HalvaneFolderResourceMetadata& folder) {
    QList<HalvaneFolderPrivilegeType> privileges = folder.privileges().values();
    std::sort(privileges.begin(), privileges.end());
    QStringList names;
    for (const HalvaneFolderPrivilegeType privilege : privileges)
        names.append(nameOf(privilege));
    return names;
}

QString pathOf(const RemoteItem& item, const HalvaneResourceMetadata& metadata) {
    if (item.id == RemoteItem::root().id && item.isFolder())
        return RemoteItem::root().path;
    const QString path = metadata.fullPath();
    return path.startsWith(u'/') ? path : u'/' + path;
}

// What files and folders have in common, and what only one of them has.
QJsonObject jsonOf(const RemoteItem& item, const HalvaneResourceMetadata& metadata) {
    QJsonObject object = Output::jsonOf(item, pathOf(item, metadata));
    object[QStringLiteral("ids_path")] = arrayOf(metadata.idsPath());
    object[QStringLiteral("file_type")] = metadata.type()->name;
    if (const auto* file = dynamic_cast<const HalvaneFileResourceMetadata*>(&metadata)) {
        const orx::HalvaneFileItem record = file->fileItem();
        object[QStringLiteral("parent_id")] = record.folderId();
        object[QStringLiteral("last_version")] = record.lastVersion();
        object[QStringLiteral("created_by")] = item.createdBy;
        object[QStringLiteral("created_at")] = Output::jsonOf(record.createdAt());
    } else if (const auto* folder = dynamic_cast<const HalvaneFolderResourceMetadata*>(&metadata)) {
        object[QStringLiteral("parent_id")] = folder->parentId();
        object[QStringLiteral("group_ids")] = arrayOf(folder->userGroups());
        object[QStringLiteral("privileges")] = arrayOf(privilegesOf(*folder));
    }
    return object;
}

QString stateText(const ResourceCacheEntry& entry) {
    QStringList words;
    if (entry.policy == ResourceCleanupPolicy::Keep)
        words << QStringLiteral("pinned");
    if (entry.isDamaged)
        words << QStringLiteral("damaged");
    return words.isEmpty() ? QStringLiteral("-") : words.join(u',');
}

QJsonObject jsonOf(const ResourceCacheEntry& entry, ResourceCache& cache) {
    const auto path = cache.expectedPath(entry.subPath);
    return {{QStringLiteral("type"), QStringLiteral("cache_entry")},
            {QStringLiteral("sub_path"), entry.subPath},
            {QStringLiteral("path"), path ? QJsonValue(path->toString()) : QJsonValue()},
            {QStringLiteral("size"), entry.bytes},
            {QStringLiteral("files"), entry.files},
            {QStringLiteral("sha256"), entry.sha256.isEmpty() ? QJsonValue() : QJsonValue(entry.sha256)},
            {QStringLiteral("added_at"), Output::jsonOf(entry.addedAt)},
            {QStringLiteral("last_used_at"), Output::jsonOf(entry.lastUsedAt)},
            {QStringLiteral("pinned"), entry.policy == ResourceCleanupPolicy::Keep},
            {QStringLiteral("damaged"), entry.isDamaged}};
}

} // namespace

Error Runner::runOnWorker(const QString& name, std::function<Error()> job) {
    orx::WorkerStepTask task(name, std::move(job));
    return run(task);
}

Result<RemoteItem> Runner::resolve(const QString& reference, Wanted wanted) {
    ResolveItemTask task(reference, wanted);
    ORX_RETURN_ON_ERROR(run(task));
    return task.item();
}

Result<Runner::Named> Runner::resolveWithHandler(const QString& reference, Wanted wanted) {
    const auto item = resolve(reference, wanted);
    ORX_RETURN_ON_ERROR(item.error());
    const auto handler = host::handlerOf(item.value());
    ORX_RETURN_ON_ERROR(handler.error());
    return Named{item.value(), handler.value()};
}

int Runner::operator()(const InfoCommand& command) {
    const auto resources = startResources();
    if (resources.hasError())
        return m_output.error(resources.error());
    const auto named = resolveWithHandler(command.reference);
    if (named.hasError())
        return m_output.error(named.error());
    const auto& [item, handler] = named.value();
    const std::unique_ptr<orx::Task> task = handler->retrieveMetadataAsync();
    if (const Error error = run(*task); error.hasError())
        return m_output.error(error);
    const auto metadata =
        orx::ResourceMetadata::fromVariant(task->variantResult()).dynamicCast<HalvaneResourceMetadata>();
    if (!metadata)
        return m_output.error(
            Error(ErrorCode::General,
                  QStringLiteral("The metadata of \"%1\" did not come.").arg(command.reference)));
    if (m_output.isJson())
        m_output.result(jsonOf(item, *metadata), QString());
    else
        m_output.table(infoRows(item, *metadata));
    return int(ExitCode::Success);
}

QList<QStringList> Runner::infoRows(const RemoteItem& item, const HalvaneResourceMetadata& metadata) const {
    const QStringList ids = textsOf(metadata.idsPath());
    QList<QStringList> rows{
        {QStringLiteral("reference"), item.reference()},
        {QStringLiteral("path"), m_output.shown(pathOf(item, metadata))},
        {QStringLiteral("path by ids"), ids.join(u'/')},
    };
    if (const auto* file = dynamic_cast<const HalvaneFileResourceMetadata*>(&metadata)) {
        const orx::HalvaneFileItem record = file->fileItem();
        rows.append({{QStringLiteral("folder"), QStringLiteral("folder:%1").arg(record.folderId())},
                     {QStringLiteral("file type"), metadata.type()->name},
                     {QStringLiteral("version"),
                      QStringLiteral("%1 of %2").arg(item.version).arg(record.lastVersion())},
                     {QStringLiteral("size"),
                      QStringLiteral("%1 (%2 bytes)").arg(bytesText(item.size), QString::number(item.size))},
                     {QStringLiteral("sha256"), item.sha256},
                     {QStringLiteral("alias"),
                      item.alias.isEmpty() ? QStringLiteral("-") : m_output.shown(item.alias)},
                     {QStringLiteral("created"), timeText(record.createdAt())},
                     {QStringLiteral("this version"),
                      timeText(item.modifiedAt) + QStringLiteral(" by ") + m_output.shown(item.createdBy)}});
    } else if (const auto* folder = dynamic_cast<const HalvaneFolderResourceMetadata*>(&metadata)) {
        const QString groups = textsOf(folder->userGroups()).join(QStringLiteral(", "));
        const QString parent = folder->parentId() < 0 ? QStringLiteral("-")
                                                      : QStringLiteral("folder:%1").arg(folder->parentId());
        rows.append({{QStringLiteral("folder"), parent},
                     {QStringLiteral("file type"), metadata.type()->name},
                     {QStringLiteral("groups"), groups.isEmpty() ? QStringLiteral("-") : groups},
                     {QStringLiteral("you may"), privilegesOf(*folder).join(QStringLiteral(", "))}});
    }
    return rows;
}

int Runner::operator()(const SiblingsCommand& command) {
    const auto resources = startResources();
    if (resources.hasError())
        return m_output.error(resources.error());
    const auto named = resolveWithHandler(command.reference, Wanted::File);
    if (named.hasError())
        return m_output.error(named.error());
    const auto& [item, handler] = named.value();
    const auto task = handler->siblings();
    if (task.hasError())
        return m_output.error(task.error());
    if (const Error error = run(**task); error.hasError())
        return m_output.error(error);
    // The file is one of them itself.
    if ((*task)->siblings().isEmpty())
        return m_output.error(Error(
            ErrorCode::General,
            QStringLiteral("The files beside \"%1\" (%2) could not be listed: the server gave no usable "
                           "answer. Try again; HALVANE_LOG=1 shows why.")
                .arg(item.name, item.reference())));
    printSiblings((*task)->siblings());
    return int(ExitCode::Success);
}

void Runner::printSiblings(const QList<orx::ResourceReferenceSPtr>& siblings) const {
    QList<QStringList> rows;
    for (const auto& sibling : siblings) {
        const auto file = sibling.dynamicCast<orx::HalvaneFileResourceReference>();
        if (!file)
            continue;
        rows.append({file->toText(), m_output.shown(file->name())});
        if (m_output.isJson())
            m_output.result({{QStringLiteral("type"), QStringLiteral("file")},
                             {QStringLiteral("id"), file->id()},
                             {QStringLiteral("version"), file->version()},
                             {QStringLiteral("name"), file->name()},
                             {QStringLiteral("reference"), file->toText()}},
                            QString());
    }
    if (!m_output.isJson())
        m_output.table(rows);
}

// A reference without a version is asked for directly; anything else exists when it can be resolved, or
// would be had one only to choose.
Result<bool> Runner::exists(const QString& reference) {
    if (HalvaneReferenceText::looksLikeReference(reference)) {
        const auto parsed = HalvaneReferenceText::parse(reference);
        ORX_RETURN_ON_ERROR(parsed.error());
        if (parsed->version == 0)
            return existsById(*parsed, reference);
    }
    ResolveItemTask task(reference, ResolveItemTask::Wanted::Any);
    const Error error = run(task);
    if (task.foundSeveral())
        return true;
    if (isHalvaneError(error, orx::HalvaneServerErrorCode::NotFound))
        return false;
    ORX_RETURN_ON_ERROR(error);
    return true;
}

Result<bool> Runner::existsById(const HalvaneReferenceText& reference, const QString& text) {
    RemoteItem item;
    item.type = reference.itemType;
    item.id = reference.id;
    // Neither is looked at; a reference has them all the same.
    item.version = 1;
    item.name = text;
    const auto handler = host::handlerOf(item);
    ORX_RETURN_ON_ERROR(handler.error());
    const std::unique_ptr<orx::Task> task = (*handler)->existsAsync();
    ORX_RETURN_ON_ERROR(run(*task));
    return task->variantResult().toBool();
}

int Runner::operator()(const ExistsCommand& command) {
    const auto resources = startResources();
    if (resources.hasError())
        return m_output.error(resources.error());
    const auto answer = exists(command.reference);
    if (answer.hasError())
        return m_output.error(answer.error());
    const QString text = answer.value() ? QStringLiteral("yes") : QStringLiteral("no");
    m_output.result({{QStringLiteral("type"), QStringLiteral("existence")},
                     {QStringLiteral("asked"), command.reference},
                     {QStringLiteral("exists"), answer.value()}},
                    m_global.quiet ? QString() : text);
    return int(answer.value() ? ExitCode::Success : ExitCode::NotFoundOnServer);
}

int Runner::operator()(const VerifyNameCommand& command) {
    const auto resources = startResources();
    if (resources.hasError())
        return m_output.error(resources.error());
    const auto item = resolve(command.reference);
    if (item.hasError())
        return m_output.error(item.error());
    const auto reference = host::referenceOf(item.value(), command.name);
    if (reference.hasError())
        return m_output.error(reference.error());
    // The check blocks; it changes nothing, so that a signal may end the program in the middle of it.
    m_interruption.watch([this] {
        const Error interrupted(ErrorCode::Canceled, QStringLiteral("Interrupted."));
        std::_Exit(m_output.error(interrupted));
    });
    const Error error = orx::HalvaneResourceHandler::verifyResourceName(reference.value());
    m_interruption.watch(std::function<void()>());
    // That they differ is an answer, too; whatever else failed is none.
    const bool isDifferent = error.is(ErrorCode::General) && item->name != command.name;
    if (error.hasError() && !isDifferent)
        return m_output.error(error);
    m_output.result(
        {{QStringLiteral("type"), QStringLiteral("name")},
         {QStringLiteral("name"), command.name},
         {QStringLiteral("name_on_server"), item->name},
         {QStringLiteral("reference"), item->reference()},
         {QStringLiteral("matches"), !isDifferent}},
        m_global.quiet || isDifferent
            ? QString()
            : QStringLiteral("%1 is \"%2\"").arg(item->reference(), m_output.shown(command.name)));
    if (isDifferent)
        m_output.words(error, host::errorText(error));
    return int(isDifferent ? ExitCode::General : ExitCode::Success);
}

// ---- the cache

int Runner::operator()(const CacheCommand& command) {
    using Action = CacheCommand::Action;
    if (!command.reference.isEmpty())
        return withCopy(command);
    // No server is asked, and nobody needs to be logged in.
    const auto resources = Resources::start();
    if (resources.hasError())
        return m_output.error(resources.error());
    ResourceCache& cache = (*resources)->cache();
    if (!command.subPath.isEmpty())
        return withEntry(command, cache);
    if (command.action == Action::List)
        return listCache(cache);
    return command.action == Action::Verify ? verifyCache(cache) : pruneCache(cache, command.limits);
}

int Runner::withCopy(const CacheCommand& command) {
    const auto resources = startResources();
    if (resources.hasError())
        return m_output.error(resources.error());
    const auto named = resolveWithHandler(command.reference);
    if (named.hasError())
        return m_output.error(named.error());
    const auto& [item, handler] = named.value();
    // What another server at the same address had by this number is no copy of it.
    orx::HalvaneAcknowledgedContents::record(orx::HalvaneConnection::instance().serverKey(), item.id,
                                             item.version, item.sha256.toLatin1());
    const Error missing(
        ErrorCode::NotFound,
        (item.isFolder()
             ? QStringLiteral("\"%1\" (%2) is not in the cache as a whole; \"halvane get\" brings "
                              "the files of a folder there, each by itself.")
             : QStringLiteral("\"%1\" (%2) is not in the cache; \"halvane get\" brings it there."))
            .arg(item.name, item.reference()));
    const auto told = [&](const Error& error) {
        return m_output.error(error.is(ErrorCode::NotFound) ? missing : error);
    };
    // Looks at all of it, and keeps it from being removed meanwhile. What is damaged may be unpinned too.
    handler->overrideRetrieveMode(ResourceHandler::RetrieveMode::CacheOnly);
    const bool unpin = command.action == CacheCommand::Action::Unpin;
    const auto path = unpin ? handler->expectedPath() : handler->retrieve();
    if (path.hasError())
        return told(path.error());
    if (!unpin && !item.isFolder() && QFileInfo(path->toString()).isDir()) {
        const auto isSame = isOfServer(item, *handler);
        if (isSame.hasError() || !*isSame)
            return told(isSame ? missing : isSame.error());
    }
    if (command.action != CacheCommand::Action::Path) {
        const Error error =
            handler->setCleanupPolicy(unpin ? ResourceCleanupPolicy::Automatic : ResourceCleanupPolicy::Keep);
        if (error.hasError())
            return told(error);
    }
    const auto policy = handler->cleanupPolicy();
    if (policy.hasError())
        return m_output.error(policy.error());
    const bool pinned = policy.value() == ResourceCleanupPolicy::Keep;
    QString text = m_output.shown(path->toString());
    if (command.action != CacheCommand::Action::Path)
        text = QStringLiteral("%1 %2").arg(pinned ? QStringLiteral("pinned") : QStringLiteral("unpinned"),
                                           item.reference());
    m_output.result({{QStringLiteral("type"), QStringLiteral("copy")},
                     {QStringLiteral("reference"), item.reference()},
                     {QStringLiteral("name"), item.name},
                     {QStringLiteral("path"), path->toString()},
                     {QStringLiteral("pinned"), pinned}},
                    text);
    return int(ExitCode::Success);
}

// A packed acquisition lies in the cache unpacked. Of what is no acquisition there is no unpacked copy.
Result<bool> Runner::isOfServer(const RemoteItem& item, const ResourceHandler& copy) {
    orx::HalvaneGetVonkMetadataTask task({item.id, item.version, item.name});
    const Error error = item.size > 0 ? run(task) : Error(ErrorCode::ParseError, QString());
    if (error.is(ErrorCode::ParseError) || error.is(ErrorCode::ChecksumMismatch) ||
        error.is(ErrorCode::InvalidArgument))
        return false;
    ORX_RETURN_ON_ERROR(error);
    const auto& remote = dynamic_cast<const orx::RemoteResourceHandler&>(copy);
    auto left = remote.recordedChecksums();
    ORX_RETURN_ON_ERROR(left.error());
    for (const orx::vonk::VonkEntry& entry : task.metadata().entries)
        if (entry.isFile() && left->take(entry.path) != QString::fromLatin1(entry.sha256))
            return false;
    return std::none_of(left->keyBegin(), left->keyEnd(),
                        [](const QString& path) { return path.startsWith(orx::vonk::contentPrefix()); });
}

int Runner::withEntry(const CacheCommand& command, ResourceCache& cache) {
    const auto path = cache.expectedPath(command.subPath);
    if (path.hasError())
        return m_output.error(path.error());
    const Error missing(
        ErrorCode::NotFound,
        QStringLiteral("\"%1\" is not in the cache, or is damaged; \"halvane cache ls\" lists what is.")
            .arg(command.subPath));
    const bool unpin = command.action == CacheCommand::Action::Unpin;
    // Waits for who replaces it just then. What is damaged may be unpinned too.
    if (!unpin)
        if (const Error error = cache.look(command.subPath); error.hasError())
            return m_output.error(error.is(ErrorCode::NotFound) ? missing : error);
    if (command.action != CacheCommand::Action::Path) {
        const Error error = cache.setCleanupPolicy(command.subPath, unpin ? ResourceCleanupPolicy::Automatic
                                                                          : ResourceCleanupPolicy::Keep);
        if (error.hasError())
            return m_output.error(error.is(ErrorCode::NotFound) ? missing : error);
    }
    const auto policy = cache.cleanupPolicy(command.subPath);
    if (policy.hasError())
        return m_output.error(policy.error());
    const bool isPinned = policy.value() == ResourceCleanupPolicy::Keep;
    const QString text = command.action == CacheCommand::Action::Path
                             ? m_output.shown(path->toString())
                             : (isPinned ? QStringLiteral("pinned ") : QStringLiteral("unpinned ")) +
                                   m_output.shown(command.subPath);
    m_output.result({{QStringLiteral("type"), QStringLiteral("copy")},
                     {QStringLiteral("reference"), QJsonValue()},
                     {QStringLiteral("name"), command.subPath.section(u'/', -1)},
                     {QStringLiteral("path"), path->toString()},
                     {QStringLiteral("pinned"), isPinned}},
                    text);
    return int(ExitCode::Success);
}

int Runner::listCache(ResourceCache& cache) {
    const auto entries = cache.entries();
    if (entries.hasError())
        return m_output.error(entries.error());
    QList<QStringList> rows;
    for (const ResourceCacheEntry& entry : entries.value()) {
        if (m_output.isJson())
            m_output.result(jsonOf(entry, cache), QString());
        else
            rows.append({bytesText(entry.bytes), timeText(entry.lastUsedAt), stateText(entry),
                         m_output.shown(entry.subPath)});
    }
    m_output.table(rows);
    const auto unfinished = cache.unfinishedBytes();
    if (unfinished.hasError())
        return m_output.error(unfinished.error());
    if (*unfinished > 0)
        m_output.result({{QStringLiteral("type"), QStringLiteral("cache_unfinished")},
                         {QStringLiteral("size"), *unfinished}},
                        QString());
    if (*unfinished > 0 && !m_output.isJson())
        m_output.notes(QStringLiteral("beside these, of downloads that run or were interrupted:"),
                       {{bytesText(*unfinished)}});
    return int(ExitCode::Success);
}

int Runner::verifyCache(ResourceCache& cache) {
    ResourceCache::VerifyReport report;
    const Error error = runOnWorker(QStringLiteral("VerifyCache"), [&cache, &report]() -> Error {
        auto verified = cache.verify([](qint64) { return !Interruption::wasRequested(); });
        ORX_RETURN_ON_ERROR(verified.error());
        report = std::move(verified).value();
        return {};
    });
    if (error.hasError())
        return m_output.error(error);
    QJsonArray damaged;
    QString text = QStringLiteral("%1 entries, %2: %3 damaged")
                       .arg(QString::number(report.entries), bytesText(report.bytes),
                            QString::number(report.damaged.size()));
    for (const auto& [subPath, problem] : report.damaged) {
        damaged.append(
            QJsonObject{{QStringLiteral("sub_path"), subPath}, {QStringLiteral("problem"), problem}});
        text += QStringLiteral("\nremoved %1: %2").arg(m_output.shown(subPath), m_output.shown(problem));
    }
    m_output.result({{QStringLiteral("type"), QStringLiteral("cache_verification")},
                     {QStringLiteral("entries"), report.entries},
                     {QStringLiteral("size"), report.bytes},
                     {QStringLiteral("damaged"), damaged},
                     {QStringLiteral("problems"), arrayOf(report.problems)}},
                    text);
    m_output.warnings(report.problems);
    return int(report.damaged.isEmpty() && report.problems.isEmpty() ? ExitCode::Success
                                                                     : ExitCode::LocalRead);
}

int Runner::pruneCache(ResourceCache& cache, const ResourceCache::Limits& limits) {
    ResourceCache::PruneReport report;
    const Error error = runOnWorker(QStringLiteral("PruneCache"), [&cache, &report, limits]() -> Error {
        // Nothing is to be left.
        const auto unfinished =
            limits.maxBytes == 0 ? ResourceCache::Unfinished::Removed : ResourceCache::Unfinished::Kept;
        auto pruned = cache.prune(limits, unfinished);
        ORX_RETURN_ON_ERROR(pruned.error());
        report = std::move(pruned).value();
        return {};
    });
    if (error.hasError())
        return m_output.error(error);
    QJsonArray removed;
    for (const ResourceCacheEntry& entry : report.removed)
        removed.append(entry.subPath);
    QString text = QStringLiteral("removed %1 entries, %2; %3 left")
                       .arg(QString::number(report.removed.size()), bytesText(report.bytesRemoved),
                            bytesText(report.bytesLeft));
    if (report.inUse > 0)
        text += QStringLiteral("; %1 in use stayed").arg(report.inUse);
    if (report.leftoverBytes > 0)
        text += QStringLiteral("; leftovers removed, %1").arg(bytesText(report.leftoverBytes));
    if (report.unfinishedBytes > 0)
        text += QStringLiteral("; %1 in unfinished downloads stayed").arg(bytesText(report.unfinishedBytes));
    m_output.result({{QStringLiteral("type"), QStringLiteral("cache_pruning")},
                     {QStringLiteral("removed"), removed},
                     {QStringLiteral("removed_size"), report.bytesRemoved},
                     {QStringLiteral("size"), report.bytesLeft},
                     {QStringLiteral("in_use"), report.inUse},
                     {QStringLiteral("leftover_size"), report.leftoverBytes},
                     {QStringLiteral("unfinished_size"), report.unfinishedBytes},
                     {QStringLiteral("problems"), arrayOf(report.problems)}},
                    text);
    m_output.warnings(report.problems);
    return int(report.problems.isEmpty() ? ExitCode::Success : ExitCode::LocalWrite);
}

} // namespace halvane::cli
