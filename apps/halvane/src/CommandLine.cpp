#include "CommandLine.h"

#include "ArgumentTexts.h"
#include "Completion.h"
#include "ManPage.h"
#include "PackedArguments.h"

#include <DownloadNames.h>
#include <ExitCodes.h>
#include <HalvaneResourceReference.h>
#include <LocalTree.h>
#include <MakeFolderTask.h>
#include <Profiles.h>
#include <Quantities.h>
#include <ResolveItemTask.h>

#include <CLI/CLI.hpp>

namespace halvane::cli {

using host::DownloadRequest;
using host::ExitCode;
using host::IfExists;
using host::IfTaken;
using host::MakeFolderTask;
using host::Profiles;
using host::ResolveItemTask;
using host::TreeUploadRequest;
using host::UploadRequest;
using orx::Error;

namespace {

//! What names a copy in the cache.
constexpr const char* kCopy = "Remote path, reference, or a place that \"halvane cache ls\" lists";

// The texts as the parser fills them in; they become typed values once all of them are known to be valid.
struct RawArguments {
    bool json = false;
    bool quiet = false;
    bool traceErrors = false;
    std::string profile;
    std::string traceFile;

    std::string url;
    std::string user;
    bool passwordFromStdin = false;
    std::string caFile;

    std::string path;
    bool parents = false;
    bool longFormat = false;

    std::vector<std::string> files;
    std::string target;
    std::string name;
    std::string alias;
    bool newVersion = false;
    bool checkVersion = false;
    std::vector<std::string> metadata;
    std::vector<std::string> sources;
    std::string ifExists = "ask";
    bool packed = false;
    std::string ifTaken;
    bool asFile = false;
    bool keepGoing = false;
    bool onlyMissing = false;
    bool dryRun = false;
    bool withoutCache = false;
    std::string maxSize;
    std::string maxAge;
    std::string shell;
};

std::string exitCodesFooter() {
    std::string text = "Exit codes:\n";
    for (const host::ExitCodeInfo& info : host::exitCodes()) {
        const std::string number = std::to_string(int(info.code));
        text += std::string(5 - number.size(), ' ') + number + "  " + info.meaning + "\n";
    }
    return text;
}

const char* mainFooter =
    R"(A remote item is written as a path (/raw/2026/run1.mzML) or as a reference: file:12, file:12@3 (version 3),
folder:7.

Examples:
  halvane login https://halvane.example.org --user anna
  halvane mkdir -p /raw/2026
  halvane put run1.mzML --to /raw/2026
  halvane ls -l /raw/2026
  halvane get /raw/2026/run1.mzML --to .
  halvane pack run1.d && halvane inspect run1.d.vonk

Environment:
  HALVANE_PROFILE         the profile to use when --profile is not given
  HALVANE_CONFIG_DIR      directory of settings, tokens, history and journal
  HALVANE_CACHE_DIR       directory of the cache
  HALVANE_CACHE_MAX_SIZE  what the cache may hold, such as 500M (default: 20G)
  HALVANE_CACHE_MAX_AGE   how long it keeps what nobody uses, such as 12h (default: 90d)
  HALVANE_TIMEOUT         how long a transfer may be silent before it is tried again (default: 60s)
)";

class Parser {
public:
    Parser() : m_app("Keeps measurements on a Halvane server.", "halvane") { addCommands(); }

