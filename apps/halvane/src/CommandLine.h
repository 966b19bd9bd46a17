#pragma once

#include <Downloads.h>
#include <ResourceCache.h>
#include <UploadFileJob.h>
#include <Uploads.h>

#include <QUrl>

#include <variant>

namespace halvane::cli {

//! Options that every command has.
struct GlobalOptions {
    bool json = false;
    bool quiet = false;
    bool traceErrors = false;
    QString profile;
    QString traceFile;
};

struct LoginCommand {
    QUrl url;
    QString user;
    bool passwordFromStdin = false;
    //! Empty: none was given.
    QString caFile;
};
struct LogoutCommand {};
struct WhoAmICommand {};
struct MkdirCommand {
    QString path;
    bool parents = false;
};
struct LsCommand {
    QString reference;
    bool longFormat = false;
};
struct PutCommand {
    //! For a single file or raw data, unless something was asked for that goes for many.
    host::UploadRequest single;
    host::TreeUploadRequest tree;
    bool isTree = false;
    //! Tell what would be sent; send nothing.
    bool dryRun = false;
};
struct GetCommand {
    host::DownloadRequest request;
};

struct InfoCommand {
    QString reference;
};
struct SiblingsCommand {
    QString reference;
};
struct ExistsCommand {
    QString reference;
};
struct VerifyNameCommand {
    QString reference;
    QString name;
};
struct CacheCommand {
    enum class Action { List, Path, Verify, Prune, Pin, Unpin };
    Action action = Action::List;
    //! For Path, Pin and Unpin one of both; the second is a place that List shows, for which no server is
    //! asked.
    QString reference;
    QString subPath;
    //! For Prune: instead of the cache's own, where given.
    orx::ResourceCache::Limits limits;
};

struct PackCommand {
    QString path;
    //! The file to be made, or an existing directory for it; empty: beside the acquisition.
    QString output;
};
struct UnpackCommand {
    QString path;
    QString directory;
};
struct InspectCommand {
    QString path;
    bool longFormat = false;
    //! Empty: nothing is drawn.
    QString plotPath;
};
struct CheckCommand {
    QString path;
    bool isFull = false;
};
struct UpgradeCommand {
    QString path;
    //! Empty: the file itself.
    QString output;
};

using Command =
    std::variant<LoginCommand, LogoutCommand, WhoAmICommand, MkdirCommand, LsCommand, PutCommand, GetCommand,
                 InfoCommand, SiblingsCommand, ExistsCommand, VerifyNameCommand, CacheCommand, PackCommand,
                 UnpackCommand, InspectCommand, CheckCommand, UpgradeCommand>;

//! What the arguments ask for.
struct CommandLine {
    GlobalOptions global;
    Command command;
};

//! The arguments end the program themselves: help or version (exit code 0, \a text is for standard output) or
//! a mistake (exit code 2, \a text says what is wrong).
struct CommandLineEnd {
    int exitCode = 0;
    QString text;
    //! Whether --json was among the arguments.
    bool json = false;
};

//! Reads and checks the arguments without touching the network or the disk.
std::variant<CommandLine, CommandLineEnd> parseCommandLine(int argc, char** argv);

} // namespace halvane::cli
