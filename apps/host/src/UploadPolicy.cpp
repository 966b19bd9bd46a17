#include "UploadPolicy.h"

#include "LocalTree.h"

#include <UploadFileInputValidation.h>

#include <QFileInfo>
#include <QPointer>

#include <algorithm>
#include <utility>

namespace halvane::host {

using orx::BaseTask;
using orx::DuplicateUploadAnswer;
using orx::DuplicateUploadPolicyRequestPtr;
using orx::Error;
using orx::ErrorCode;

namespace {

// They read whole files, and a disk gives no more for being asked by many.
constexpr int comparisonsAtATime = 3;

// The file of that name may be what became of the other one, which would come back as a version of this one
// with the next run, and so on.
Error rivalry(const QString& path, const SameContentTask& task) {
    return Error(ErrorCode::AlreadyExists,
                 QStringLiteral("\"%1\" was not sent: \"%2\" goes up under the same name, and %3 may be that "
                                "one's. Rename one of them, send it with --if-exists keep-both, or name the "
                                "file that gets the new version: halvane put \"%1\" --to file:ID.")
                     .arg(path, task.rival(), task.existing().reference()));
}

Error nameTaken(const QString& path, const RemoteItem& existing, IfTaken ifTaken) {
    const QString options =
        QStringLiteral("--if-exists new-version, --if-exists keep-both or --if-exists skip");
    const QString reason = ifTaken == IfTaken::Ask
                               ? QStringLiteral("There is no terminal to ask what to do: say it with %1.")
                               : QStringLiteral("Say what is to happen with %1.");
    return Error(
        ErrorCode::AlreadyExists,
        QStringLiteral("\"%1\" was not sent: the folder has %2 of that name with another content. %3")
            .arg(path, existing.reference(), reason.arg(options)));
}

} // namespace

UploadPolicy::Options UploadPolicy::optionsOf(const TreeUploadRequest& request, bool canAsk,
                                              const KnownContents::ByPath& known) {
    Options options;
    options.ifTaken = request.ifTaken;
    options.canAsk = canAsk;
    options.keepGoing = request.keepGoing;
    for (const QString& path : request.paths)
        options.sources.append(LocalTree::sourceOf(path));
    if (request.onlyMissing)
        options.known = known;
    return options;
}

bool UploadPolicy::Options::goesUp(const QString& localPath) const {
    const bool isBelow = std::any_of(sources.cbegin(), sources.cend(), [&](const QString& source) {
        return localPath.startsWith(source.endsWith(u'/') ? source : source + u'/');
    });
    return isBelow && orx::UploadFileInputValidation::validUploadPath(QFileInfo(localPath));
}

std::optional<KnownContent> UploadPolicy::Options::knownOf(const QString& localPath) const {
    const auto found = known.constFind(localPath);
    return found == known.constEnd() ? std::nullopt : std::optional(*found);
}

Error UploadPolicy::Options::refusalOf(const SameContentTask& compared) const {
    const QString& path = compared.wanted().localPath;
    if (ifTaken == IfTaken::NewVersion && !compared.rival().isEmpty() && goesUp(compared.rival()))
        return rivalry(path, compared);
    if (ifTaken == IfTaken::Fail || (ifTaken == IfTaken::Ask && !canAsk))
        return nameTaken(path, compared.existing(), ifTaken);
    return {};
}

UploadPolicy::UploadPolicy(const Options& options)
    : m_options(options)
    , m_asking(std::make_shared<orx::AskingDuplicateUploadPolicy>())
    , m_comparisons(comparisonsAtATime) {
    using Asking = orx::AskingDuplicateUploadPolicy;
    connect(m_asking.get(), &Asking::asked, this, [this](const orx::DuplicateUploadPolicyRequest& request) {
        m_current = request.input().localPath;
        Q_EMIT asked(m_current, m_questions.value(m_current).existing);
    });
    connect(m_asking.get(), &Asking::withdrawn, this, &UploadPolicy::withdrawn);
}

UploadPolicy::~UploadPolicy() = default;

void UploadPolicy::decide(const DuplicateUploadPolicyRequestPtr& request) {
    if (m_isCanceled)
        return request->answer(DuplicateUploadAnswer::Cancel);
    const auto& input = request->input();
    SameContentTask::Wanted wanted;
    wanted.localPath = input.localPath;
    wanted.isRawData = input.isValidMsData;
    wanted.folderId = input.folderId;
    wanted.existingFileId = input.existingFileId;
    wanted.alsoFreeNames = m_options.ifTaken == IfTaken::KeepBoth;
    wanted.known = m_options.knownOf(input.localPath);
    auto task = std::make_unique<SameContentTask>(wanted);
    request->setOnWithdrawn([task = QPointer<SameContentTask>(task.get())] {
        if (task)
            task->cancel();
    });
    m_comparisons.add(std::move(task), [this, request](BaseTask* ended) {
        onCompared(request, *static_cast<SameContentTask*>(ended));
    });
}

void UploadPolicy::cancel() {
    m_isCanceled = true;
    m_comparisons.cancel();
    m_asking->cancel();
}

void UploadPolicy::onCompared(const DuplicateUploadPolicyRequestPtr& request, const SameContentTask& task) {
    if (!request->isOpen())
        return;
    if (m_isCanceled)
        return request->answer(DuplicateUploadAnswer::Cancel);
    if (task.hasError())
        return fail(request, task.error());
    if (task.same()) {
        Q_EMIT unchanged(request->input().localPath, *task.same());
        return request->answer(DuplicateUploadAnswer::Skip);
    }
    const Error refusal = m_options.refusalOf(task);
    if (refusal.hasError())
        return fail(request, refusal);
    decideByOption(request, task.existing());
}

void UploadPolicy::decideByOption(const DuplicateUploadPolicyRequestPtr& request,
                                  const RemoteItem& existing) {
    const QString path = request->input().localPath;
    switch (m_options.ifTaken) {
    case IfTaken::NewVersion:
        return request->answer(DuplicateUploadAnswer::NewVersion);
    case IfTaken::KeepBoth:
        return request->answer(DuplicateUploadAnswer::KeepBoth);
    case IfTaken::Skip:
        Q_EMIT skipped(path, existing);
        return request->answer(DuplicateUploadAnswer::Skip);
    case IfTaken::Ask:
        return ask(request, existing);
    case IfTaken::Fail:
        return fail(request, nameTaken(path, existing, m_options.ifTaken));
    }
}

void UploadPolicy::ask(const DuplicateUploadPolicyRequestPtr& request, const RemoteItem& existing) {
    const QString path = request->input().localPath;
    if (m_answerForAll == DuplicateUploadAnswer::Skip)
        Q_EMIT skipped(path, existing);
    if (!m_answerForAll)
        m_questions.insert(path, {request, existing});
    m_asking->decide(request);
}

// What was asked and is not answered, for whatever reason, was not left out by anybody.
void UploadPolicy::answer(DuplicateUploadAnswer answer, Scope scope) {
    QHash<QString, Question> answered;
    if (scope == Scope::All) {
        m_answerForAll = answer;
        answered = std::exchange(m_questions, {});
    } else if (m_questions.contains(m_current)) {
        answered.insert(m_current, m_questions.take(m_current));
    }
    for (auto question = answered.begin(); question != answered.end(); ++question) {
        if (answer == DuplicateUploadAnswer::Skip && question->request->isOpen())
            Q_EMIT skipped(question.key(), question->existing);
    }
    m_asking->answer(answer, scope);
}

// One answer of failure ends the comparison of the whole folder.
void UploadPolicy::fail(const DuplicateUploadPolicyRequestPtr& request, const Error& error) {
    Q_EMIT failed(request->input().localPath, error);
    request->answer(m_options.keepGoing ? DuplicateUploadAnswer::Skip : DuplicateUploadAnswer::Fail);
}

} // namespace halvane::host