    std::variant<CommandLine, CommandLineEnd> parse(int argc, char** argv) {
        try {
            m_app.parse(argc, argv);
            if (const auto text = textAboutCommands())
                return CommandLineEnd{0, QString::fromStdString(*text), m_raw.json};
            return commandLine();
        } catch (const CLI::ParseError& error) {
            return endOf(error, argc, argv);
        } catch (const UsageError& error) {
            return CommandLineEnd{int(ExitCode::Usage), error.message, m_raw.json};
        }
    }

private:
    void addCommands() {
        m_app.require_subcommand(1);
        m_app.fallthrough();
        m_app.set_version_flag("--version", std::string("halvane " HALVANE_VERSION), "Print the version");
        m_app.add_flag("--json", m_raw.json, "One JSON object a line for each item concerned");
        m_app.add_flag("-q,--quiet", m_raw.quiet, "Print nothing but results and errors");
        m_app.add_option("--profile", m_raw.profile, "Which server, as named at the login")
            ->type_name("NAME");
        m_app.add_flag("--trace-errors", m_raw.traceErrors,
                       "With an error, print the places it went through");
        m_app.add_option("--trace", m_raw.traceFile, "Write a trace of the uploads for a trace viewer")
            ->type_name("FILE");
        m_app.footer(mainFooter + std::string("\n") + exitCodesFooter());
        addSessionCommands();
        addFolderCommands();
        addPut();
        addGet();
        addQuestions();
        addCache();
        m_packed.addTo([this](const char* name, const char* description, const char* examples) {
            return addCommand(name, description, examples);
        });
        addTextsAboutCommands();
    }

    CLI::App* addCommand(const char* name, const char* description, const char* examples) {
        CLI::App* command = m_app.add_subcommand(name, description);
        command->fallthrough();
        command->footer(std::string("Examples:\n") + examples +
                        "\nThe options of every command and the exit codes: halvane --help\n");
        return command;
    }

    void addSessionCommands() {
        CLI::App* login =
            addCommand("login", "Log in at a server and make it the current one",
                       "  halvane login https://halvane.example.org --user anna\n"
                       "  halvane login http://127.0.0.1:8080 --user ci --password-stdin < password\n"
                       "  halvane --profile archive login https://archive.example.org --user anna\n"
                       "  halvane login https://lab.example.org --user anna --ca-file lab-ca.pem\n");
        login->add_option("URL", m_raw.url, "Address of the server, http or https")->required();
        login->add_option("--user", m_raw.user, "User name")->required()->type_name("NAME");
        login->add_flag("--password-stdin", m_raw.passwordFromStdin, "Read the password from standard input");
        login
            ->add_option("--ca-file", m_raw.caFile,
                         "Certificates (PEM) to trust beside the system's; kept with the login")
            ->type_name("FILE");
        addCommand("logout", "Make the login void, here and at the server", "  halvane logout\n");
        addCommand("whoami", "Show who is logged in, and where",
                   "  halvane whoami\n  halvane --json whoami\n");
    }

    void addFolderCommands() {
        CLI::App* mkdir = addCommand("mkdir", "Make a folder on the server",
                                     "  halvane mkdir /raw\n  halvane mkdir -p /raw/2026/march\n");
        mkdir->add_option("FOLDER", m_raw.path, "Remote path of the folder")->required();
        mkdir->add_flag("-p,--parents", m_raw.parents,
                        "Make missing folders above too; a folder that exists is no error");
        CLI::App* ls = addCommand("ls", "List a folder, or show one file",
                                  "  halvane ls\n  halvane ls -l /raw/2026\n  halvane --json ls folder:7\n");
        ls->add_option("REF", m_raw.target, "Remote path or reference (default: /)");
        ls->add_flag("-l,--long", m_raw.longFormat, "With reference, size, time and user");
    }

