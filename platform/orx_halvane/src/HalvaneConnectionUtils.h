#pragma once

#include "HalvaneItems.h"

namespace orx {

//! Blocking and pure helpers around the connection. A blocking call needs no running event loop; called from
//! the body of a task that runs on a worker, it ends with ErrorCode::Canceled soon after that task was
//! cancelled or destroyed.
class ORX_HALVANE_EXPORT HalvaneConnectionUtils {
public:
    //! Blocks; thread: any that may block.
    static Result<HalvaneFileItem> getFileItem(int fileId);
    //! Blocks; thread: any that may block. The server's order.
    static Result<QList<HalvaneFileItemSPtr>> files(int folderId);
    //! The largest id among the items of exactly this name (letter case counts); -1 when there is none. For a
    //! list of HalvaneGetFilesTask by an index that is made once per list, so that as many questions as there
    //! are files cost no square of it.
    static int findFileIdInFiles(const QString& name, const QList<HalvaneFileItemSPtr>& files);
};

} // namespace orx
