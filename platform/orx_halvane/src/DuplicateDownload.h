#pragma once

#include "orx_halvane_export.h"

#include <FileUtils.h>
#include <HalvaneResourceReference.h>
#include <Task.h>

#include <QDir>
#include <QMap>

#include <optional>

namespace orx {

//! What becomes of a file of a download whose name is taken at its target. The values are fixed.
enum class DuplicateDownloadPolicy : int {
    Ask = 0,       //!< somebody is asked; without anybody to ask nothing is replaced
    Overwrite = 1, //!< the new file takes the place of the old one
    Skip = 2,      //!< the old file stays, and that is no failure
    Rename = 3,    //!< the new file gets a free name
    OnlyNewer = 4  //!< as Overwrite when the new file is newer, else as Skip
};

//! The policy of the copy that does what \a policy says; none is Ask. Ask is Refuse: the copy leaves the
//! question to its task.
ORX_HALVANE_EXPORT FileUtils::CopyFilesOptions::DuplicateFilesPolicy
duplicatePolicy(std::optional<DuplicateDownloadPolicy> policy);

//! What a person who is asked about a taken name may leave out. The values are fixed.
enum class DuplicateDownloadSkipOption : int {
    Nothing = 0, //!< there is nothing to leave out any more
    File = 1     //!< this file: by FileUtils' policy Skip on its task
};

//! What may be left out of what \a task brings: the file, while the task runs. \a task may be null.
ORX_HALVANE_EXPORT DuplicateDownloadSkipOption duplicateDownloadSkipOption(const Task* task);

//! Names that a file of a folder download finds taken, for who decides what becomes of them.
struct ORX_HALVANE_EXPORT DuplicateDownloadFileInfo {
    //! Each taken name with the file of the same download that came by that name before; null when the name
    //! was taken before the download, or by a file that told no names.
    QMap<QString, QSharedPointer<HalvaneFileResourceReference>> clashes;
    QDir targetDir;
    //! How often the same file was asked about before.
    int earlierQuestions = 0;
    DuplicateDownloadSkipOption skipOption = DuplicateDownloadSkipOption::Nothing;
    //! The file that is being copied.
    QSharedPointer<HalvaneFileResourceReference> fileReference;
};

} // namespace orx