    void addPut() {
        CLI::App* put =
            addCommand("put", "Upload files and directories; an interrupted upload goes on where it stopped",
                       "  halvane put run1.mzML --to /raw/2026\n"
                       "  halvane put 2026 --to /raw --keep-going    (the directory becomes /raw/2026)\n"
                       "  halvane put *.raw --to /raw/2026 --if-exists keep-both --dry-run\n"
                       "  halvane put run1.mzML --to /raw/2026 --as first.mzML --metadata operator=anna\n"
                       "  halvane put run1.mzML --to /raw/2026 --new-version --check-version\n"
                       "  halvane put run1.mzML --to file:12        (a new version of that very file)\n");
        put->add_option("PATH", m_raw.files, "Local files, packed acquisitions, raw data and directories")
            ->required();
        put->add_option("--to", m_raw.target,
                        "Remote path or reference: a folder receives a file, a file a new version")
            ->required()
            ->type_name("REF");
        put->add_option("--as", m_raw.name, "Name on the server (default: the file's own)")
            ->type_name("NAME");
        put->add_option("--alias", m_raw.alias, "A further name kept with the version")->type_name("A");
        put->add_flag("--new-version", m_raw.newVersion,
                      "A file of the same name in the folder receives a new version (default: another file)");
        put->add_flag("--check-version", m_raw.checkVersion,
                      "Stop when the server has a newer version than this machine last had");
        put->add_option("--metadata", m_raw.metadata, "Extended metadata of the file; may be repeated")
            ->allow_extra_args(false)
            ->type_name("KEY=VALUE");
        put->add_flag("--no-cache", m_raw.withoutCache, "Do not keep a copy in the cache");
        put->add_flag("--as-file", m_raw.asFile, "Send raw data files as they are instead of packing them");
        put->add_option(
               "--if-exists", m_raw.ifTaken,
               "When the folder has a file of the name with another content: ask, new-version (default "
               "for directories and several paths), keep-both, skip or fail")
            ->check(CLI::IsMember({"ask", "new-version", "keep-both", "skip", "fail"}))
            ->type_name("WHAT");
        put->add_flag("--keep-going", m_raw.keepGoing, "Do not stop at the first failure");
        put->add_flag(
            "--retry", m_raw.onlyMissing,
            "Send only what failed or is missing; what an earlier run saw on the server, and nobody "
            "touched since, is not read again");
        put->add_flag("--dry-run", m_raw.dryRun, "Tell what would be sent, and send nothing");
    }

    void addGet() {
        CLI::App* get = addCommand(
            "get", "Download files and folders, verified; what is there already is not fetched again",
            "  halvane get /raw/2026/run1.mzML --to .\n"
            "  halvane get /raw/2026 --to data            (the folder becomes data/2026)\n"
            "  halvane get /raw/2026 file:12 --to data --if-exists rename\n"
            "  halvane get file:12@3 --to old.mzML\n"
            "  halvane get folder:7 --to data --as march\n"
            "  halvane get /raw/2026/run1.d.vonk --to .   (a packed acquisition becomes run1.d)\n"
            "  halvane get --packed /raw/2026/run1.d.vonk --to .\n");
        get->add_option("REF", m_raw.sources, "Remote paths or references of files and folders")->required();
        get->add_option("--to", m_raw.path, "A directory; for a single file also the path of the file to be")
            ->required()
            ->type_name("DIR");
        get->add_option("--as", m_raw.name, "Name in that directory, of a single REF (default: its own)")
            ->type_name("NAME");
        get->add_option("--if-exists", m_raw.ifExists,
                        "When another file is there: ask (default; fails without a terminal), overwrite, "
                        "skip, rename or fail")
            ->check(CLI::IsMember({"ask", "overwrite", "skip", "rename", "fail"}))
            ->type_name("WHAT");
        get->add_flag("--packed", m_raw.packed,
                      "Fetch packed acquisitions as the packed files that they are");
        get->add_flag("--no-cache", m_raw.withoutCache,
                      "Fetch from the server and keep no copy in the cache");
    }

    void addReference(CLI::App* command, const char* description) {
        command->add_option("REF", m_raw.target, description)->required();
    }

    void addQuestions() {
        addReference(addCommand("info", "Show what the server knows of a file or folder",
                                "  halvane info /raw/2026/run1.mzML\n  halvane --json info folder:7\n"),
                     "Remote path or reference");
        addReference(addCommand("siblings", "List the files of a file's folder, the file itself included",
                                "  halvane siblings file:12\n  halvane --json siblings /raw/run1.mzML\n"),
                     "Remote path or reference of a file");
        addReference(addCommand("exists", "Say yes (exit code 0) or no (exit code 6)",
                                "  halvane exists /raw/2026/run1.mzML\n"
                                "  halvane exists -q file:12@3 && echo there\n"),
                     "Remote path or reference");
        CLI::App* verify = addCommand("verify-name", "Compare a name with that of a file or folder",
                                      "  halvane verify-name file:12 run1.mzML\n"
                                      "  halvane verify-name folder:7 2026\n");
        addReference(verify, "Remote path or reference");
        verify->add_option("NAME", m_raw.name, "The name to be compared; letter case counts")->required();
    }

