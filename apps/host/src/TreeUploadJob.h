#pragma once

#include "PrepareUploadTask.h"
#include "UploadAccount.h"
#include "UploadPolicy.h"

#include <ComplexTask.h>
#include <HalvaneUploadPolicyOption.h>

#include <QHash>
#include <QPointer>
#include <QSet>
#include <QStringList>

#include <memory>

namespace orx {
class HalvaneFileUploadTaskBase;
class HalvaneFolderUploadTask;
} // namespace orx

namespace halvane::host {

//! Uploads files, packed acquisitions, raw data and directories into one folder, side by side. What came of
//! each path is in report(). Ends early when nothing else could succeed: nobody is logged in, nobody answers.
//! Thread: that of the object.
class HALVANE_HOST_EXPORT TreeUploadJob : public orx::ComplexTask {
    Q_OBJECT
public:
    TreeUploadJob(const TreeUploadRequest& request, const UploadPolicy::Options& options);
    ~TreeUploadJob() override;

    UploadPolicy& policy() { return *m_policy; }
    UploadState state() const;
    //! Whether anything was tried; else the error of the job is all there is.
    bool hasBegun() const { return m_hasBegun; }
    const RemoteItem& target() const { return m_target; }
    const QList<LocalTree>& trees() const { return m_trees; }
    const UploadAccount& account() const { return m_account; }
    //! After the end; \a now: what is there by then of trees().
    UploadReport report(const QList<LocalTree>& now) const;

Q_SIGNALS:
    //! What lies at the paths is known, of trees(), and nothing of it has been tried.
    void scanned();
    //! A file did not fail; \a isSource: it was asked for itself, not found in a directory.
    void fileDone(const halvane::host::UploadedFile& file, bool isSource);

protected:
    orx::Error initialize() override;
    orx::Error doFinish() override;
    void doCancel() override;

private:
    void begin(const PrepareUploadTask& prepared);
    orx::Error addTree(const LocalTree& tree);
    orx::Error addFolder(const LocalTree& tree);
    void addFile(const LocalEntry& entry);
    void onFolderEnded(const QString& source, const orx::HalvaneFolderUploadTask& task);
    void follow(orx::HalvaneFileUploadTaskBase* task);
    void onUploadEnded(const QString& path, const orx::HalvaneFileUploadTaskBase& task);
    void onDone(const UploadedFile& file);
    void fail(const QString& path, const orx::Error& error);
    void giveUp(const QString& path);
    //! The file does not go up any more, so that nobody waits for its bytes.
    void takeFromTotal(const QString& path);
    //! Ends what runs and what waits when \a error would be that of all.
    void giveUpAfter(const orx::Error& error);
    orx::HalvaneUploadPolicyOptions policyOptions() const;

    const TreeUploadRequest m_request;
    const std::shared_ptr<UploadPolicy> m_policy;
    RemoteItem m_target;
    QList<LocalTree> m_trees;
    QSet<QString> m_sources;
    //! That the sources get.
    QStringList m_serverNames;
    UploadAccount m_account;
    orx::Error m_givenUp;
    bool m_hasBegun = false;
    //! Of the files that are to go up.
    QHash<QString, qint64> m_sizes;
    //! Of those that may still go up, and those that did.
    qint64 m_totalBytes = 0;
    qint64 m_doneBytes = 0;
    struct Running {
        QPointer<orx::BaseTask> task;
        qint64 bytesDone = 0;
    };
    //! By local path.
    QHash<QString, Running> m_running;
};

} // namespace halvane::host
