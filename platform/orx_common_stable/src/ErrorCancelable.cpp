#include "ErrorCancelable.h"

namespace orx {

Cancelable::~Cancelable() = default;

ErrorCancelable::ErrorCancelable(QObject* parent) : QObject(parent) {}

ErrorCancelable::~ErrorCancelable() = default;

void ErrorCancelable::setError(const Error& error) {
    m_error = error;
}

void ErrorCancelable::addWarning(const QString& text) {
    m_error.addWarning(text);
}

void ErrorCancelable::cancel() {
    if (m_canceled)
        return;
    m_canceled = true;
    if (!m_error.hasError())
        m_error = Error(ErrorCode::Canceled, tr("The operation was cancelled."));
    Q_EMIT canceled();
}

void ErrorCancelable::resetErrorAndCanceled() {
    m_error = Error();
    m_canceled = false;
}

} // namespace orx
