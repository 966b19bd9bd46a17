#pragma once

#include "Error.h"

#include <optional>
#include <utility>

namespace orx {

//! A value of type T or an Error; warnings may accompany either. Holds move-only types. A Result made from an
//! Error without an error is a programming fault and becomes a general error, so that no Result is without
//! both.
template <typename T>
class [[nodiscard]] Result {
public:
    using ValueType = T;

    Result(const T& value) : m_value(value) {}
    Result(T&& value) : m_value(std::move(value)) {}
    //! Converts from whatever T is made from (a derived pointer, for instance).
    template <typename U>
    requires(std::is_constructible_v<T, U&&>&& std::is_convertible_v<U&&, T> &&
             !std::is_same_v<std::remove_cvref_t<U>, T> && !std::is_same_v<std::remove_cvref_t<U>, Error> &&
             !std::is_same_v<std::remove_cvref_t<U>, Result>) Result(U&& value)
        : m_value(T(std::forward<U>(value))) {}
    Result(Error error) : m_error(std::move(error)) {
        if (!m_error.hasError())
            m_error = Error(ErrorCode::General,
                            QStringLiteral("A result was made of neither a value nor an error."));
    }

    bool hasError() const noexcept { return !m_value.has_value(); }
    explicit operator bool() const noexcept { return m_value.has_value(); }
    //! The error; without one when there is a value (its warnings are the result's).
    const Error& error() const& noexcept { return m_error; }
    Error error() && { return std::move(m_error); }
    QString errorMessage() const { return m_error.errorMessage(); }

    //! Only when there is a value.
    T& value() & { return *m_value; }
    const T& value() const& { return *m_value; }
    T&& value() && { return std::move(*m_value); }
    T& operator*() & { return *m_value; }
    const T& operator*() const& { return *m_value; }
    T&& operator*() && { return std::move(*m_value); }
    T* operator->() { return &*m_value; }
    const T* operator->() const { return &*m_value; }
    template <typename U>
    T valueOr(U&& other) const& {
        return m_value ? *m_value : T(std::forward<U>(other));
    }

    const Warnings& warnings() const noexcept { return m_error.warnings(); }
    void addWarning(const QString& text) { m_error.addWarning(text); }

    Result& ecatch(const char* function, const char* file, int line) & {
        m_error.ecatch(function, file, line);
        return *this;
    }
    Result&& ecatch(const char* function, const char* file, int line) && {
        m_error.ecatch(function, file, line);
        return std::move(*this);
    }

private:
    std::optional<T> m_value;
    Error m_error;
};

} // namespace orx
