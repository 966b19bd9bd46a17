#pragma once

#include "orx_halvane_export.h"

#include <PathImpl.h>
#include <Result.h>

#include <memory>

namespace orx {

class ORX_HALVANE_EXPORT HalvaneUtils {
public:
    //! Begins to unpack the packed acquisition \a sourcePath into the new directory \a targetPath, with the
    //! payload in "content", and returns; the file may be removed then. It is opened and looked at before:
    //! what cannot be read, is cut or no packed acquisition is an error at once. A worker does the rest when
    //! its turn comes (at most a quarter of the pool unpacks at a time, first come, first served),
    //! checking every byte (and, for a scope that knows it, that the file is what the server acknowledged),
    //! and the directory appears complete and durable or not at all; how it ended is told to the
    //! BackgroundWork::Scope that the call was made in (a cache entry's writer, for instance), and logged
    //! when it failed. Thread: any.
    //!
    //! \a held is kept until the unpacking has ended: removed or not, the file takes its room until then.
    static Error unpackAsync(const QString& sourcePath, const PathImpl<PathType::Unknown>& targetPath,
                             const std::shared_ptr<const void>& held = nullptr);
};

} // namespace orx
