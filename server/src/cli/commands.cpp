#include "cli/commands.h"

#include "api/api.h"
#include "cli/data_directory.h"
#include "cli/serve.h"
#include "core/names.h"

#include <CLI/CLI.hpp>
#include <iostream>

namespace halvane::server {

namespace {

constexpr const char* exitCodes =
    "Exit codes: 0 done; 1 failed; 2 wrong usage; 3 refused (prepared already, in use, unknown group or "
    "folder, name taken, invalid name).";

struct AccountOptions {
    std::string data;
    std::string name;
    bool isAdmin = false;
    bool passwordOnStdin = false;
    std::vector<std::string> groups;
    PasswordCost cost;
};

// Everything up to the first line break, so that `echo` and `printf` both do.
std::string passwordFromStdin() {
    std::string password;
    std::getline(std::cin, password);
    if (!password.empty() && password.back() == '\r')
        password.pop_back();
    return password;
}

std::string footer(const std::string& examples) {
    return "Examples:\n" + examples + "\n" + exitCodes;
}

void addData(CLI::App& command, std::string& data) {
    command.add_option("--data", data, "The data directory")->required()->type_name("DIR");
}

void addPassword(CLI::App& command, AccountOptions& options) {
    command
        .add_flag("--password-stdin", options.passwordOnStdin,
                  "Read the password from the first line of standard input")
        ->required();
}

void addInit(CLI::App& app) {
    auto options = std::make_shared<AccountOptions>();
    CLI::App* command = app.add_subcommand("init", "Prepare a data directory");
    addData(*command, options->data);
    command->add_option("--admin", options->name, "The name of the first administrator")
        ->required()
        ->type_name("NAME");
    addPassword(*command, *options);
    command
        ->add_option("--password-memory-kib", options->cost.memoryKib,
                     "Memory that checking a password takes (Argon2id)")
        ->capture_default_str()
        ->check(CLI::Range(8u, 4u * 1024 * 1024));
    command->add_option("--password-passes", options->cost.passes, "Passes over that memory")
        ->capture_default_str()
        ->check(CLI::Range(1u, 1000u));
    command->footer(footer("  printf '%s' \"$PASSWORD\" | halvane-server init --data /srv/halvane --admin "
                           "root --password-stdin\n"));
    command->callback([options] {
        initialiseDataDirectory(options->data, options->name, passwordFromStdin(), options->cost);
        std::cout << "Prepared " << options->data << " with the administrator " << options->name << ".\n";
    });
}

void addUser(CLI::App& app) {
    auto options = std::make_shared<AccountOptions>();
    CLI::App* command = app.add_subcommand("user", "Manage users")
                            ->require_subcommand(1)
                            ->add_subcommand("add", "Add a user");
    addData(*command, options->data);
    command->add_option("--name", options->name, "The user's name")->required()->type_name("NAME");
    command->add_flag("--admin", options->isAdmin, "An administrator may do everything");
    addPassword(*command, *options);
    command->add_option("--group", options->groups, "A group that the user belongs to; may be repeated")
        ->type_name("GROUP");
    command->footer(footer("  printf '%s' \"$PASSWORD\" | halvane-server user add --data /srv/halvane --name "
                           "anna --group lab --password-stdin\n"));
    command->callback([options] {
        const std::string password = passwordFromStdin();
        requireAccount(options->name, password);
        const auto catalog = openCatalog(options->data);
        const std::string hash = hashPassword(password, Accounts::storedCost(*catalog));
        const Id id = catalog->createUser({options->name, hash, options->isAdmin, options->groups});
        std::cout << "Added the user " << options->name << " with the id " << id << ".\n";
    });
}

void addGroup(CLI::App& app) {
    auto options = std::make_shared<AccountOptions>();
    CLI::App* command = app.add_subcommand("group", "Manage groups")
                            ->require_subcommand(1)
                            ->add_subcommand("add", "Add a group");
    addData(*command, options->data);
    command->add_option("--name", options->name, "The group's name")->required()->type_name("NAME");
    command->footer(footer("  halvane-server group add --data /srv/halvane --name lab\n"));
    command->callback([options] {
        requireValidName(options->name, "group name");
        const Id id = openCatalog(options->data)->createGroup(options->name);
        std::cout << "Added the group " << options->name << " with the id " << id << ".\n";
    });
}

void addGrant(CLI::App& app) {
    struct GrantOptions {
        std::string data;
        Id folder = 0;
        std::string group;
        std::string privileges;
    };
    auto options = std::make_shared<GrantOptions>();
    CLI::App* command =
        app.add_subcommand("grant", "Give a group privileges on a folder and everything below it");
    addData(*command, options->data);
    command->add_option("--folder", options->folder, "The folder's id; 1 is the root")
        ->required()
        ->type_name("ID");
    command->add_option("--group", options->group, "The group's name")->required()->type_name("GROUP");
    command
        ->add_option("--privileges", options->privileges,
                     "1 read, 2 add files and versions, 3 create folders, 4 remove, 5 manage")
        ->required()
        ->type_name("LIST");
    command->footer(
        footer("  halvane-server grant --data /srv/halvane --folder 1 --group lab --privileges 1,2,3\n") +
        "\nA folder with privileges of its own no longer inherits those of the folders above it.");
    command->callback([options] {
        const auto privileges = PrivilegeSet::parse(options->privileges);
        if (!privileges)
            throw CLI::ValidationError("--privileges", "must be a list such as 1,2,3 of the values 1 to 5");
        openCatalog(options->data)->grant(options->folder, options->group, *privileges);
        std::cout << "The group " << options->group << " has the privileges " << privileges->text()
                  << " on the folder " << options->folder << ".\n";
    });
}

void addFolder(CLI::App& app) {
    struct RemoveOptions {
        std::string data;
        Id folder = 0;
    };
    auto options = std::make_shared<RemoveOptions>();
    CLI::App* command = app.add_subcommand("folder", "Manage folders")
                            ->require_subcommand(1)
                            ->add_subcommand("remove", "Remove a folder with everything in it, for good");
    addData(*command, options->data);
    command->add_option("--folder", options->folder, "The folder's id")->required()->type_name("ID");
    command->footer(footer("  halvane-server folder remove --data /srv/halvane --folder 7\n") +
                    "\nThe server may be running.");
    command->callback([options] {
        openCatalog(options->data)->removeFolder(options->folder);
        std::cout << "Removed the folder " << options->folder << " and everything in it.\n";
    });
}

struct ServeArguments {
    ServeOptions options;
    std::string listen = "127.0.0.1:8390";
    std::int64_t tokenLifetime = 0;
    std::int64_t shutdownSeconds = 0;
    std::int64_t silenceMilliseconds = 0;
    std::int64_t headerMilliseconds = 0;
    std::int64_t idleMilliseconds = 0;
    std::int64_t sweepMilliseconds = 0;
};

void addServe(CLI::App& app, ServeArguments& arguments) {
    ServeOptions& options = arguments.options;
    HttpOptions& http = options.http;
    arguments.tokenLifetime = options.tokenLifetime.count();
    arguments.shutdownSeconds = http.shutdownGrace.count() / 1000;
    arguments.silenceMilliseconds = http.silenceTimeout.count();
    arguments.headerMilliseconds = http.headerTimeout.count();
    arguments.idleMilliseconds = http.idleTimeout.count();
    arguments.sweepMilliseconds = options.sweepInterval.count();
    app.add_option("--data", options.dataDirectory, "The data directory, prepared with 'init'")
        ->type_name("DIR");
    app.add_option("--listen", arguments.listen, "Address and port; port 0 picks a free one")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str();
    app.add_option("--port-file", options.portFile, "Write the port here once connections are accepted")
        ->type_name("FILE");
    app.add_option("--log-file", options.logFile, "Append the log here instead of to standard error")
        ->type_name("FILE");
    app.add_option("--tls-cert", http.certificateFile, "Certificate chain (PEM); serves HTTPS")
        ->type_name("FILE");
    app.add_option("--tls-key", http.keyFile, "Private key of the certificate (PEM)")->type_name("FILE");
    app.add_option("--token-lifetime", arguments.tokenLifetime,
                   "Seconds until a token expires; 0 makes expired ones")
        ->capture_default_str()
        ->check(CLI::Range(std::int64_t{0}, std::int64_t{10} * 366 * 24 * 3600));
    app.add_option("--chunk-size", options.chunkSize, "Bytes of the chunks of new uploads")
        ->capture_default_str()
        ->check(CLI::Range(std::int64_t{1}, maximumChunkSize));
    app.add_option("--max-connections", http.maximumConnections, "Connections at a time")
        ->capture_default_str()
        ->check(CLI::Range(1, 1'000'000));
    app.add_option("--max-header-bytes", http.maximumHeaderBytes, "Bytes of a request's header")
        ->capture_default_str()
        ->check(CLI::Range(1024, 1024 * 1024));
    app.add_option("--max-collected-bytes", http.maximumCollectedBytes,
                   "Bytes of request bodies held in memory, all together")
        ->capture_default_str();
    app.add_option("--workers", options.workers, "Threads for disk and database")
        ->capture_default_str()
        ->check(CLI::Range(2, 256));
    app.add_option("--header-timeout-ms", arguments.headerMilliseconds, "Time for the header of a request")
        ->capture_default_str();
    app.add_option("--idle-timeout-ms", arguments.idleMilliseconds,
                   "Time between two requests of a connection")
        ->capture_default_str();
    app.add_option("--silence-timeout-ms", arguments.silenceMilliseconds, "Time without a byte inside a body")
        ->capture_default_str();
    app.add_option("--shutdown-seconds", arguments.shutdownSeconds, "Time for running requests after SIGTERM")
        ->capture_default_str();
    app.add_option("--sweep-interval-ms", arguments.sweepMilliseconds,
                   "Time between two removals of expired uploads and removed contents")
        ->capture_default_str();
}

void applyListen(const std::string& listen, HttpOptions& http) {
    const std::size_t colon = listen.rfind(':');
    const std::string port = colon == std::string::npos ? "" : listen.substr(colon + 1);
    int value = -1;
    if (!CLI::detail::lexical_cast(port, value) || value < 0 || value > 65535)
        throw CLI::ValidationError("--listen", "must be ADDRESS:PORT, such as 127.0.0.1:8390");
    http.address = listen.substr(0, colon);
    if (http.address.starts_with('[') && http.address.ends_with(']'))
        http.address = http.address.substr(1, http.address.size() - 2);
    http.port = static_cast<std::uint16_t>(value);
}

void runServe(ServeArguments& arguments) {
    using std::chrono::milliseconds;
    ServeOptions& options = arguments.options;
    if (options.dataDirectory.empty())
        throw CLI::RequiredError("--data");
    if (options.http.certificateFile.empty() != options.http.keyFile.empty())
        throw CLI::ValidationError("--tls-cert", "goes together with --tls-key");
    applyListen(arguments.listen, options.http);
    options.tokenLifetime = std::chrono::seconds(arguments.tokenLifetime);
    options.http.shutdownGrace = milliseconds(arguments.shutdownSeconds * 1000);
    options.http.silenceTimeout = milliseconds(arguments.silenceMilliseconds);
    options.http.headerTimeout = milliseconds(arguments.headerMilliseconds);
    options.http.idleTimeout = milliseconds(arguments.idleMilliseconds);
    options.sweepInterval = milliseconds(arguments.sweepMilliseconds);
    options.version = HALVANE_SERVER_VERSION;
    serve(options);
}

int exitCodeOf(const ApiError& error) {
    return error.code() == ErrorCode::Internal || error.code() == ErrorCode::StorageFull ? Failed
                                                                                         : NotPossible;
}

} // namespace

int runCommandLine(int argc, char** argv) {
    CLI::App app("halvane-server keeps measurement files with their versions and serves them over HTTP.",
                 "halvane-server");
    app.set_version_flag("--version", "halvane-server " HALVANE_SERVER_VERSION);
    app.footer(footer(
        "  printf '%s' \"$PASSWORD\" | halvane-server init --data /srv/halvane --admin root "
        "--password-stdin\n"
        "  halvane-server --data /srv/halvane --listen 0.0.0.0:8390 --tls-cert cert.pem --tls-key key.pem\n"
        "  halvane-server --data /srv/halvane --listen 127.0.0.1:0 --port-file port.txt\n"));
    app.failure_message([](const CLI::App*, const CLI::Error& error) {
        return std::string("halvane-server: ") + error.what() + ". 'halvane-server --help' tells more.\n";
    });
    ServeArguments arguments;
    addServe(app, arguments);
    addInit(app);
    addUser(app);
    addGroup(app);
    addGrant(app);
    addFolder(app);
    app.require_subcommand(0, 1);
    try {
        app.parse(argc, argv);
        if (app.get_subcommands().empty())
            runServe(arguments);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? Done : WrongUsage;
    } catch (const ApiError& error) {
        std::cerr << "halvane-server: " << error.what() << '\n';
        return exitCodeOf(error);
    } catch (const std::exception& error) {
        std::cerr << "halvane-server: " << error.what() << '\n';
        return Failed;
    }
    return Done;
}

} // namespace halvane::server
