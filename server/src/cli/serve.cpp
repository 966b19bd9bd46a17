#include "cli/serve.h"

#include "api/api.h"
#include "cli/data_directory.h"
#include "uploads/sweeper.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>

namespace halvane::server {

namespace {

void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max)
        return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit); // refused: fewer connections, nothing worse
}

// Complete as soon as it exists: a script waits for the file and reads it.
void writePortFile(const std::string& path, std::uint16_t port) {
    const std::string temporary = path + ".new";
    const std::string text = std::to_string(port) + "\n";
    {
        const Descriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (!file.isOpen())
            throw systemError("write the port file '" + path + "'", errno);
        writeAt(file.get(), bytesOf(text), 0, temporary);
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0)
        throw systemError("write the port file '" + path + "'", errno);
}

std::size_t hashingThreads() {
    return std::clamp<std::size_t>(std::thread::hardware_concurrency(), 2, 8);
}

} // namespace

void serve(const ServeOptions& options) {
    raiseDescriptorLimit();
    std::signal(SIGPIPE, SIG_IGN); // sendfile has no flag for it
    std::signal(SIGXFSZ, SIG_IGN); // a limit on the size of files fails the write, not the service
    ::mallopt(M_ARENA_MAX, 4);

    requirePrepared(options.dataDirectory);
    const Descriptor lock = lockDataDirectory(options.dataDirectory);
    upgradeCatalog(options.dataDirectory);
    const std::unique_ptr<CatalogStore> catalog = openCatalog(options.dataDirectory);
    Log log;
    if (!options.logFile.empty())
        log.openFile(options.logFile);
    Metrics metrics;
    catalog->beginServing();

    BlobStore blobs(options.dataDirectory);
    WorkerPool hashing(hashingThreads());
    UploadSessions sessions(blobs, *catalog, hashing);
    Committer committer(*catalog, blobs, metrics);
    Finalizer finalizer(*catalog, sessions, committer, hashing);
    Accounts accounts(*catalog, metrics, options.tokenLifetime);
    Services services{*catalog, blobs, sessions,          finalizer,      accounts,
                      metrics,  log,   options.chunkSize, options.version};
    Router router;
    addSessionCalls(router, services);
    addFolderCalls(router, services);
    addFileCalls(router, services);
    addUploadCalls(router, services);

    WorkerPool workers(options.workers);
    HttpServer server(options.http, router, workers, log, metrics);
    {
        const Sweeper sweeper(*catalog, blobs, log, metrics, options.sweepInterval);
        if (!options.portFile.empty())
            writePortFile(options.portFile, server.port());
        log.info("listening", options.http.address + ":" + std::to_string(server.port()));
        server.run();
        workers.finish();
        hashing.finish();
    }
    sessions.flushAll();
    catalog->endServing();
    log.info("stopped");
}

} // namespace halvane::server
