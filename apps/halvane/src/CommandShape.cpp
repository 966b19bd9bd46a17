#include "CommandShape.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace halvane::cli {

namespace {

// "WHAT:{ask,fail}" is the value WHAT with two choices.
void readValue(OptionShape& shape, const std::string& typeName) {
    const std::size_t open = typeName.find(":{");
    shape.value = typeName.substr(0, open);
    if (open == std::string::npos)
        return;
    std::istringstream choices(typeName.substr(open + 2, typeName.size() - open - 3));
    for (std::string choice; std::getline(choices, choice, ',');)
        shape.choices.push_back(choice);
}

OptionShape shapeOf(const CLI::Option& option) {
    OptionShape shape;
    shape.description = option.get_description();
    shape.isRequired = option.get_required();
    shape.isRepeatable = option.get_expected_max() > 1;
    if (option.get_positional()) {
        readValue(shape, option.get_type_name());
        shape.names = {option.get_name(true)};
        shape.value = shape.names.front();
        return shape;
    }
    for (const std::string& name : option.get_snames())
        shape.names.push_back("-" + name);
    for (const std::string& name : option.get_lnames())
        shape.names.push_back("--" + name);
    if (option.get_type_size() != 0)
        readValue(shape, option.get_type_name());
    return shape;
}

void append(std::vector<CommandShape>& shapes, const CLI::App& command, const std::string& name) {
    CommandShape shape;
    shape.name = name;
    shape.description = command.get_description();
    shape.footer = command.get_footer();
    for (const CLI::Option* option : command.get_options()) {
        // The program's own --help is among the options that every command has.
        if (option == command.get_help_ptr() && !name.empty())
            continue;
        (option->get_positional() ? shape.positionals : shape.options).push_back(shapeOf(*option));
    }
    const auto below = command.get_subcommands([](const CLI::App*) { return true; });
    for (const CLI::App* subcommand : below)
        shape.subcommands.push_back(subcommand->get_name());
    shapes.push_back(std::move(shape));
    for (const CLI::App* subcommand : below)
        append(shapes, *subcommand,
               name.empty() ? subcommand->get_name() : name + " " + subcommand->get_name());
}

} // namespace

bool OptionShape::isLocalPath() const {
    return value == "FILE" || value == "DIR" || value == "PATH";
}

std::vector<CommandShape> commandShapes(const CLI::App& program) {
    std::vector<CommandShape> shapes;
    append(shapes, program, {});
    return shapes;
}

} // namespace halvane::cli
