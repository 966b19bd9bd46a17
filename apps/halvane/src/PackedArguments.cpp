#include "PackedArguments.h"

#include "ArgumentTexts.h"

#include <RunPlot.h>

#include <CLI/CLI.hpp>

namespace halvane::cli {

void PackedArguments::addTo(const AddCommand& addCommand) {
    CLI::App* pack = addCommand("pack", "Pack a raw acquisition into one compressed file",
                                "  halvane pack run1.d                      # makes run1.d.vonk beside it\n"
                                "  halvane pack run1.mzML -o /archive       # makes /archive/run1.mzML.vonk\n"
                                "  halvane pack run1.imzML -o brain.vonk    # with run1.ibd\n");
    pack->add_option("PATH", m_path, "Raw data: a file or directory")->required();
    pack->add_option("-o,--output", m_output, "The file to be made, or the directory for it")
        ->type_name("FILE");

    CLI::App* unpack = addCommand("unpack", "Give back the raw data of a packed acquisition",
                                  "  halvane unpack run1.d.vonk --to .        # makes ./run1.d\n"
                                  "  halvane --json unpack run1.d.vonk --to /data\n");
    unpack->add_option("FILE", m_path, "A packed acquisition")->required();
    unpack->add_option("--to", m_directory, "The directory for it; made when it does not exist")
        ->type_name("DIR")
        ->required();

    CLI::App* inspect =
        addCommand("inspect", "Show what is known of a packed acquisition or of raw data",
                   "  halvane inspect run1.d.vonk\n"
                   "  halvane inspect -l run1.d.vonk           # with what is in it\n"
                   "  halvane inspect run1.mzML --plot run1.svg\n"
                   "  halvane inspect /raw/2026/run1.d.vonk    # on the server, without fetching it\n"
                   "  halvane --json inspect run1.d.vonk\n");
    inspect
        ->add_option("FILE", m_path,
                     "A packed acquisition, or raw data; or remote path or reference of a packed acquisition")
        ->required();
    inspect->add_flag("-l,--long", m_longFormat, "List the files in it too");
    inspect->add_option("--plot", m_plot, "Draw the ion current over time into a new .svg or .png file")
        ->type_name("FILE");

    CLI::App* check = addCommand("check", "Check a packed acquisition for damage",
                                 "  halvane check run1.d.vonk                # structure only: at once\n"
                                 "  halvane check --full run1.d.vonk         # every byte\n"
                                 "  halvane check --full -q run1.d.vonk || echo damaged\n");
    check->add_option("FILE", m_path, "A packed acquisition")->required();
    check->add_flag("--full", m_full, "Read every byte and compare all checksums");

    CLI::App* upgrade =
        addCommand("upgrade", "Bring a packed acquisition to the current format",
                   "  halvane upgrade old.vonk                 # takes the place of the old file\n"
                   "  halvane upgrade old.vonk -o new.vonk     # leaves the old file alone\n");
    upgrade->add_option("FILE", m_path, "A packed acquisition")->required();
    upgrade->add_option("-o,--output", m_output, "The new file to be made instead")->type_name("FILE");
}

std::optional<Command> PackedArguments::command(const std::string& name) const {
    if (name == "pack")
        return PackCommand{filledTextOf(m_path, "PATH"), textOf(m_output, "-o")};
    if (name == "unpack")
        return UnpackCommand{filledTextOf(m_path, "FILE"), filledTextOf(m_directory, "--to")};
    if (name == "inspect")
        return inspect();
    if (name == "check")
        return CheckCommand{filledTextOf(m_path, "FILE"), m_full};
    if (name == "upgrade")
        return UpgradeCommand{filledTextOf(m_path, "FILE"), textOf(m_output, "-o")};
    return std::nullopt;
}

InspectCommand PackedArguments::inspect() const {
    InspectCommand command{filledTextOf(m_path, "FILE"), m_longFormat, textOf(m_plot, "--plot")};
    if (!command.plotPath.isEmpty() && !host::plotFormatOf(command.plotPath))
        throw UsageError{
            QStringLiteral("--plot draws .svg and .png files, and \"%1\" is neither.").arg(command.plotPath)};
    return command;
}

} // namespace halvane::cli
