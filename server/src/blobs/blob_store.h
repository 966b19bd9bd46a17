// The files of the data directory that hold contents: staging/NAME while an upload is open, blobs/DAY/NAME
// from its finalisation on, where DAY is the first eight characters of NAME. Thread-safe. Every failure is an
// ApiError that names the file.
#pragma once

#include "blobs/descriptor.h"
#include "core/hashes.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace halvane::server {

class BlobStore {
public:
    explicit BlobStore(std::string dataDirectory);
    // Makes the two directories, durably.
    static void create(const std::string& dataDirectory);

    // A new name that no other file has: today's date and random digits.
    static std::string newName();

    // Opens the staging file of an open upload for reading and writing, made with that size when missing. It
    // may lie among the blobs already, when a finalisation failed after its rename.
    Descriptor openStaged(const std::string& name, std::int64_t size);
    // The same for direct writes, which go to the disk without a copy in memory; not open where the file
    // system has none.
    Descriptor openStagedDirectly(const std::string& name);
    // Not open when neither exists.
    Descriptor openExistingStaged(const std::string& name);
    // Opens a blob for reading; not open when there is none.
    Descriptor openBlob(const std::string& name);

    // Renames a staging file into its place (no change when it is there already) and returns the directory it
    // is in, which must be given to syncDirectory before anything refers to the blob.
    std::string place(const std::string& name);
    void syncDirectory(const std::string& directory);

    // Removes the file wherever it is; missing is fine.
    void discard(const std::string& name);

    // Calls `visit` with the name of every file in staging/ and blobs/.
    void forEachName(const std::function<void(const std::string&)>& visit);

private:
    std::string stagedPath(const std::string& name) const;
    std::string directoryOf(const std::string& name) const;
    std::string blobPath(const std::string& name) const;
    void ensureDirectory(const std::string& directory);

    std::string m_directory;
    std::mutex m_mutex;
    std::set<std::string> m_knownDirectories;
};

// Writes or reads all of it at that offset; a short read is an error. `what` names the file for the message.
void writeAt(int descriptor, Bytes data, std::int64_t offset, const std::string& what);
// The same for aligned memory, offset and length on a descriptor for direct writes. Returns how many bytes
// were written, fewer when the file system wants them aligned to more than directAlignment.
std::size_t writeDirectlyAt(int descriptor, Bytes data, std::int64_t offset, const std::string& what);
void readAt(int descriptor, std::span<std::byte> into, std::int64_t offset, const std::string& what);

// Makes a directory's entries durable.
void syncDirectoryAt(const std::string& path);

} // namespace halvane::server
