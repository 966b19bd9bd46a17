#pragma once

#include "Error.h"

#include <QByteArray>

namespace orx {

//! Puts a directory that was made beside another one in its place. Paths are bytes and absolute. Thread: any.
//!
//! What counts is where the directories are, not what a call says: network file systems may tell of a failure
//! and have done it nevertheless.
class DirectoryExchange {
public:
    //! \a successor is at \a target then, and what was there is at \a old: in one step, or, where names
    //! cannot be exchanged, in two (FilePlace::asideOf()). After an error \a successor is removed and the
    //! target is what it was, unless the message says what that is called instead.
    static Error run(const QByteArray& successor, const QByteArray& target, QByteArray& old);
    //! Gives \a old a name beside \a target that shows; the name that it has then.
    static QByteArray show(const QByteArray& old, const QByteArray& target);
};

} // namespace orx
