#include "ResourceHandler.h"

#include <QCoreApplication>

namespace orx {

namespace {

QString translated(const char* text) {
    return QCoreApplication::translate("orx::ResourceHandler", text);
}

QString textOf(const ResourceReferenceSPtr& reference) {
    return reference ? reference->displayText() : QString();
}

Error ask(ResourcePromptingInterface* prompting, const ResourceReferenceSPtr& reference) {
    if (!prompting || prompting->mayFetch(*reference))
        return Error();
    return Error(ErrorCode::Canceled,
                 translated("\"%1\" was not fetched: it was not allowed.").arg(textOf(reference)));
}

//! A task that runs while somebody waits for it; what still works below it when it has finished keeps it.
class AwaitedTask {
public:
    explicit AwaitedTask(std::unique_ptr<Task> task) : m_task(std::move(task)) {}
    AwaitedTask(const AwaitedTask&) = delete;
    AwaitedTask& operator=(const AwaitedTask&) = delete;
    ~AwaitedTask() {
        if (!m_task || m_task->isIdle())
            return;
        Task* const task = m_task.release();
        QObject::connect(task, &BaseTask::idle, task, &QObject::deleteLater);
    }
    //! Blocking; not for a task that runs already. A success has the task's warnings.
    Error run() {
        if (!m_task)
            return Error(ErrorCode::General, translated("There is no task that could be run."));
        m_task->exec();
        ORX_RETURN_ON_ERROR(m_task->waitForFinished());
        return m_task->error();
    }
    QVariant result() const { return m_task->variantResult(); }

private:
    std::unique_ptr<Task> m_task;
};

} // namespace

ResourcePromptingInterface::~ResourcePromptingInterface() = default;

ResourceHandler::ResourceHandler(const ResourceReferenceSPtr& reference, ResourceCache* cache)
    : m_reference(reference), m_cache(cache) {}

ResourceHandler::~ResourceHandler() = default;

Result<std::unique_ptr<GetSiblingsTask>> ResourceHandler::siblings() const {
    return ORX_ECATCH(
        Error(ErrorCode::InvalidArgument,
              translated("\"%1\" has no siblings that could be listed.").arg(textOf(m_reference))));
}

Result<std::unique_ptr<Task>> ResourceHandler::retrieveAsync(AsyncProcessingType type,
                                                             ResourcePromptingInterface* prompting) {
    if (auto path = expectedPath(); path.hasError())
        return ORX_ECATCH(path).error();
    if (m_retrieveMode == RetrieveMode::CacheOnly && !mayBeAvailableLocally())
        return ORX_ECATCH(
            Error(ErrorCode::NotFound,
                  translated("\"%1\" is not in the cache, and nothing else was to be asked for it.")
                      .arg(textOf(m_reference))));
    m_asksLater = false;
    m_prompting = prompting;
    auto task = retrieveTask();
    m_prompting = nullptr;
    if (!task)
        return std::unique_ptr<Task>();
    if (!*task)
        return ORX_ECATCH(Error(ErrorCode::General,
                                translated("No task was made to retrieve \"%1\".").arg(textOf(m_reference))));
    if (m_retrieveMode != RetrieveMode::CacheOnly && !m_asksLater)
        ORX_RETURN_ON_ERROR(ask(prompting, m_reference));
    if (type == AsyncProcessingType::StartedHere)
        (*task)->exec();
    return std::move(*task);
}

std::function<Error()> ResourceHandler::askLater() {
    m_asksLater = true;
    return [prompting = m_prompting, reference = m_reference] { return ask(prompting, reference); };
}

Result<PathImpl<PathType::Unknown>> ResourceHandler::retrieve(ResourcePromptingInterface* prompting) {
    auto task = retrieveAsync(AsyncProcessingType::RunByCaller, prompting);
    if (task.hasError())
        return ORX_ECATCH(task).error();
    const Error end = *task ? AwaitedTask(std::move(*task)).run() : Error();
    ORX_RETURN_ON_ERROR(end);
    auto path = expectedPath();
    for (const QString& warning : end.warnings())
        path.addWarning(warning);
    return ORX_ECATCH(path);
}

Result<QSharedPointer<ResourceMetadata>> ResourceHandler::retrieveMetadata() const {
    AwaitedTask task(retrieveMetadataTask());
    ORX_RETURN_ON_ERROR(task.run());
    if (auto metadata = ResourceMetadata::fromVariant(task.result()))
        return metadata;
    return ORX_ECATCH(
        Error(ErrorCode::General,
              translated("The metadata of \"%1\" was asked for, but none came.").arg(textOf(m_reference))));
}

Result<bool> ResourceHandler::exists() const {
    AwaitedTask task(existsTask());
    ORX_RETURN_ON_ERROR(task.run());
    if (const QVariant result = task.result(); result.metaType() == QMetaType::fromType<bool>())
        return result.toBool();
    return ORX_ECATCH(
        Error(ErrorCode::General,
              translated("Whether \"%1\" exists was asked, but no answer came.").arg(textOf(m_reference))));
}

} // namespace orx
