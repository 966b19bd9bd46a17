#pragma once

#include "orx_halvane_export.h"

#include <QStringList>

#include <chrono>
#include <optional>

namespace orx {

//! What tells whether a file, or anything in a directory, was changed, or what belongs to it beside it.
struct ORX_HALVANE_EXPORT ContentStamp {
    qint64 changedMs = 0; //!< last modification of any part, since the epoch
    qint64 bytes = 0;
    qint64 entries = 0;
    bool operator==(const ContentStamp&) const = default;
    //! \a companions: paths of files that count like \a path. Blocks; thread: any.
    static ContentStamp of(const QString& path, const QStringList& companions = {});
};

//! Decides from one look to the next whether something has come to rest. Clocks of file servers differ: what
//! seems to be of the future is at rest when it stayed the same for the quiet time. Pure.
class ORX_HALVANE_EXPORT QuietWatch {
public:
    using Milliseconds = std::chrono::milliseconds;
    enum class State { Quiet, Restless, GivenUp };
    struct Look {
        State state;
        Milliseconds nextIn; //!< when to look again, if restless
    };

    QuietWatch(Milliseconds quietTime, Milliseconds patience)
        : m_quietTime(quietTime), m_patience(patience) {}

    //! \a nowMs: since the epoch; \a waited: since the first look.
    Look look(const ContentStamp& stamp, qint64 nowMs, Milliseconds waited);

private:
    Milliseconds m_quietTime;
    Milliseconds m_patience;
    std::optional<ContentStamp> m_last;
    Milliseconds m_since{0}; //!< when the last stamp was first seen
};

} // namespace orx
