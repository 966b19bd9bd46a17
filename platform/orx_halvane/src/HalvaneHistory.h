#pragma once

#include "orx_halvane_export.h"

#include <Result.h>

#include <optional>

namespace orx {

//! Which version of a server's file this machine last had at a local path: written when an upload was
//! finalised and when a download was written. Kept in the configuration directory, durable, shared by all
//! processes. Thread: any. Keyed by the connection's server, the canonical local path (the absolute path
//! where the file does not exist) and the file id.
class ORX_HALVANE_EXPORT HalvaneHistory {
public:
    //! Nothing recorded is a success without a version. Fails when the history cannot be read; the message
    //! names its file and the remedy.
    Result<std::optional<int>> fileVersion(const QString& localPath, int fileId) const;
    //! Paths inside temporary directories that this process made with registerTemporaryDir() are not
    //! recorded.
    Error setFileVersion(const QString& localPath, int fileId, int version);
    //! The same, but leaves a later version recorded: for what was uploaded some time ago.
    Error raiseFileVersion(const QString& localPath, int fileId, int version);

    static void registerTemporaryDir(const QString& dir);
    static void unregisterTemporaryDir(const QString& dir);
};

} // namespace orx
