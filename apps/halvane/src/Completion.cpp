#include "Completion.h"

#include <algorithm>
#include <functional>
#include <map>

namespace halvane::cli {

namespace {

using Commands = std::vector<CommandShape>;

std::string joined(const std::vector<std::string>& words, const char* separator = " ") {
    std::string text;
    for (const std::string& word : words)
        text += (text.empty() ? "" : separator) + word;
    return text;
}

std::vector<std::string> optionNames(const CommandShape& command) {
    std::vector<std::string> names;
    for (const OptionShape& option : command.options)
        names.insert(names.end(), option.names.begin(), option.names.end());
    return names;
}

bool takesLocalPaths(const CommandShape& command) {
    return std::any_of(command.positionals.begin(), command.positionals.end(),
                       [](const OptionShape& argument) { return argument.isLocalPath(); });
}

std::string escaped(const std::string& text, const std::string& special, const std::string& before) {
    std::string result;
    for (const char c : text) {
        if (special.find(c) != std::string::npos)
            result += before;
        result += c;
    }
    return result;
}

// ------------------------------------------------------------------------------------------------ bash

// What may follow an option: its choices, a path, or something only the user knows.
std::string bashValues(const OptionShape& option) {
    if (!option.choices.empty())
        return "COMPREPLY=($(compgen -W \"" + joined(option.choices) + "\" -- \"$current\"))";
    if (option.value == "DIR")
        return "_halvane_paths -d";
    return option.isLocalPath() ? "_halvane_paths -f" : ":";
}

std::string bashValueCases(const Commands& commands) {
    std::string cases;
    for (const CommandShape& command : commands) {
        for (const OptionShape& option : command.options) {
            if (option.value.empty())
                continue;
            std::vector<std::string> patterns;
            for (const std::string& name : option.names)
                patterns.push_back(command.name.empty() ? "*\" " + name + "\""
                                                        : "\"" + command.name + " " + name + "\"");
            cases += "        " + joined(patterns, " | ") + ") " + bashValues(option) + "; return ;;\n";
        }
    }
    return cases;
}

// What a command's next word may be, as far as that is known.
std::vector<std::string> nextWords(const CommandShape& command) {
    std::vector<std::string> words = command.subcommands;
    for (const OptionShape& argument : command.positionals)
        words.insert(words.end(), argument.choices.begin(), argument.choices.end());
    return words;
}

std::string bashWordCases(const Commands& commands) {
    std::string cases;
    for (const CommandShape& command : commands) {
        cases += "        \"" + command.name + "\") options=\"" + joined(optionNames(command)) +
                 "\" words=\"" + joined(nextWords(command)) +
                 "\" paths=" + (takesLocalPaths(command) ? "yes" : "no") + " ;;\n";
    }
    return cases;
}

std::string bashNames(const Commands& commands) {
    std::vector<std::string> names;
    for (const CommandShape& command : commands)
        if (!command.name.empty())
            names.push_back("\"" + command.name + "\"");
    return joined(names, " | ");
}

std::string bashScript(const Commands& commands) {
    return R"(# Completion of halvane for bash: source <(halvane completion bash)
_halvane_paths() {
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen "$1" -- "$current")
}

_halvane() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local command="" candidate i options words paths
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        candidate="${command:+$command }${COMP_WORDS[i]}"
        case "$candidate" in
        )" +
           bashNames(commands) +
           R"() command=$candidate ;;
        esac
    done
    case "$command $previous" in
)" + bashValueCases(commands) +
           R"(    esac
    case "$command" in
)" + bashWordCases(commands) +
           R"(    esac
    if [[ $current == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options )" +
           joined(optionNames(commands.front())) +
           R"(" -- "$current")
    elif [[ $paths == yes ]]; then
        _halvane_paths -f
    else
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
    fi
}
complete -F _halvane halvane
)";
}

// ------------------------------------------------------------------------------------------------- zsh

std::string zshText(const std::string& text) {
    return escaped(escaped(text, "[]:", "\\"), "'", "'\\'");
}

std::string zshAction(const OptionShape& option) {
    if (!option.choices.empty())
        return "(" + joined(option.choices) + ")";
    if (option.value == "DIR")
        return "_files -/";
    return option.isLocalPath() ? "_files" : " ";
}

std::string zshOption(const OptionShape& option) {
    std::string text;
    for (const std::string& name : option.names) {
        text += " '" + std::string(option.isRepeatable ? "*" : "") + name + "[" +
                zshText(option.description) + "]";
        if (!option.value.empty())
            text += ":" + option.value + ":" + zshAction(option);
        text += "'";
    }
    return text;
}

std::string zshArguments(const CommandShape& command) {
    std::string text;
    for (const OptionShape& option : command.options)
        text += zshOption(option);
    for (const OptionShape& argument : command.positionals)
        text += std::string(" '") + (argument.isRepeatable ? "*" : "") + ":" + argument.value + ":" +
                zshAction(argument) + "'";
    return text;
}

