#include "CoroutineScope.h"

#include <QTimer>

namespace orx {

namespace {

thread_local std::shared_ptr<CoroutineScope> currentScope;

} // namespace

std::shared_ptr<CoroutineScope> CoroutineScope::current() {
    return currentScope;
}

CoroutineScope::Entered::Entered(const std::shared_ptr<CoroutineScope>& scope)
    : m_outer(std::exchange(currentScope, scope)) {}

CoroutineScope::Entered::~Entered() {
    currentScope = std::move(m_outer);
}

void CoroutineScope::cancel() {
    const auto self = shared_from_this();
    m_isCanceled = true;
    while (!m_waits.empty()) {
        CancelableWait* const wait = m_waits.front();
        wait->m_isCanceled = true;
        wait->abandon();
        wait->ended();
    }
}

void CoroutineScope::abandon() {
    m_isAbandoned = true;
    cancel();
}

CancelableWait::CancelableWait() : m_scope(CoroutineScope::current()) {}

CancelableWait::~CancelableWait() = default;

bool CancelableWait::isCanceled() const noexcept {
    return m_isCanceled || (m_scope && m_scope->isCanceled());
}

void CancelableWait::suspend(std::coroutine_handle<> coroutine) {
    m_coroutine = coroutine;
    if (m_scope)
        m_scope->add(this);
    begin();
}

void CancelableWait::ended() {
    const std::shared_ptr<CoroutineScope> scope = m_scope;
    if (scope)
        scope->remove(this);
    const CoroutineScope::Entered entered(scope);
    m_coroutine.resume();
}

void CancelableWait::checkCanceled() const {
    if (isCanceled())
        throw WaitCanceled();
}

DelayWait::DelayWait(std::chrono::milliseconds delay) : m_delay(delay) {}

DelayWait::~DelayWait() = default;

void DelayWait::begin() {
    m_context = std::make_unique<QObject>();
    QTimer::singleShot(m_delay, m_context.get(), [this] { ended(); });
}

void DelayWait::abandon() {
    m_context.reset();
}

QCoro::Task<> delay(std::chrono::milliseconds time) {
    DelayWait wait(time);
    co_await wait;
}

} // namespace orx
