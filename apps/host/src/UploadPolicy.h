#pragma once

#include "KnownContents.h"
#include "SameContentTask.h"
#include "Uploads.h"

#include <DuplicateUploadPolicy.h>
#include <TasksQueue.h>

#include <QHash>
#include <QStringList>

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
        //! What needs not be read again unless it was touched.
        KnownContents::ByPath known;
        //! The paths that go up, absolute.
        QStringList sources;

        //! Whether the run takes what lies there in a directory, by its name and its place. What is named is
        //! no matter: of two named paths of one name the later is refused.
        bool goesUp(const QString& localPath) const;
        std::optional<KnownContent> knownOf(const QString& localPath) const;
        //! Why the options do not let a file go up whose content nothing has, as \a compared; no error when
        //! it goes up, is left out without a failure, or a person is asked.
        orx::Error refusalOf(const SameContentTask& compared) const;
    };

    //! \a known: from earlier runs; only a retry relies on it.
    static Options optionsOf(const TreeUploadRequest& request, bool canAsk,
                             const KnownContents::ByPath& known);

    explicit UploadPolicy(const Options& options);
    ~UploadPolicy() override;

    void decide(const orx::DuplicateUploadPolicyRequestPtr& request) override;
    //! Ends all comparisons; answers Cancel from now on.
    void cancel() override;

    using Scope = orx::AskingDuplicateUploadPolicy::Scope;
    //! Of a person, to the question that was put last; \a scope All: to all others too.
    void answer(orx::DuplicateUploadAnswer answer, Scope scope);

Q_SIGNALS:
    //! A person is asked, one question at a time: \a existing has the name that \a localPath wants. Answered
    //! by answer().
    void asked(const QString& localPath, const halvane::host::RemoteItem& existing);
    //! The question that was put last needs no answer any more.
    void withdrawn();
    //! The server has the content of \a localPath as \a item.
    void unchanged(const QString& localPath, const halvane::host::RemoteItem& item);
    //! \a localPath was left out for \a item, which has its name.
    void skipped(const QString& localPath, const halvane::host::RemoteItem& item);
    void failed(const QString& localPath, const orx::Error& error);

private:
    void onCompared(const orx::DuplicateUploadPolicyRequestPtr& request, const SameContentTask& task);
    void decideByOption(const orx::DuplicateUploadPolicyRequestPtr& request, const RemoteItem& existing);
    void ask(const orx::DuplicateUploadPolicyRequestPtr& request, const RemoteItem& existing);
    void fail(const orx::DuplicateUploadPolicyRequestPtr& request, const orx::Error& error);

    Options m_options;
    struct Question {
        orx::DuplicateUploadPolicyRequestPtr request;
        RemoteItem existing;
    };
    std::shared_ptr<orx::AskingDuplicateUploadPolicy> m_asking;
    //! By local path; those that nobody waits for any more stay until the next answer.
    QHash<QString, Question> m_questions;
    QString m_current;
    std::optional<orx::DuplicateUploadAnswer> m_answerForAll;
    bool m_isCanceled = false;
    orx::TasksQueue m_comparisons;
};

} // namespace halvane::host
