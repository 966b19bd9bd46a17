#pragma once

#include "halvane_host_export.h"

#include <Result.h>

#include <QByteArray>

namespace halvane::host {

//! Where the tokens of the profiles are kept: in the desktop's keyring when there is one and
//! HALVANE_CONFIG_DIR is not set, else in a file of mode 0600 beside the profile. Thread: the main one; calls
//! that reach the keyring block in an event loop of their own.
class HALVANE_HOST_EXPORT TokenStore {
public:
    static orx::Error save(const QString& profileName, const QByteArray& token);
    //! ErrorCode::NotAuthenticated when there is no token for the profile.
    static orx::Result<QByteArray> load(const QString& profileName);
    //! Wherever it is kept; nothing to remove is a success.
    static orx::Error remove(const QString& profileName);
    //! The file that holds the token where no keyring does.
    static QString filePath(const QString& profileName);
};

} // namespace halvane::host
