#pragma once

#include "orx_common_stable_export.h"

#include <QByteArray>

#include <functional>
#include <sys/types.h>

namespace orx {

//! A file that takes its place when it is whole. Until then it has no name, where the file system knows such
//! files: whenever the process ends, nothing is left of it. Elsewhere it has a random hidden one beside its
//! place (FilePlace::temporaryBeside()), which stays when the process is killed. Nothing is ever removed but
//! what the object made. Paths are bytes and absolute. Blocks on the disk; thread: any, one at a time.
class ORX_COMMON_STABLE_EXPORT NewFile {
public:
    enum class Kind {
        Unnamed, //!< where that is possible
        Hidden
    };

    NewFile() = default;
    //! What has not taken its place is gone.
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    //! Makes an empty file for the place \a target, open for writing; once per object. It gets the access
    //! that open() gives. Zero or an errno.
    int make(Kind kind, const QByteArray& target, mode_t mode);
    //! Of the open file.
    int descriptor() const { return m_descriptor; }
    //! Asked right before something is replaced.
    using MayReplace = std::function<bool()>;
    //! Takes the place, in one step, of the file, which the caller has flushed, and which is closed by the
    //! time it replaces something: a file, as far as \a mayReplace (none: nothing) says so, never a
    //! directory. Zero or an errno; EEXIST when the place is taken, ECANCELED when \a mayReplace refused.
    //! Before it replaces a file it has a hidden name for a moment.
    int take(const MayReplace& mayReplace);
    //! Whether take() failed with \a reason since a file without a name can have none here; one that is
    //! Hidden may do.
    bool needsName(int reason) const;

private:
    int makeHidden(mode_t mode);
    int takeUnnamed(bool isToReplace);
    int replace(const MayReplace& mayReplace) const;
    int linkTo(const QByteArray& path) const;

    QByteArray m_target;
    //! Empty without a name.
    QByteArray m_path;
    int m_descriptor = -1;
};

} // namespace orx