    CLI::App* addCacheCommand(const char* name, const char* description, const char* examples) {
        CLI::App* command = m_app.get_subcommand("cache")->add_subcommand(name, description);
        command->fallthrough();
        command->footer(std::string("Examples:\n") + examples);
        return command;
    }

    void addCache() {
        CLI::App* cache = addCommand("cache", "Look after the copies that this machine keeps",
                                     "  halvane cache ls\n  halvane cache prune --max-size 5G\n"
                                     "  halvane cache pin /raw/2026/run1.mzML\n");
        cache->require_subcommand(1);
        addCacheCommand("ls", "List what is in the cache", "  halvane cache ls\n  halvane --json cache ls\n");
        addReference(addCacheCommand("path", "Print where the copy of a file lies; it is not to be changed",
                                     "  halvane cache path file:12@3\n"),
                     kCopy);
        addCacheCommand("verify", "Read everything and remove what is damaged", "  halvane cache verify\n");
        CLI::App* prune = addCacheCommand("prune", "Remove what exceeds the limits, and leftovers",
                                          "  halvane cache prune\n"
                                          "  halvane cache prune --max-size 5G --max-age 30d\n");
        prune
            ->add_option("--max-size", m_raw.maxSize,
                         "What may stay, such as 500M or 20G; 0: nothing, "
                         "of interrupted downloads either")
            ->type_name("N");
        prune->add_option("--max-age", m_raw.maxAge, "Since the last use, such as 12h or 30d")
            ->type_name("D");
        addReference(addCacheCommand("pin", "Keep a copy whatever the limits say",
                                     "  halvane cache pin /raw/2026/run1.mzML\n"),
                     kCopy);
        addReference(addCacheCommand("unpin", "Let the limits apply to a copy again",
                                     "  halvane cache unpin file:12@3\n"),
                     kCopy);
    }

    void addTextsAboutCommands() {
        CLI::App* completion = addCommand("completion", "Print a script that lets a shell complete commands",
                                          "  source <(halvane completion bash)\n"
                                          "  halvane completion zsh > ~/.zfunc/_halvane\n"
                                          "  halvane completion fish | source\n");
        completion->add_option("SHELL", m_raw.shell, "bash, zsh or fish")
            ->required()
            ->check(CLI::IsMember(completionShells()));
        addCommand("man-page", "Print the manual page", "  halvane man-page | man -l -\n");
    }

    // For the commands that are about the commands: they end where they are read.
    std::optional<std::string> textAboutCommands() const {
        if (m_app.got_subcommand("completion"))
            return completionScript(m_raw.shell, commandShapes(m_app));
        if (m_app.got_subcommand("man-page"))
            return manPage(HALVANE_VERSION, commandShapes(m_app));
        return std::nullopt;
    }

    CommandLineEnd endOf(const CLI::ParseError& error, int argc, char** argv) const {
        std::ostringstream out;
        std::ostringstream err;
        if (m_app.exit(error, out, err) == 0)
            return {0, QString::fromStdString(out.str()), m_raw.json};
        const bool json = std::any_of(
            argv, argv + argc, [](const char* argument) { return std::string_view(argument) == "--json"; });
        return {
            int(ExitCode::Usage),
            QStringLiteral("%1. \"halvane --help\" tells more.").arg(QString::fromStdString(error.what())),
            json};
    }

    CommandLine commandLine() const {
        CommandLine line;
        line.global.json = m_raw.json;
        line.global.quiet = m_raw.quiet;
        line.global.traceErrors = m_raw.traceErrors;
        line.global.profile = textOf(m_raw.profile, "The profile's name");
        line.global.traceFile = textOf(m_raw.traceFile, "The trace file's path");
        if (!line.global.profile.isEmpty())
            require(Profiles::checkName(line.global.profile));
        line.command = command();
        return line;
    }

