#pragma once

#include "halvane_host_export.h"

#include <Error.h>

namespace halvane::host {

//! What a person reads about an error: its own message (a general one for its code where that is empty),
//! followed by the remedy where there is one that holds for every command. One paragraph, never empty for an
//! error. Names in it are raw: who prints it escapes control characters.
HALVANE_HOST_EXPORT QString errorText(const orx::Error& error);

//! Adds to \a text a sentence about another error that accompanied it.
HALVANE_HOST_EXPORT QString joinedSentences(const QString& text, const QString& more);

//! A copy of \a error with \a message in the place of its own; domain, code and warnings stay.
HALVANE_HOST_EXPORT orx::Error withMessage(const orx::Error& error, const QString& message);

} // namespace halvane::host
