#pragma once

namespace orx {

//! What becomes of a file of a download whose name is taken at its target. The values are fixed.
enum class DuplicateDownloadPolicy : int {
    Ask = 0,       //!< somebody is asked; without anybody to ask nothing is replaced
    Overwrite = 1, //!< the new file takes the place of the old one
    Skip = 2,      //!< the old file stays, and that is no failure
    Rename = 3,    //!< the new file gets a free name
    OnlyNewer = 4  //!< as Overwrite when the new file is newer, else as Skip
};

} // namespace orx
