#include "ManPage.h"

#include <sstream>

namespace halvane::cli {

namespace {

// Dashes are typed as they stand, and a line never begins with what troff takes for a request.
std::string troff(const std::string& text) {
    std::string result;
    for (const char c : text) {
        if (c == '\\')
            result += "\\e";
        else if (c == '-')
            result += "\\-";
        else if ((c == '.' || c == '\'') && (result.empty() || result.back() == '\n'))
            result += std::string("\\&") + c;
        else
            result += c;
    }
    return result;
}

std::string argument(const OptionShape& option) {
    std::string text = "\\fI" + troff(option.value) + "\\fR" + (option.isRepeatable ? "..." : "");
    return option.isRequired ? text : "[" + text + "]";
}

std::string optionHead(const OptionShape& option) {
    std::string text;
    for (const std::string& name : option.names)
        text += (text.empty() ? "" : ", ") + ("\\fB" + troff(name) + "\\fR");
    if (!option.value.empty())
        text += " \\fI" + troff(option.value) + "\\fR";
    return text;
}

std::string synopsis(const CommandShape& command) {
    std::string text = "\\fBhalvane " + troff(command.name) + "\\fR";
    for (const OptionShape& option : command.positionals)
        text += " " + argument(option);
    for (const OptionShape& option : command.options)
        if (option.isRequired)
            text += " " + optionHead(option);
    if (!command.subcommands.empty())
        text += " \\fICOMMAND\\fR";
    return text + " [\\fIoptions\\fR]";
}

std::string described(const std::string& head, const std::string& description) {
    return ".TP\n" + head + "\n" + troff(description) + ".\n";
}

std::string options(const CommandShape& command) {
    std::string text;
    for (const OptionShape& option : command.positionals)
        text += described("\\fI" + troff(option.value) + "\\fR", option.description);
    for (const OptionShape& option : command.options)
        text += described(optionHead(option), option.description);
    return text;
}

std::string literal(const std::string& text) {
    return ".PP\n.nf\n" + troff(text) + (text.ends_with('\n') ? "" : "\n") + ".fi\n";
}

std::string commandSection(const CommandShape& command) {
    return ".SS " + troff(command.name) + "\n" + synopsis(command) + "\n.PP\n" + troff(command.description) +
           ".\n" + options(command) + literal(command.footer);
}

} // namespace

std::string manPage(const std::string& version, const std::vector<CommandShape>& commands) {
    const CommandShape& program = commands.front();
    std::string text = ".TH HALVANE 1 \"\" \"halvane " + version + "\" \"User Commands\"\n";
    text += ".SH NAME\nhalvane \\- keeps measurements on a Halvane server\n";
    text += ".SH SYNOPSIS\n\\fBhalvane\\fR [\\fIoptions\\fR] \\fICOMMAND\\fR [\\fIarguments\\fR]\n";
    text += ".SH OPTIONS\nEvery command has these.\n" + options(program);
    text += ".SH COMMANDS\n";
    for (const CommandShape& command : commands)
        if (!command.name.empty())
            text += commandSection(command);
    return text + ".SH NOTES\n" + literal(program.footer);
}

} // namespace halvane::cli
