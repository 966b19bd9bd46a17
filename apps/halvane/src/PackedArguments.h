#pragma once

#include "CommandLine.h"

#include <functional>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace halvane::cli {

//! The arguments of the commands that work on packed acquisitions on this machine. Outlives the parser that
//! fills it in.
class PackedArguments {
public:
    using AddCommand =
        std::function<CLI::App*(const char* name, const char* description, const char* examples)>;

    void addTo(const AddCommand& addCommand);
    //! The command \a name with its arguments; nothing when it is none of these. Throws a UsageError.
    std::optional<Command> command(const std::string& name) const;

private:
    InspectCommand inspect() const;

    std::string m_path;
    std::string m_output;
    std::string m_directory;
    std::string m_plot;
    bool m_full = false;
    bool m_longFormat = false;
};

} // namespace halvane::cli
