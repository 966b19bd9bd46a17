#pragma once

#include "HalvaneTask.h"

#include <HalvaneResourceReference.h>

#include <QDir>

#include <functional>

namespace orx {

//! Which file goes where.
struct ORX_HALVANE_EXPORT HalvaneFileDownloadParameters {
    QSharedPointer<HalvaneFileResourceReference> reference;
    QDir targetDir;
    HalvaneFileResourceReference::FileKind kind = HalvaneFileResourceReference::FileKind::ByName;
    //! The name in the target directory; empty: that of the reference.
    QString targetName;
    //! Whether a file that is at the target may be replaced.
    bool overwrite = false;
    //! The target is on the way to another place: who takes it there flushes it, and the history does not
    //! hear of it.
    bool isIntermediate = false;
    //! Whether a file at the target that has the version's content stays, without its content being fetched.
    //! A file of another content is replaced then, whatever overwrite says.
    bool keepSame = false;
    //! With overwrite: asked on a worker when the content is whole, flushed and about to take the place of
    //! what is at the target; false: ErrorCode::FileChanged, and the partial file stays. None: it may.
    std::function<bool()> mayReplace = {};
};

//! Brings one version of a file into a directory. The bytes go to a hidden partial file beside the target,
//! which a later run of the same version resumes by range; they are verified against the server's SHA-256,
//! flushed, renamed to the target's name, and the directory is flushed. Until that rename the target is what
//! it was. Hashing and writing happen on workers. Progress: 0..100 of 100, resumed bytes included. The file's
//! modification time becomes the one that the server recorded for the source, when it did. Fails with
//! ErrorCode::AlreadyExists when the target exists and may not be replaced, ErrorCode::InvalidArgument for a
//! name that is no single path component here, ErrorCode::ChecksumMismatch (partial file removed),
//! ErrorCode::Busy when another download of the same version to the same target runs, ErrorCode::FileChanged
//! when mayReplace refused.
class ORX_HALVANE_EXPORT HalvaneDownloadFileTask : public HalvaneComplexTask {
    Q_OBJECT
public:
    explicit HalvaneDownloadFileTask(const HalvaneFileDownloadParameters& parameters,
                                     QObject* parent = nullptr);
    ~HalvaneDownloadFileTask() override;
    QString targetPath() const;
    //! After success.
    QString sha256() const;
    qint64 size() const;
    int version() const;

protected:
    Error initialize() override;
    Error doFinish() override;

private:
    class Private;
    std::unique_ptr<Private> d;
};

class ORX_HALVANE_EXPORT HalvaneDownloadFileTaskCreator {
public:
    //! For who takes the file on from a target directory of its own, as the cache of a resource handler does:
    //! isIntermediate and keepSame hold, whatever \a parameters say. A packed acquisition is unpacked there,
    //! into a directory of its name with the data in "content".
    static std::unique_ptr<Task> create(const HalvaneFileDownloadParameters& parameters);
    //! The same by \a parameters: HalvaneDownloadVonkTask, or HalvaneDownloadFileTask.
    static std::unique_ptr<Task> createUnpacking(const HalvaneFileDownloadParameters& parameters);
};

} // namespace orx
