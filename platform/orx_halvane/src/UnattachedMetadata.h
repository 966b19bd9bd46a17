#pragma once

#include "JournalHold.h"

#include <memory>

namespace orx {

//! Journal records of committed uploads whose extended metadata are still to be attached. Each stays in the
//! journal, so that a later run finds the version and attaches them, until HalvanePutExtendedMetaDataTask has
//! succeeded for the file in this process. Thread: any.
class ORX_HALVANE_EXPORT UnattachedMetadata {
public:
    //! Makes \a hold known as the record of the connection's file \a fileId for as long as anybody has what
    //! is returned; then the record is released. A later one of the same file replaces it.
    [[nodiscard]] static std::shared_ptr<JournalHold> add(int fileId, JournalHold hold);
    //! Null when there is none.
    static std::shared_ptr<JournalHold> find(int fileId);
};

} // namespace orx
