#include "DuplicateUploadPolicy.h"

#include <QPointer>

#include <deque>
#include <utility>

namespace orx {

void DuplicateUploadPolicyRequest::answer(DuplicateUploadAnswer answer) {
    if (!std::exchange(m_isOpen, false))
        return;
    if (const auto onAnswer = std::exchange(m_onAnswer, {}))
        onAnswer(answer);
}

void DuplicateUploadPolicyRequest::withdraw() {
    m_onAnswer = {};
    const auto onWithdrawn = std::exchange(m_onWithdrawn, {});
    if (std::exchange(m_isOpen, false) && onWithdrawn)
        onWithdrawn();
}

DuplicateUploadPolicyInterface::~DuplicateUploadPolicyInterface() = default;

void DuplicateUploadPolicyInterface::cancel() {}

void FixedDuplicateUploadPolicy::decide(const DuplicateUploadPolicyRequestPtr& request) {
    request->answer(m_answer);
}

DefaultDuplicateUploadPolicy::DefaultDuplicateUploadPolicy()
    : FixedDuplicateUploadPolicy(DuplicateUploadAnswer::NewVersion) {}

struct AskingDuplicateUploadPolicy::Private {
    std::deque<DuplicateUploadPolicyRequestPtr> waiting;
    DuplicateUploadPolicyRequestPtr current; //!< was put to the person
    std::optional<DuplicateUploadAnswer> forAll;
    bool advancing = false;
};

AskingDuplicateUploadPolicy::AskingDuplicateUploadPolicy() : d(std::make_unique<Private>()) {}

AskingDuplicateUploadPolicy::~AskingDuplicateUploadPolicy() = default;

void AskingDuplicateUploadPolicy::decide(const DuplicateUploadPolicyRequestPtr& request) {
    request->setOnWithdrawn([guard = QPointer<AskingDuplicateUploadPolicy>(this)] {
        if (guard)
            guard->advance();
    });
    d->waiting.push_back(request);
    advance();
}

void AskingDuplicateUploadPolicy::answer(DuplicateUploadAnswer answer, Scope scope) {
    if (scope == Scope::All)
        d->forAll = answer;
    const QPointer<AskingDuplicateUploadPolicy> guard(this);
    if (const auto request = std::exchange(d->current, nullptr))
        request->answer(answer);
    if (guard)
        advance();
}

void AskingDuplicateUploadPolicy::cancel() {
    d->forAll = DuplicateUploadAnswer::Cancel;
    const QPointer<AskingDuplicateUploadPolicy> guard(this);
    if (const auto request = std::exchange(d->current, nullptr)) {
        Q_EMIT withdrawn();
        request->answer(DuplicateUploadAnswer::Cancel);
    }
    if (guard)
        advance();
}

//! Answers what can be answered, and puts the next question when none is open.
void AskingDuplicateUploadPolicy::advance() {
    if (d->advancing)
        return;
    const QPointer<AskingDuplicateUploadPolicy> guard(this);
    d->advancing = true;
    while (guard && !(d->current && d->current->isOpen())) {
        if (std::exchange(d->current, nullptr)) {
            Q_EMIT withdrawn();
            continue;
        }
        if (d->waiting.empty())
            break;
        const DuplicateUploadPolicyRequestPtr request = d->waiting.front();
        d->waiting.pop_front();
        if (!request->isOpen())
            continue;
        if (d->forAll) {
            request->answer(*d->forAll);
            continue;
        }
        d->current = request;
        Q_EMIT asked(*request);
    }
    if (guard)
        d->advancing = false;
}

} // namespace orx
