#include "ListItemsTask.h"

#include "ResolveItemTask.h"

#include <algorithm>

namespace halvane::host {

using orx::Error;
using orx::HalvaneGetFilePathTask;
using orx::HalvaneGetFilesTask;
using orx::HalvaneGetFoldersTask;

namespace {

void sortByName(QList<RemoteItem>& items) {
    std::sort(items.begin(), items.end(), [](const RemoteItem& left, const RemoteItem& right) {
        return std::tie(left.name, left.id) < std::tie(right.name, right.id);
    });
}

} // namespace

ListItemsTask::ListItemsTask(const QString& text, QObject* parent)
    : ComplexTask(QStringLiteral("List(%1)").arg(text), parent), m_text(text) {}

ListItemsTask::~ListItemsTask() = default;

Error ListItemsTask::initialize() {
    execSubtask(std::make_unique<ResolveItemTask>(m_text, ResolveItemTask::Wanted::Any),
                [this](ResolveItemTask* task) { onResolved(task->item()); });
    return {};
}

void ListItemsTask::onResolved(const RemoteItem& item) {
    if (item.isFolder())
        return listFolders(item);
    if (item.path.isEmpty())
        return findPathOfFile(item);
    m_items = {item};
}

void ListItemsTask::findPathOfFile(const RemoteItem& file) {
    execSubtask(std::make_unique<HalvaneGetFilePathTask>(file.id),
                [this, file](HalvaneGetFilePathTask* task) {
                    RemoteItem found = file;
                    found.path = RemotePath::join(RemotePath::fromChain(task->folderPath()), file.name);
                    m_items = {found};
                });
}

void ListItemsTask::listFolders(const RemoteItem& folder) {
    const auto id = folder.id == RemoteItem::root().id ? std::nullopt : std::optional(folder.id);
    execSubtask(std::make_unique<HalvaneGetFoldersTask>(id), [this, folder](HalvaneGetFoldersTask* task) {
        for (const auto& child : task->foldersTree())
            m_items.append(RemoteItem::fromFolder(*child, folder.path));
        sortByName(m_items);
        listFiles(folder);
    });
}

void ListItemsTask::listFiles(const RemoteItem& folder) {
    execSubtask(std::make_unique<HalvaneGetFilesTask>(folder.id), [this, folder](HalvaneGetFilesTask* task) {
        QList<RemoteItem> files;
        for (const auto& file : task->files())
            files.append(RemoteItem::fromFile(*file, folder.path));
        sortByName(files);
        m_items.append(files);
    });
}

} // namespace halvane::host
