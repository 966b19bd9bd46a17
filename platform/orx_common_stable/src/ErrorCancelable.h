#pragma once

#include "Error.h"

#include <QObject>

namespace orx {

//! Something that can be cancelled.
class ORX_COMMON_STABLE_EXPORT Cancelable {
public:
    virtual ~Cancelable();
    //! Idempotent.
    virtual void cancel() = 0;
    virtual bool isCanceled() const = 0;
};

//! A QObject that holds an error and can be cancelled. Thread: that of the object.
class ORX_COMMON_STABLE_EXPORT ErrorCancelable : public QObject, public Cancelable {
    Q_OBJECT
public:
    explicit ErrorCancelable(QObject* parent = nullptr);
    ~ErrorCancelable() override;

    bool hasError() const noexcept { return m_error.hasError(); }
    Error error() const { return m_error; }
    //! Replaces the error held; an empty one clears it.
    void setError(const Error& error);
    //! Adds to the warnings of the error held, which need not be one.
    void addWarning(const QString& text);

    //! Sets the cancel error at once, unless an error is held already, and emits canceled(). Only the first
    //! call since construction or resetCanceled() has an effect.
    void cancel() override;
    bool isCanceled() const override { return m_canceled; }

Q_SIGNALS:
    void canceled();

protected:
    //! For an object that starts a new life: neither cancelled nor failed.
    void resetErrorAndCanceled();

private:
    Error m_error;
    bool m_canceled = false;
};

} // namespace orx
