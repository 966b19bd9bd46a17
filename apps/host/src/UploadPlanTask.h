#pragma once

#include "PrepareUploadTask.h"
#include "UploadPolicy.h"

#include <ComplexTask.h>
#include <HalvaneItems.h>

#include <QHash>
#include <QSet>

namespace halvane::host {

//! What an upload would make of one local path.
struct HALVANE_HOST_EXPORT PlannedUpload {
    enum class Action {
        NewFolder,
        ExistingFolder,
        NewFile,
        NewVersion,
        KeepBoth,
        Unchanged,
        Skip,
        Fail,
        Ask
    };
    QString source;
    LocalEntry entry;
    Action action = Action::NewFile;
    //! The name that it would have on the server.
    QString name;
    //! What has its name now; no id when nothing has.
    RemoteItem existing;

    bool isSent() const {
        return action == Action::NewFile || action == Action::NewVersion || action == Action::KeepBoth;
    }
    //! A word for people and scripts.
    QString actionName() const;
};

//! Finds out what an upload would do, without doing it: asks the server, reads what would be compared, and
//! changes nothing, here or there. Thread: that of the object.
class HALVANE_HOST_EXPORT UploadPlanTask : public orx::ComplexTask {
    Q_OBJECT
public:
    UploadPlanTask(const TreeUploadRequest& request, const UploadPolicy::Options& options);
    ~UploadPlanTask() override;

    //! In the order of the local trees.
    const QList<PlannedUpload>& planned() const { return m_planned; }
    const QList<LocalTree>& trees() const { return m_trees; }
    //! What would be left out or fail, and why.
    const UploadReport& report() const { return m_report; }

protected:
    orx::Error initialize() override;

private:
    void begin(const PrepareUploadTask& prepared);
    void next();
    void planFolder(const LocalEntry& entry, int parentId);
    //! True when it is planned; else next() follows later.
    bool planFile(const LocalEntry& entry, int folderId);
    bool planFileIn(const LocalEntry& entry, int folderId);
    void onCompared(const LocalEntry& entry, const SameContentTask& task);
    void plan(const LocalEntry& entry, PlannedUpload::Action action, const RemoteItem& existing = {},
              const QString& name = {});
    QString freeName(const LocalEntry& entry, int folderId);
    const LocalTree& tree() const { return m_trees[m_tree]; }

    const TreeUploadRequest m_request;
    const UploadPolicy::Options m_options;
    RemoteItem m_target;
    QList<LocalTree> m_trees;
    QSet<QString> m_refused;
    QList<PlannedUpload> m_planned;
    UploadReport m_report;
    qsizetype m_tree = 0;
    qsizetype m_entry = 0;
    //! Of local directories; -1 for those that would be made.
    QHash<QString, int> m_folders;
    QHash<int, QList<orx::HalvaneFileItemSPtr>> m_files;
    //! Names given by the plan, by folder.
    QHash<int, QSet<QString>> m_given;
};

} // namespace halvane::host
