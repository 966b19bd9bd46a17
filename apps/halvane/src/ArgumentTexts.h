#pragma once

#include <Error.h>

#include <QString>

#include <string>

namespace halvane::cli {

//! A mistake in the arguments, on its way to the one place that reports it.
struct UsageError {
    QString message;
};

//! Throws a UsageError with the error's words.
void require(const orx::Error& error);

//! Names are UTF-8 on both sides; anything else could not be given back unchanged. Throws a UsageError that
//! begins with \a what.
QString textOf(const std::string& argument, const char* what);
//! The same, and an empty text is a mistake too.
QString filledTextOf(const std::string& argument, const char* what);

} // namespace halvane::cli
