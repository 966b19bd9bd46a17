#pragma once

#include "orx_halvane_resource_handler_export.h"

#include <CustomComplexTask.h>
#include <FileUtils.h>
#include <HalvaneResourceReference.h>
#include <PathImpl.h>

#include <QDir>

#include <memory>

namespace orx {

//! Brings one file into the resource cache, unless it is there, and copies it to a directory. A packed
//! acquisition that the cache holds as a directory is copied by what is in its sub-directory "content".
//!
//! Made without a parent and owned by whoever runs it. Thread: that of the object, which needs an event loop;
//! the copy is made there too, when the file is in the cache. Progress is that of the retrieval.
//!
//! Its own error is ErrorCode::General when the copy failed; what was at the target path is intact then.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneDownloadFileCacheTask : public CustomComplexTask {
    Q_OBJECT
public:
    //! Never fails: what is wrong with the reference or the cache is the error of the started task. \a name:
    //! what the file is to be called in \a targetDir; empty: its own name.
    HalvaneDownloadFileCacheTask(const QSharedPointer<HalvaneFileResourceReference>& fileReference,
                                 const PathImpl<PathType::Dir>& targetDir, const QString& name,
                                 QObject* parent);
    ~HalvaneDownloadFileCacheTask() override;

    //! The path of the copy; valid from construction on. A packed acquisition goes by its name without the
    //! last extension, whatever name was given.
    QString localFilePath() const;
    //! After the end: the names that a copy of several entries made; empty after that of a single file.
    QList<QString> filenames();
    //! What becomes of names that are taken in the target directory. Under Refuse, the default, the signal
    //! below asks; under the others the copy decides by itself. Before the task finishes.
    void setDuplicateFilesPolicy(FileUtils::CopyFilesOptions::DuplicateFilesPolicy policy);

Q_SIGNALS:
    //! Names that are taken in \a targetDir, before anything is copied. A receiver, connected directly, may
    //! write other names over those in \a fixedDuplicates, whose length is to stay; may set another policy;
    //! or may put an error on the task (by cancelling it, for instance), which ends it without a copy. A
    //! name that a person types is checked by the receiver: it must be one component of a path.
    void duplicateFileNameDetectedOnCopy(const QStringList& duplicates, QStringList* fixedDuplicates,
                                         const QDir& targetDir,
                                         const HalvaneFileResourceReferenceSPtr& fileReference);

protected:
    Error doFinish() override;
    Error initialize() override;

private:
    class Private;
    const std::unique_ptr<Private> d;
};

} // namespace orx
