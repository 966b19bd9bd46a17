// What the commands ask of the cache: its copies, and what it holds.
#include "Interruption.h"
#include "Output.h"
#include "Runner.h"
#include "TextForms.h"

#include <ExitCodes.h>
#include <HalvaneAcknowledgedContents.h>
#include <HalvaneConnection.h>
#include <HalvaneGetVonkMetadataTask.h>
#include <RemoteResourceHandler.h>
#include <UnpackedCheck.h>

#include <QFileInfo>
#include <QJsonArray>

#include <algorithm>

namespace halvane::cli {

using host::ExitCode;
using host::RemoteItem;
using host::Resources;
using orx::Error;
using orx::ErrorCode;
using orx::ResourceCache;
using orx::ResourceCacheEntry;
using orx::ResourceCleanupPolicy;
using orx::ResourceHandler;
using orx::Result;

namespace {

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
    const auto named = open(command.reference);
    if (named.hasError())
        return m_output.error(named.error());
    const auto& [resources, item, handler] = named.value();
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
    const auto recorded = remote.recordedChecksums();
    ORX_RETURN_ON_ERROR(recorded.error());
    return host::isRecordOf(*recorded, task.metadata().entries);
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
                     {QStringLiteral("problems"), QJsonArray::fromStringList(report.problems)}},
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
                     {QStringLiteral("problems"), QJsonArray::fromStringList(report.problems)}},
                    text);
    m_output.warnings(report.problems);
    return int(report.problems.isEmpty() ? ExitCode::Success : ExitCode::LocalWrite);
}

} // namespace halvane::cli
