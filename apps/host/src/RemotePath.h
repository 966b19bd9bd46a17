#pragma once

#include "halvane_host_export.h"

#include <Result.h>

#include <QStringList>

namespace halvane::host {

//! A path on the server as people write it: "/raw/2026/run1.mzML". Names are compared byte for byte; "." and
//! ".." have no meaning, since the server has no such names. A value.
class HALVANE_HOST_EXPORT RemotePath {
public:
    //! Fails with ErrorCode::InvalidArgument for a text that does not begin with "/" or holds "." or ".." as
    //! a name. Repeated slashes count as one.
    static orx::Result<RemotePath> parse(const QString& text);
    //! \a name below the folder \a parent (empty and "/" are the root).
    static QString join(const QString& parent, const QString& name);
    //! "/" and the names of \a chain joined by slashes.
    static QString fromChain(const QStringList& chain);

    //! From the root on; empty for the root.
    const QStringList& names() const { return m_names; }
    bool isRoot() const { return m_names.isEmpty(); }
    //! A trailing slash was written: only a folder can be meant.
    bool mustBeFolder() const { return m_mustBeFolder; }

private:
    QStringList m_names;
    bool m_mustBeFolder = false;
};

//! Whether a name that a server sent can be the name of a file in a local directory: not empty, neither "."
//! nor "..", without "/" and NUL, at most 255 bytes.
HALVANE_HOST_EXPORT bool isUsableLocalName(const QString& name);

} // namespace halvane::host
