#pragma once

#include "Client.h"

#include <string>

#include <sys/types.h>

namespace orx::testing {

//! The command-line host on a pseudo terminal of its own; killed when the object goes.
class Terminal {
public:
    Terminal(const Client& client, const QStringList& arguments);
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    //! Reads until \a text has come after what was waited for before; false when the program ended without.
    bool waitFor(const std::string& text);
    void type(const std::string& text) const;
    bool echoes() const;
    //! Reads to the end; the exit code.
    int finish();
    //! Everything that was read.
    const std::string& seen() const { return m_seen; }

private:
    bool readMore();

    int m_master = -1;
    pid_t m_child = -1;
    std::string m_seen;
    size_t m_waitedFor = 0;
};

} // namespace orx::testing
