// What the commands look like, for those who describe them to others: completions and the manual page.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace halvane::cli {

struct OptionShape {
    //! With their dashes, the short ones first; for a positional argument its one name.
    std::vector<std::string> names;
    std::string description;
    //! What its value is called, such as "FILE"; empty when it takes none.
    std::string value;
    //! The values it takes, when these are a few words.
    std::vector<std::string> choices;
    bool isRequired = false;
    bool isRepeatable = false;

    //! Whether its value, or itself when it is positional, is the path of something on this machine.
    bool isLocalPath() const;
};

struct CommandShape {
    //! "cache prune"; empty for the program itself, whose options every command has.
    std::string name;
    std::string description;
    std::string footer;
    std::vector<OptionShape> options;
    std::vector<OptionShape> positionals;
    //! The last words of the commands below it.
    std::vector<std::string> subcommands;
};

//! The program first, then all commands in the order of the help, each followed by those below it.
std::vector<CommandShape> commandShapes(const CLI::App& program);

} // namespace halvane::cli
