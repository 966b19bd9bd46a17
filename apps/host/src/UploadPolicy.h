#pragma once

#include "SameContentTask.h"
#include "Uploads.h"

#include <DuplicateUploadPolicy.h>
#include <TasksQueue.h>

#include <QHash>
#include <QSet>

#include <memory>
#include <optional>

namespace halvane::host {

//! Decides about the taken names of one upload. What the server has with the very content is left out first,
//! so that a second run of a tree sends nothing; the rest is what was asked for, or what a person says.
//! While a content is compared or a person thinks, others go on. Thread: that of the upload.
class HALVANE_HOST_EXPORT UploadPolicy : public QObject, public orx::DuplicateUploadPolicyInterface {
    Q_OBJECT
public:
    struct Options {
        IfTaken ifTaken = IfTaken::NewVersion;
        //! Whether somebody answers asking().
        bool canAsk = false;
        //! What fails is left out and told by failed(), so that the others of its folder go on.
        bool keepGoing = false;
        //! For what is not among \a suspects sizes suffice; nothing: everything is suspect.
        bool onlyMissing = false;
        std::optional<QSet<QString>> suspects = QSet<QString>();

        bool mayCompareSizesOf(const QString& localPath) const {
            return onlyMissing && suspects && !suspects->contains(localPath);
        }
    };

    //! \a suspects: what the last run left; see UnfinishedUploads.
    static Options optionsOf(const TreeUploadRequest& request, bool canAsk,
                             const std::optional<QSet<QString>>& suspects);

    explicit UploadPolicy(const Options& options);
    ~UploadPolicy() override;

    void decide(const orx::DuplicateUploadPolicyRequestPtr& request) override;
    //! Ends all comparisons; answers Cancel from now on.
    void cancel() override;

    //! Where a person is asked; answered through its answer().
    orx::AskingDuplicateUploadPolicy& asking() { return *m_asking; }
    //! What is on the server under the name that \a localPath wants, for who is asked.
    RemoteItem existing(const QString& localPath) const { return m_asked.value(localPath); }
    //! Whether a person was asked about the path; what does not go up then was left out by the answer.
    bool wasAsked(const QString& localPath) const { return m_asked.contains(localPath); }

Q_SIGNALS:
    //! The server has the content of \a localPath as \a item.
    void unchanged(const QString& localPath, const halvane::host::RemoteItem& item);
    //! \a localPath was left out for \a item, which has its name.
    void skipped(const QString& localPath, const halvane::host::RemoteItem& item);
    void failed(const QString& localPath, const orx::Error& error);

private:
    void onCompared(const orx::DuplicateUploadPolicyRequestPtr& request, const SameContentTask& task);
    void decideByOption(const orx::DuplicateUploadPolicyRequestPtr& request, const RemoteItem& existing);
    void fail(const orx::DuplicateUploadPolicyRequestPtr& request, const orx::Error& error);
    orx::Error refusal(const QString& localPath, const RemoteItem& existing) const;

    Options m_options;
    std::shared_ptr<orx::AskingDuplicateUploadPolicy> m_asking;
    QHash<QString, RemoteItem> m_asked;
    bool m_isCanceled = false;
    orx::TasksQueue m_comparisons;
};

} // namespace halvane::host
