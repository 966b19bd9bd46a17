// What the commands ask the resource framework: metadata, existence and names.
#include "Interruption.h"
#include "Output.h"
#include "Runner.h"
#include "TextForms.h"

#include <ErrorText.h>
#include <ExitCodes.h>
#include <HalvaneError.h>
#include <HalvaneFileResourceMetadata.h>
#include <HalvaneFolderResourceMetadata.h>
#include <HalvaneResourceHandler.h>
#include <ResolveItemTask.h>
#include <WorkerStepTask.h>

#include <QJsonArray>

#include <cstdlib>

namespace halvane::cli {

using host::ExitCode;
using host::RemoteItem;
using host::ResolveItemTask;
using orx::Error;
using orx::ErrorCode;
using orx::HalvaneFileResourceMetadata;
using orx::HalvaneFolderPrivilegeType;
using orx::HalvaneFolderResourceMetadata;
using orx::HalvaneReferenceText;
using orx::HalvaneResourceMetadata;
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

Result<Runner::Named> Runner::open(const QString& reference, Wanted wanted) {
    auto resources = startResources();
    ORX_RETURN_ON_ERROR(resources.error());
    const auto item = resolve(reference, wanted);
    ORX_RETURN_ON_ERROR(item.error());
    const auto handler = host::handlerOf(item.value());
    ORX_RETURN_ON_ERROR(handler.error());
    return Named{std::move(resources).value(), item.value(), handler.value()};
}

int Runner::operator()(const InfoCommand& command) {
    const auto named = open(command.reference);
    if (named.hasError())
        return m_output.error(named.error());
    const auto& [resources, item, handler] = named.value();
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
    const auto named = open(command.reference, Wanted::File);
    if (named.hasError())
        return m_output.error(named.error());
    const auto& [resources, item, handler] = named.value();
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

} // namespace halvane::cli
