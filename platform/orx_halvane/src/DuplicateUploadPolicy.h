#pragma once

#include "orx_halvane_export.h"

#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace orx {

//! What becomes of a local file whose name is taken in the target folder.
enum class DuplicateUploadAnswer {
    NewVersion, //!< the file on the server gets a new version
    KeepBoth,   //!< the new file gets a free name
    Skip,       //!< it is left out
    Cancel,     //!< the whole upload is to end
    Fail        //!< the upload of this entry fails with an error that names the file
};

//! One question for a policy, and the place for its answer. Thread: that of the upload.
class ORX_HALVANE_EXPORT DuplicateUploadPolicyRequest {
public:
    struct Input {
        QString localPath;
        int existingFileId = -1;
        int folderId = -1;
        QString folderName;
        bool isValidMsData = false; //!< raw data, which is packed before it is sent
    };

    explicit DuplicateUploadPolicyRequest(const Input& input) : m_input(input) {}

    const Input& input() const { return m_input; }
    //! Nobody has answered it, and somebody still waits for the answer.
    bool isOpen() const { return m_isOpen; }
    //! Nothing when the request is not open.
    void answer(DuplicateUploadAnswer answer);
    //! Called once when nobody waits for the answer any more.
    void setOnWithdrawn(std::function<void()> onWithdrawn) { m_onWithdrawn = std::move(onWithdrawn); }

private:
    friend class DuplicateUploadQuestionTask;
    void withdraw();
    const Input m_input;
    bool m_isOpen = true;
    std::function<void(DuplicateUploadAnswer)> m_onAnswer;
    std::function<void()> m_onWithdrawn;
};

using DuplicateUploadPolicyRequestPtr = std::shared_ptr<DuplicateUploadPolicyRequest>;

//! Decides about taken names. Shared by all tasks of an upload. Thread: that of the upload.
class ORX_HALVANE_EXPORT DuplicateUploadPolicyInterface {
public:
    virtual ~DuplicateUploadPolicyInterface();
    //! Answers \a request, before it returns or later. Several may be open at a time. A request that is
    //! dropped unanswered leaves its task waiting.
    virtual void decide(const DuplicateUploadPolicyRequestPtr& request) = 0;
    //! The upload was cancelled: there is nobody who waits for answers. Called once by each folder upload
    //! that is cancelled, also by one that is so because another upload of its tree failed: a policy that
    //! remembers it serves one tree only.
    virtual void cancel();
};

//! The same answer every time.
class ORX_HALVANE_EXPORT FixedDuplicateUploadPolicy : public DuplicateUploadPolicyInterface {
public:
    explicit FixedDuplicateUploadPolicy(DuplicateUploadAnswer answer) : m_answer(answer) {}
    void decide(const DuplicateUploadPolicyRequestPtr& request) override;

private:
    DuplicateUploadAnswer m_answer;
};

//! New versions: nothing on the server is ever replaced or left behind by that.
class ORX_HALVANE_EXPORT DefaultDuplicateUploadPolicy : public FixedDuplicateUploadPolicy {
public:
    DefaultDuplicateUploadPolicy();
};

//! Asks a person, one question at a time.
class ORX_HALVANE_EXPORT AskingDuplicateUploadPolicy : public QObject, public DuplicateUploadPolicyInterface {
    Q_OBJECT
public:
    enum class Scope { ThisOne, All };

    AskingDuplicateUploadPolicy();
    ~AskingDuplicateUploadPolicy() override;

    void decide(const DuplicateUploadPolicyRequestPtr& request) override;
    //! Answers Cancel to whatever is open and whatever is asked later.
    void cancel() override;
    //! Of the person, to the question that was put last; \a scope All: to all that follow too.
    void answer(DuplicateUploadAnswer answer, Scope scope);

Q_SIGNALS:
    //! To be answered by answer(), within the emission or later.
    void asked(const orx::DuplicateUploadPolicyRequest& request);
    //! The question that was put last needs no answer any more.
    void withdrawn();

private:
    void advance();
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
