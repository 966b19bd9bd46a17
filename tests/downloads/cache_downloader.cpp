// Brings a folder through a cache into a directory, replacing what is there, and kills itself at a place of
// the second copy out of the cache: copy (half of the content is written), flush (the content is written),
// link (it is flushed and gets its first name, if it had none), rename (that becomes the file's own); before
// or after a directory is exchanged with its successor: exchange, exchanged; at the second file of what it
// was that is removed: remove; or at the first flush of the directory: directory. Anything else: never.
//
// usage: HALVANE_TOKEN=... cache_downloader URL USER FOLDER CACHE_DIRECTORY TARGET_DIRECTORY PLACE
#include "NoBlockSharing.h"

#include <HalvaneConnection.h>
#include <HalvaneDownloadFolderCacheTask.h>
#include <HalvaneResourceHandler.h>
#include <ResourceCache.h>
#include <ResourceManager.h>

#include <QCoreApplication>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <linux/fs.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

//! Without trailing slashes and links; set once, before anything is copied.
std::string targetDirectory;
std::string placeToDie;
std::atomic<int> met = 0;

std::string pathOf(int descriptor) {
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    char path[4096];
    const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
    return length < 0 ? std::string() : std::string(path, size_t(length));
}

bool isInTarget(const std::string& path) {
    return !targetDirectory.empty() && path.starts_with(targetDirectory + '/');
}

bool isTheTimeToDie(const char* place, int meeting = 2) {
    return placeToDie == place && ++met == meeting;
}

} // namespace

// The program's own definitions take the place of the C library's for the libraries too.
extern "C" ssize_t copy_file_range(int from, off64_t* at, int to, off64_t* end, size_t length,
                                   unsigned flags) {
    const bool dies = isInTarget(pathOf(to)) && isTheTimeToDie("copy");
    const auto copied =
        ssize_t(::syscall(SYS_copy_file_range, from, at, to, end, dies ? length / 2 : length, flags));
    if (dies)
        ::raise(SIGKILL);
    return copied;
}

extern "C" int fsync(int descriptor) {
    const std::string path = pathOf(descriptor);
    if (isInTarget(path) && isTheTimeToDie("flush"))
        ::raise(SIGKILL);
    if (!path.empty() && path == targetDirectory && isTheTimeToDie("directory", 1))
        ::raise(SIGKILL);
    return int(::syscall(SYS_fsync, descriptor));
}

// What is to be replaced keeps a file from its own name, so that each of them asks for two.
extern "C" int linkat(int from, const char* oldName, int to, const char* newName, int flags) noexcept {
    if (isInTarget(newName) && isTheTimeToDie("link", 3))
        ::raise(SIGKILL);
    return int(::syscall(SYS_linkat, from, oldName, to, newName, flags));
}

extern "C" int rename(const char* from, const char* to) {
    if (isInTarget(to) && isTheTimeToDie("rename"))
        ::raise(SIGKILL);
    return int(::syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0));
}

extern "C" int renameat2(int from, const char* oldName, int to, const char* newName,
                         unsigned flags) noexcept {
    const bool exchanges = flags == RENAME_EXCHANGE && isInTarget(newName);
    if (exchanges && isTheTimeToDie("exchange", 1))
        ::raise(SIGKILL);
    const auto result = int(::syscall(SYS_renameat2, from, oldName, to, newName, flags));
    if (exchanges && isTheTimeToDie("exchanged", 1))
        ::raise(SIGKILL);
    return result;
}

extern "C" int unlink(const char* path) noexcept {
    if (isInTarget(path) && isTheTimeToDie("remove"))
        ::raise(SIGKILL);
    return int(::syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

int main(int argc, char** argv) {
    using namespace orx;
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    HalvaneConnection& connection = HalvaneConnection::instance();
    connection.setSettings(
        HalvaneSettings(HalvaneMachineSettings(QUrl(arguments.value(1))), HalvaneUserSettings()));
    connection.setCredentials(arguments.value(2), qgetenv("HALVANE_TOKEN"));
    HalvaneResourceHandler::registerType();
    ResourceCache cache(arguments.value(4));
    ResourceManager::setCache(&cache);
    targetDirectory = arguments.value(5).toStdString();
    placeToDie = arguments.value(6).toStdString();
    Error error;
    {
        HalvaneDownloadFolderCacheTask task(
            *HalvaneFolderResourceReference::create(arguments.value(3).toInt(), QStringLiteral("raw")),
            arguments.value(5), true, nullptr);
        task.setDuplicatePolicy(DuplicateDownloadPolicy::Overwrite);
        task.exec();
        error = task.waitForFinished();
    }
    ResourceManager::setCache(nullptr);
    if (error.hasError())
        std::fprintf(stderr, "%s\n", qPrintable(error.traceText()));
    return error.hasError() ? 1 : 0;
}