const CommandShape& named(const Commands& commands, const std::string& name) {
    return *std::find_if(commands.begin(), commands.end(),
                         [&](const CommandShape& command) { return command.name == name; });
}

std::string zshFunctionName(const CommandShape& command) {
    std::string name = "_halvane";
    if (!command.name.empty())
        name += "_" + command.name;
    std::replace(name.begin(), name.end(), ' ', '_');
    return name;
}

// A command that has commands below it: says which there are, and hands on to the one that was chosen.
std::string zshGroup(const Commands& commands, const CommandShape& command, bool isProgram) {
    const std::string prefix = isProgram ? std::string() : command.name + " ";
    std::string text = "    local -a below=(";
    for (const std::string& word : command.subcommands)
        text += " '" + word + ":" + zshText(named(commands, prefix + word).description) + "'";
    text += ")\n    local context state state_descr line\n    _arguments -C $halvane_options";
    text += isProgram ? std::string() : zshArguments(command);
    text += " '1: :->command' '*:: :->arguments'\n    case $state in\n";
    text += "        command) _describe -t commands command below ;;\n        arguments)\n            case "
            "$words[1] in\n";
    for (const std::string& word : command.subcommands)
        text += "                " + word + ") " + zshFunctionName(named(commands, prefix + word)) + " ;;\n";
    return text + "            esac ;;\n    esac\n";
}

std::string zshScript(const Commands& commands) {
    std::string text = "#compdef halvane\n# Completion of halvane for zsh: halvane completion zsh > a "
                       "directory of $fpath, named _halvane\n";
    text += "typeset -ga halvane_options=(" + zshArguments(commands.front()) + ")\n";
    for (const CommandShape& command : commands) {
        text += "\n" + zshFunctionName(command) + "() {\n";
        text += command.subcommands.empty() ? "    _arguments $halvane_options" + zshArguments(command) + "\n"
                                            : zshGroup(commands, command, command.name.empty());
        text += "}\n";
    }
    return text + "\nif [ \"$funcstack[1]\" = \"_halvane\" ]; then _halvane \"$@\"; else compdef _halvane "
                  "halvane; fi\n";
}

// ------------------------------------------------------------------------------------------------ fish

std::string fishText(const std::string& text) {
    return "'" + escaped(text, "\\'", "\\") + "'";
}

// When the words so far are those of this command.
std::string fishCondition(const CommandShape& command) {
    if (command.name.empty())
        return {};
    std::string condition = "__fish_seen_subcommand_from ";
    const std::size_t space = command.name.find(' ');
    if (space == std::string::npos)
        return " -n " + fishText(condition + command.name);
    return " -n " + fishText(condition + command.name.substr(0, space) + "; and " + condition +
                             command.name.substr(space + 1));
}

std::string fishOption(const OptionShape& option) {
    std::string text;
    for (const std::string& name : option.names)
        text += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
    if (!option.value.empty())
        text += option.isLocalPath() ? " -r -F" : " -x";
    if (!option.choices.empty())
        text += " -a " + fishText(joined(option.choices));
    return text + " -d " + fishText(option.description);
}

std::string fishSubcommands(const Commands& commands, const CommandShape& command) {
    std::string text;
    const std::string prefix = command.name.empty() ? std::string() : command.name + " ";
    const std::string condition = command.name.empty() ? "__fish_use_subcommand"
                                                       : "__fish_seen_subcommand_from " + command.name +
                                                             "; and not __fish_seen_subcommand_from " +
                                                             joined(command.subcommands);
    for (const std::string& word : command.subcommands)
        text += "complete -c halvane -f -n " + fishText(condition) + " -a " + word + " -d " +
                fishText(named(commands, prefix + word).description) + "\n";
    return text;
}

std::string fishScript(const Commands& commands) {
    std::string text =
        "# Completion of halvane for fish: halvane completion fish | source\ncomplete -c halvane -f\n";
    for (const CommandShape& command : commands) {
        text += fishSubcommands(commands, command);
        for (const OptionShape& argument : command.positionals)
            if (!argument.choices.empty())
                text += "complete -c halvane -f" + fishCondition(command) + " -a " +
                        fishText(joined(argument.choices)) + "\n";
        if (takesLocalPaths(command))
            text += "complete -c halvane -F" + fishCondition(command) + "\n";
        for (const OptionShape& option : command.options)
            text += "complete -c halvane" + fishCondition(command) + fishOption(option) + "\n";
    }
    return text;
}

using Writer = std::string (*)(const Commands&);

const std::map<std::string, Writer>& writers() {
    static const std::map<std::string, Writer> all{
        {"bash", bashScript}, {"zsh", zshScript}, {"fish", fishScript}};
    return all;
}

} // namespace

const std::vector<std::string>& completionShells() {
    static const std::vector<std::string> shells{"bash", "zsh", "fish"};
    return shells;
}

std::string completionScript(const std::string& shell, const std::vector<CommandShape>& commands) {
    return writers().at(shell)(commands);
}

} // namespace halvane::cli