    Command command() const {
        const std::string name = m_app.get_subcommands().front()->get_name();
        if (name == "login")
            return login();
        if (name == "logout")
            return LogoutCommand{};
        if (name == "whoami")
            return WhoAmICommand{};
        if (name == "mkdir")
            return mkdir();
        if (name == "ls")
            return ls();
        if (name == "put")
            return put();
        if (name == "get")
            return get();
        if (name == "info")
            return InfoCommand{reference()};
        if (name == "siblings")
            return SiblingsCommand{reference()};
        if (name == "exists")
            return ExistsCommand{reference()};
        if (name == "verify-name")
            return VerifyNameCommand{reference(), filledTextOf(m_raw.name, "NAME")};
        if (const auto packed = m_packed.command(name))
            return *packed;
        return cache();
    }

    QString reference() const {
        const QString text = filledTextOf(m_raw.target, "REF");
        require(ResolveItemTask::checkText(text));
        return text;
    }

    CacheCommand cache() const {
        using Action = CacheCommand::Action;
        static const std::map<std::string, Action> actions{
            {"ls", Action::List},     {"path", Action::Path}, {"verify", Action::Verify},
            {"prune", Action::Prune}, {"pin", Action::Pin},   {"unpin", Action::Unpin}};
        const CLI::App* chosen = m_app.get_subcommand("cache")->get_subcommands().front();
        CacheCommand command;
        command.action = actions.at(chosen->get_name());
        if (command.action == Action::Path || command.action == Action::Pin ||
            command.action == Action::Unpin) {
            const QString text = filledTextOf(m_raw.target, "REF");
            const bool isRemote = text.startsWith(u'/') || !text.contains(u'/') ||
                                  orx::HalvaneReferenceText::looksLikeReference(text);
            (isRemote ? command.reference : command.subPath) = isRemote ? reference() : text;
        }
        if (command.action == Action::Prune)
            command.limits = limits(*chosen);
        return command;
    }

    orx::ResourceCache::Limits limits(const CLI::App& prune) const {
        orx::ResourceCache::Limits limits;
        if (prune.count("--max-size") > 0) {
            const auto size = host::parseSize(textOf(m_raw.maxSize, "--max-size"));
            require(size.error());
            limits.maxBytes = size.value();
        }
        if (prune.count("--max-age") > 0) {
            const auto age = host::parseAge(textOf(m_raw.maxAge, "--max-age"));
            require(age.error());
            limits.maxAge = age.value();
        }
        return limits;
    }

    LoginCommand login() const {
        const auto url = Profiles::parseServerUrl(textOf(m_raw.url, "The address"));
        require(url.error());
        return {url.value(), filledTextOf(m_raw.user, "The user name"), m_raw.passwordFromStdin, caFile()};
    }

    QString caFile() const {
        const bool given = m_app.get_subcommand("login")->count("--ca-file") > 0;
        return given ? filledTextOf(m_raw.caFile, "--ca-file") : QString();
    }

    MkdirCommand mkdir() const {
        const QString path = filledTextOf(m_raw.path, "The path");
        require(MakeFolderTask::checkPath(path).error());
        return {path, m_raw.parents};
    }

    LsCommand ls() const {
        const QString reference = m_raw.target.empty() ? QStringLiteral("/") : textOf(m_raw.target, "REF");
        require(ResolveItemTask::checkText(reference));
        return {reference, m_raw.longFormat};
    }

