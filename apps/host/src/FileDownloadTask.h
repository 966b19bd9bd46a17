#pragma once

#include "ItemDownloadTask.h"

namespace orx {
class ContentCheck;
class HalvaneDownloadFileCacheTask;
} // namespace orx

namespace halvane::host {

//! Brings a file as the one file that it is: into the cache and out of it by the plug-in's task, or directly.
//! A content that is in the cache already is compared with the server's SHA-256 first, and fetched anew when
//! it differs. Where the cache fails, and neither the server nor the target, the file comes down directly,
//! with a warning. What another file of the download has brought to the target meanwhile, and what somebody
//! else brought there since a person answered, is a clash again.
//!
//! Errors: ErrorCode::FileNotWritable and ErrorCode::StorageFull for a target that cannot be, those of
//! ClashAnswerer::decided() and ClashStepTask, those of the retrieval.
class HALVANE_HOST_EXPORT FileDownloadTask : public ItemDownloadTask {
    Q_OBJECT
public:
    //! Which file of the download made an entry, as the plug-in knows it.
    using MadeBy = QMap<QString, QSharedPointer<orx::HalvaneFileResourceReference>>;

    //! Without \a makeTask the file is one of its own. \a answerer outlives the task.
    FileDownloadTask(const Wanted& wanted, ClashAnswerer& answerer, MakeTask makeTask = {},
                     QObject* parent = nullptr);
    ~FileDownloadTask() override;

    //! Answers the question of the plug-in's \a task.
    void onClash(const QStringList& names, const MadeBy& madeBy, orx::HalvaneDownloadFileCacheTask& task,
                 QStringList& newNames);

protected:
    orx::Error initialize() override;

private:
    struct Look;
    using Compared = std::function<void(bool isSame)>;

    QString targetPath() const;
    //! What an earlier download without the cache left is there.
    QString partialPath() const;
    void look();
    void lookAgain();
    void onLooked(const Look& look);
    void onOtherContent(const Look& look);
    void onDecided(const Look& look, const ClashAnswerer::Decision& decision);
    void findFreeName(int number);
    void fetchInto(const Look& look);
    void fetchRenamed();
    void compare(const QString& path, const Compared& next);
    void compareMore(const std::shared_ptr<orx::ContentCheck>& check, const Compared& next);
    void endUnchanged();
    void endAs(DownloadedFile::Outcome outcome);
    void fetch();
    void fetchThroughCache();
    void place();
    void copy();
    void guard(orx::HalvaneDownloadFileCacheTask& task);
    void onCopied(orx::HalvaneDownloadFileCacheTask& task);
    void onNotCopied(const orx::Error& error);
    void explain(const orx::Error& error);
    void fetchWithoutCache(const orx::Error& cause);
    void fetchDirectly();
    void download();
    //! Goes on to \a next unless something else is at the target than what may be overwritten.
    void ifAsSeen(const Next& next);
    void onNotDownloaded(const orx::Error& error);

    MakeTask m_makeTask;
    //! Of the file in the target; another one when the own one is taken.
    QString m_name;
    bool m_usesCache = true;
    bool m_mayOverwrite = false;
    //! Which file of this download is at the target, as of the last look: who may be overwritten.
    QString m_seenMaker;
    //! What was at the target then: an answer holds for that only.
    QByteArray m_seenStamp;
    //! The partial file that was fetched directly before something else came to the target.
    QString m_leftPartial;
    //! What was answered to the plug-in's questions.
    bool m_isToBeAsked = false;
    bool m_skipped = false;
    orx::Error m_refusal;
};

} // namespace halvane::host
