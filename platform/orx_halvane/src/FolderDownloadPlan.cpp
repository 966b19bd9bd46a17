#include "FolderDownloadPlan.h"

#include "DownloadNames.h"
#include "LocalNames.h"

#include <FileTypes.h>

#include <QCoreApplication>

#include <algorithm>

namespace orx {

namespace {

QString childPath(const QString& directory, const QString& name) {
    return directory.isEmpty() ? name : directory + u'/' + name;
}

Error metTwice(const QString& name, int id) {
    return Error(ErrorCode::ParseError,
                 QCoreApplication::translate("orx::FolderDownloadPlan",
                                             "The server lists the folder \"%1\" (id %2) in more than one "
                                             "place. It comes down once only.")
                     .arg(name)
                     .arg(id));
}

//! The items of one folder that have usable names, by id, and the names they get.
template <typename Item>
class NamedItems {
public:
    explicit NamedItems(LocalNames::Kind kind) : m_kind(kind) {}

    void add(const QSharedPointer<Item>& item) { m_items.push_back({item, QString()}); }
    void sort() {
        std::stable_sort(m_items.begin(), m_items.end(),
                         [](const auto& a, const auto& b) { return a.first->id() < b.first->id(); });
    }
    void keepNames(LocalNames& names) {
        for (auto& [item, name] : m_items)
            name = names.take(item->name()) ? item->name() : QString();
    }
    void giveFreeNames(LocalNames& names) {
        for (auto& [item, name] : m_items)
            if (name.isEmpty())
                name = names.takeFree(item->name(), m_kind, item->id());
    }
    auto begin() const { return m_items.begin(); }
    auto end() const { return m_items.end(); }

private:
    LocalNames::Kind m_kind;
    std::vector<std::pair<QSharedPointer<Item>, QString>> m_items;
};

//! Items that have their names for themselves keep them, whatever free names the others would get.
//! The names that are taken then.
LocalNames giveNames(NamedItems<HalvaneFolderTreeNode>& folders, NamedItems<HalvaneFileItem>& files) {
    LocalNames names;
    folders.sort();
    files.sort();
    folders.keepNames(names);
    files.keepNames(names);
    folders.giveFreeNames(names);
    files.giveFreeNames(names);
    return names;
}

//! See FolderDownloadPlan::File::contentName. A packed file says nothing of its content but by its own name:
//! "run1.raw.vonk" holds "run1.raw".
QString contentNameOf(const HalvaneFileItem& file, const QString& localName, LocalNames& names) {
    if (FileTypes::fileType(file.name()) != FileTypes::VONK)
        return {};
    const QString content = file.name().left(file.name().lastIndexOf(u'.'));
    const bool isFree = localName == file.name() && names.take(content);
    return isFree ? QString() : names.takeFree(content, LocalNames::Kind::File, file.id());
}

} // namespace

void FolderDownloadPlan::begin(const Folder& root) {
    m_known.insert(root.id);
    m_folders.push_back(root);
}

std::optional<FolderDownloadPlan::Folder> FolderDownloadPlan::takeFolder() {
    if (m_folders.empty() || m_listing >= m_limits.listings || isListingPaused())
        return std::nullopt;
    ++m_listing;
    const Folder folder = std::move(m_folders.back());
    m_folders.pop_back();
    return folder;
}

std::optional<FolderDownloadPlan::File> FolderDownloadPlan::takeFile() {
    if (m_files.empty() || m_fetching >= m_limits.files)
        return std::nullopt;
    ++m_fetching;
    File file = std::move(m_files.front());
    m_files.pop_front();
    return file;
}

Error FolderDownloadPlan::checkFolder(const HalvaneFolderTreeNode& folder) const {
    ORX_RETURN_ON_ERROR(DownloadNames::checkListed(folder.name()));
    return m_known.contains(folder.id()) ? metTwice(folder.name(), folder.id()) : Error();
}

QList<FolderDownloadPlan::Refused> FolderDownloadPlan::listed(const Folder& folder,
                                                              const QList<HalvaneFolderTreeNodeSPtr>& folders,
                                                              const QList<HalvaneFileItemSPtr>& files) {
    --m_listing;
    QList<Refused> refused;
    const auto refuse = [&](const HalvaneItem& item, const Error& error) {
        refused.append({childPath(folder.path, DownloadNames::printable(item.name())), error});
    };
    NamedItems<HalvaneFolderTreeNode> namedFolders(LocalNames::Kind::Folder);
    for (const HalvaneFolderTreeNodeSPtr& child : folders) {
        if (const Error error = checkFolder(*child); error.hasError()) {
            refuse(*child, error);
            continue;
        }
        m_known.insert(child->id());
        namedFolders.add(child);
    }
    NamedItems<HalvaneFileItem> namedFiles(LocalNames::Kind::File);
    for (const HalvaneFileItemSPtr& child : files) {
        if (const Error error = DownloadNames::checkListed(child->name()); error.hasError())
            refuse(*child, error);
        else
            namedFiles.add(child);
    }
    if (m_stopped)
        return refused;
    LocalNames names = giveNames(namedFolders, namedFiles);
    for (const auto& [child, name] : namedFolders)
        m_folders.push_back({child->id(), childPath(folder.path, name)});
    for (const auto& [child, name] : namedFiles) {
        m_files.push_back({child->id(), child->lastVersion(), child->size(), child->sha256().toLatin1(),
                           child->sourceModifiedAt(), child->modifiedAt(), child->alias(), child->name(),
                           name, contentNameOf(*child, name, names), folder.path});
        m_totalBytes += std::max<qint64>(0, child->size());
        ++m_totalFiles;
    }
    return refused;
}

void FolderDownloadPlan::notListed() {
    --m_listing;
}

void FolderDownloadPlan::fileEnded() {
    --m_fetching;
}

void FolderDownloadPlan::stop() {
    m_stopped = true;
    m_droppedFiles += int(m_files.size());
    m_files.clear();
    m_folders.clear();
}

bool FolderDownloadPlan::isListingPaused() const {
    return !m_folders.empty() && int(m_files.size()) >= m_limits.waitingFiles;
}

bool FolderDownloadPlan::isDone() const {
    return m_folders.empty() && m_files.empty() && m_listing == 0 && m_fetching == 0;
}

} // namespace orx