    PutCommand put() const {
        const CLI::App& put = *m_app.get_subcommand("put");
        PutCommand command;
        command.tree = treeRequest();
        command.dryRun = m_raw.dryRun;
        command.isTree =
            m_raw.files.size() > 1 || !m_raw.ifTaken.empty() || m_raw.onlyMissing || m_raw.dryRun;
        for (const char* option : {"--as", "--alias", "--metadata"}) {
            if (command.isTree && put.count(option) > 0)
                throw UsageError{
                    QStringLiteral("%1 is for a single file that is put without --if-exists, --retry "
                                   "and --dry-run.")
                        .arg(QLatin1String(option))};
        }
        UploadRequest& request = command.single;
        request.localPath = host::namedPath(command.tree.paths.first());
        request.target = command.tree.target;
        request.name = put.count("--as") > 0 ? filledTextOf(m_raw.name, "--as") : QString();
        request.alias = textOf(m_raw.alias, "--alias");
        if (m_raw.newVersion)
            request.versioning = UploadRequest::Versioning::NewVersionByName;
        request.checkVersion = m_raw.checkVersion;
        request.keepInCache = !m_raw.withoutCache;
        request.asFile = m_raw.asFile;
        if (!m_raw.metadata.empty())
            request.metadata = metadata();
        return command;
    }

    TreeUploadRequest treeRequest() const {
        static const std::map<std::string, IfTaken> choices{{"ask", IfTaken::Ask},
                                                            {"new-version", IfTaken::NewVersion},
                                                            {"keep-both", IfTaken::KeepBoth},
                                                            {"skip", IfTaken::Skip},
                                                            {"fail", IfTaken::Fail}};
        TreeUploadRequest request;
        for (const std::string& file : m_raw.files)
            request.paths.append(filledTextOf(file, "PATH"));
        request.target = filledTextOf(m_raw.target, "--to");
        require(ResolveItemTask::checkText(request.target));
        if (!m_raw.ifTaken.empty())
            request.ifTaken = choices.at(m_raw.ifTaken);
        if (m_raw.newVersion && request.ifTaken != IfTaken::NewVersion)
            throw UsageError{QStringLiteral("--new-version and --if-exists contradict each other.")};
        request.checkVersion = m_raw.checkVersion;
        request.keepGoing = m_raw.keepGoing;
        request.onlyMissing = m_raw.onlyMissing;
        request.asFile = m_raw.asFile;
        request.keepInCache = !m_raw.withoutCache;
        return request;
    }

    QList<orx::HalvaneCompactExtendedMetaDataValue> metadata() const {
        QList<orx::HalvaneCompactExtendedMetaDataValue> values;
        for (const std::string& argument : m_raw.metadata) {
            const QString text = textOf(argument, "--metadata");
            const qsizetype equals = text.indexOf(u'=');
            if (equals <= 0)
                throw UsageError{QStringLiteral("--metadata needs KEY=VALUE, and \"%1\" is not.").arg(text)};
            values.append({text.left(equals), text.mid(equals + 1)});
        }
        return values;
    }

    GetCommand get() const {
        static const std::map<std::string, IfExists> choices{{"ask", IfExists::Ask},
                                                             {"overwrite", IfExists::Overwrite},
                                                             {"skip", IfExists::Skip},
                                                             {"rename", IfExists::Rename},
                                                             {"fail", IfExists::Fail}};
        DownloadRequest request;
        for (const std::string& argument : m_raw.sources) {
            request.sources.append(filledTextOf(argument, "REF"));
            require(ResolveItemTask::checkText(request.sources.last()));
        }
        request.targetPath = filledTextOf(m_raw.path, "--to");
        if (m_app.get_subcommand("get")->count("--as") > 0) {
            request.name = filledTextOf(m_raw.name, "--as");
            require(orx::DownloadNames::check(request.name));
            if (request.sources.size() > 1)
                throw UsageError{QStringLiteral("--as names a single REF, and %1 were given.")
                                     .arg(request.sources.size())};
        }
        request.ifExists = choices.at(m_raw.ifExists);
        request.packed = m_raw.packed;
        request.useCache = !m_raw.withoutCache;
        return {request};
    }

    RawArguments m_raw;
    PackedArguments m_packed;
    CLI::App m_app;
};

} // namespace

std::variant<CommandLine, CommandLineEnd> parseCommandLine(int argc, char** argv) {
    return Parser().parse(argc, argv);
}

} // namespace halvane::cli
