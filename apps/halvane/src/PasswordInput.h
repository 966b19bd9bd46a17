#pragma once

#include <Result.h>

namespace halvane::cli {

//! The password from standard input: everything up to its end, without one trailing line break.
orx::Result<QString> passwordFromStandardInput();

//! Asks for the password on the terminal without echo. ErrorCode::InvalidArgument, naming --password-stdin,
//! when standard input is no terminal; ErrorCode::Canceled when a signal came.
orx::Result<QString> promptForPassword(const QString& question);

} // namespace halvane::cli
