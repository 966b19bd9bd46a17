#pragma once

#include "FileDownloadTask.h"

#include <VonkMetadata.h>

#include <QHash>

namespace halvane::host {

class StagingDirectory;
class UnpackedCheck;

//! Brings a packed acquisition as the files and directories that it holds. What they are, with checksums, it
//! reads from the end of the packed file on the server: so what is at the target already is compared, and
//! whoever is to be asked is asked, before anything is fetched. It is fetched into the cache and copied out
//! of it on a worker; without the cache it is unpacked in a hidden directory beside the target, which an
//! interrupted run leaves for the next one. What is no packed acquisition that can be read here comes as the
//! file that it is.
//!
//! All entries get one decision: they are renamed together, or none is. Copied is only what is not there with
//! its content already.
//!
//! Errors: those of FileDownloadTask; ErrorCode::InvalidArgument for one name for several entries.
class HALVANE_HOST_EXPORT AcquisitionDownloadTask : public ItemDownloadTask {
    Q_OBJECT
public:
    //! As of ItemDownloadTask::create().
    AcquisitionDownloadTask(const Wanted& wanted, ClashAnswerer& answerer, MakeTask makeTask = {},
                            QObject* parent = nullptr);
    ~AcquisitionDownloadTask() override;

protected:
    orx::Error initialize() override;

private:
    //! A file or directory that the acquisition consists of.
    struct Part {
        //! As it is in the acquisition.
        QString name;
        //! In the target.
        QString as;
        //! What it would be called if nothing were in the way.
        QString wantedName;
        bool isDirectory = false;
        //! It and what is in it.
        QList<orx::vonk::VonkEntry> entries;
        // What is at the target, as of the last look.
        bool isThere = false;
        bool isSame = false;
        //! When somebody is asked: the answer holds for that only.
        QByteArray stamp;
        orx::Error problem;
    };
    //! What is at a path, and which file of this download made it; empty when none did.
    struct Made {
        QString path;
        QString by;
    };
    using Compared = std::function<void(bool isSame)>;

    static QList<Part> partsOf(const QList<orx::vonk::VonkEntry>& entries);
    void onMetadata(const orx::vonk::VonkMetadata& metadata);
    void onParts(const QList<Part>& parts);
    orx::Error chooseNames();
    //! The part that would be merged with a folder of this download; null when none would.
    const Part* partInFolder() const;
    void fetchAsFile(const orx::Error& reason);

    //! What the acquisition is known by; the others are its companions.
    const Part& mainPart() const;
    QString targetPath(const Part& part) const;
    QStringList targetPaths() const;
    //! Which files of this download made what is at the paths.
    QStringList makers() const;
    void look(const Next& next);
    void compareParts(qsizetype from, const Next& next);
    void compare(const std::shared_ptr<UnpackedCheck>& check, const Compared& next);
    //! What another file of this download made first.
    QList<const Part*> clashes() const;
    bool isAllSame() const;
    void onCompared();
    void endUnchanged();
    void onClashes(const QList<const Part*>& clashes);
    //! One decision for all.
    void decideAbout(const QList<Made>& clashes);
    void onDecided(const ClashAnswerer::Decision& decision);
    void findFreeNames(int number);
    orx::Error firstProblem() const;
    //! For a copy out of the cache.
    orx::Error checkRoom() const;
    void endAs(DownloadedFile::Outcome outcome);
    //! Goes on to \a next.
    void removeStaging(const Next& next);

    void fetch();
    //! Of the unpacked copy in the cache, as they were when it came.
    orx::Result<QHash<QString, QString>> recordedChecksums() const;
    void replaceCopy();
    void fetchThroughCache();
    void onRetrieved();
    void onNotRetrieved(const orx::Error& error);
    void fetchWithoutCache(const orx::Error& cause);
    void fetchDirectly();
    //! In the staging directory.
    QString unpackedPath() const;
    //! ErrorCode::StorageFull unless there is room for what is missing of the packed file and for what it
    //! holds beside it.
    void unpackHere();
    void downloadHere();
    void place(const QString& contentDir);
    void copy(const QString& contentDir, const QStringList& paths);
    //! Whether somebody said of what was shown that it may be overwritten, and of nothing else.
    bool isAnswered() const;
    //! By the path of each part.
    QHash<QString, QByteArray> seenStamps() const;
    void onNotPlaced(const orx::Error& error);
    void onChanged(const orx::Error& error);
    //! What lies in \a contentDir under its own names.
    void compareContent(const QString& contentDir, const Compared& next);
    //! What is still to be placed of it; \a from is the first part that was not compared.
    void compareMissing(const QString& contentDir, qsizetype from, const Compared& next);

    MakeTask m_makeTask;
    //! Of all files.
    qint64 m_size = 0;
    //! Of the main file or directory, as the acquisition says.
    QString m_mainName;
    //! As they are in the acquisition, below "content".
    QList<orx::vonk::VonkEntry> m_entries;
    QList<Part> m_parts;
    //! Beside the target; held as soon as this run uses it, and what an earlier run left may be in it.
    std::shared_ptr<StagingDirectory> m_staging;
    bool m_usesCache = true;
    //! Another content that somebody pinned makes way.
    bool m_replacesPinned = false;
    bool m_mayOverwrite = false;
    //! The makers as of the last look: what may be overwritten.
    QStringList m_seenMakers;
};

} // namespace halvane::host
