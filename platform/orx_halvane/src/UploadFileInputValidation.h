#pragma once

#include "orx_halvane_export.h"

#include <QCoroTask>
#include <QFileInfo>
#include <QStringList>

#include <chrono>

namespace orx {

//! What a user wants uploads to take.
struct ORX_HALVANE_EXPORT UploadFilters {
    //! Without the leading dot, letter case ignored, inner dots allowed ("mzML.gz"); empty takes all. Not for
    //! directories.
    QStringList allowedExtensions;
    //! Wildcards ("*.tmp") of names of files that are left out, letter case ignored. Not for directories.
    QStringList excludedNames = defaultExcludedNames();
    bool takesHidden = false;
    //! An acquisition that changed so recently is perhaps still being written. It is taken when it has not
    //! changed for this time, and left out when it has not come to rest within the patience.
    std::chrono::milliseconds quietTime{2'000};
    std::chrono::milliseconds patience{10'000};

    //! Temporary files and locks of common programs, unfinished downloads, what file managers leave behind.
    static QStringList defaultExcludedNames();
};

//! Why a path is not uploaded.
enum class UploadRefusal {
    None,
    Missing,
    UnreadableName, //!< not valid UTF-8: it could not be written back under its name
    Hidden,
    DirectoryLink, //!< might lead around in circles
    Special,       //!< neither a file nor a directory: a socket, a pipe, a device
    Extension,
    Name,      //!< excluded by the filters
    Companion, //!< belongs to raw data beside it, and is packed together with that when that goes up
    StillWritten
};

//! The rules for what may be uploaded. Thread: any, the coroutine that of a task's body.
class ORX_HALVANE_EXPORT UploadFileInputValidation {
public:
    struct ValidationResult {
        bool isValidPath = false;
        //! Raw data that an upload packs; false for acquisitions that are packed already.
        bool isValidMsData = false;
    };

    static UploadFilters filters();
    //! Grows with every change of what is known besides the paths themselves: the filters, and which paths
    //! are still being written.
    static quint64 changes();
    //! For all checks from now on; the process's.
    static void setFilters(const UploadFilters& filters);

    //! True for every directory.
    static bool isAllowedExtension(const QFileInfo& path);
    //! The extension rule and the filters. Looks at the name and at what the file system says of the entry;
    //! opens nothing, but for a file that is named like a companion of raw data, when that lies beside it. A
    //! link to a file is that file.
    static bool validUploadPath(const QFileInfo& path) { return refusal(path) == UploadRefusal::None; }
    //! The same, asked asynchronously, with a look into the content; an acquisition that is still being
    //! written, or its companion is, is waited for first, and not valid when it does not come to rest. So is
    //! what looks like raw data but is not whole.
    static QCoro::Task<ValidationResult> co_validUploadPath(QFileInfo path);
    //! For what somebody asked for by its name: waits for an acquisition that is still being written,
    //! whatever the rules say of it. The path is valid when it came to rest, or is no acquisition; whether it
    //! is raw data is told as of the end of the wait.
    static QCoro::Task<ValidationResult> co_comesToRest(QFileInfo path);
    //! Why the path is not valid; StillWritten from when a coroutine said so until it says otherwise.
    static UploadRefusal refusal(const QFileInfo& path);
    //! One sentence for people that names the path; empty for None.
    static QString explanation(UploadRefusal refusal, const QString& path);
};

} // namespace orx
