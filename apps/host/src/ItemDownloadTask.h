#pragma once

#include "ClashAnswerer.h"

#include <ComplexTask.h>
#include <DuplicateDownload.h>
#include <FileCopy.h>

#include <QPointer>

#include <functional>
#include <memory>

namespace orx {
class HalvaneDownloadFileCacheTask;
class ResourceHandler;
} // namespace orx

namespace halvane::host {

class FileDownloadTask;

//! Brings one version of a file into a directory, unless it is there already with that very content. Records
//! the version in the local history for the paths that it was written to. What is at the target stays as it
//! is until the new content is complete. Progress: that of the retrieval. Thread: that of the object.
class HALVANE_HOST_EXPORT ItemDownloadTask : public orx::ComplexTask {
    Q_OBJECT
public:
    struct Wanted {
        //! With version, size and checksum.
        RemoteItem item;
        //! An existing directory, absolute.
        QString directory;
        //! One path component.
        QString name;
        //! Of a file whose name others in its folder have: what its name tells it by. Empty for all others.
        QString mark;
        bool useCache = true;
        //! A packed acquisition comes as the packed file that it is.
        bool packed = false;
        //! What the cache may hold at most; a larger file comes down without it, with a warning.
        std::optional<qint64> maxCachedBytes;
    };

    //! The plug-in's task for the file under a name; its clashes are to reach onClash() of the asker.
    using MakeTask = std::function<orx::HalvaneDownloadFileCacheTask*(
        FileDownloadTask& asker, const QString& name, orx::DuplicateDownloadPolicy policy)>;

    ~ItemDownloadTask() override;

    //! The task for a file of the name that \a wanted has on the server. Without \a makeTask it is one of its
    //! own, else part of a folder. \a answerer outlives the task.
    static std::unique_ptr<ItemDownloadTask> create(const Wanted& wanted, ClashAnswerer& answerer,
                                                    const MakeTask& makeTask = {});

    //! After success.
    const DownloadedFile& result() const { return m_result; }

protected:
    //! \a answerer outlives the task.
    ItemDownloadTask(const Wanted& wanted, ClashAnswerer& answerer, QObject* parent);

    //! Whether \a bytes of this file may lie in the cache; says so when they are too many.
    bool mayUseCache(qint64 bytes);
    using Next = std::function<void()>;
    //! Brings the content into the cache unless it is there, as the handler's mode says; its progress is that
    //! of this task.
    void retrieve(const Next& next, const std::function<void(const orx::Error&)>& onFailure);
    //! The copy in the cache, which had the stamp \a seen, is not what the server has: nobody takes it any
    //! more, also when it cannot be fetched anew.
    void discardCopy(const orx::FileCopy::Stamp& seen, const Next& next);
    //! The clash at \a path, which \a madeBy made, when one of this download did.
    Clash clashAt(const QString& path, const QString& madeBy) const;
    //! Goes on to \a then with what is to become of it, once somebody who has to be asked has answered.
    void decide(const QString& path, const QString& madeBy, const ClashAnswerer::Decided& then);
    //! Goes on to \a next once no other file of this download writes to one of \a paths, which it keeps from
    //! them until leavePlaces() or the end of the task.
    void takePlaces(const QStringList& paths, const Next& next);
    void leavePlaces();
    //! Goes on to \a next with whether what is at \a paths is what had the stamps \a seen, of which an answer
    //! was given. When everything is to be overwritten, whatever it is, it always is.
    void compareWithSeen(const QStringList& paths, const QByteArrayList& seen,
                         const std::function<void(bool isAsSeen)>& next);
    //! What is at \a paths is this file now.
    void remember(const QStringList& paths);
    //! The same, except of those that another file of this download made, with the same content.
    void rememberFound(const QStringList& paths);
    //! Tells the history what the paths are, and ends the result. What was found unchanged may be known as a
    //! later version of the same content, and stays that.
    void recordVersion(const QStringList& paths);

    Wanted m_wanted;
    ClashAnswerer& m_answerer;
    //! A task that has ended may be deleted later than the download.
    const QPointer<ClashAnswerer> m_alive;
    DownloadedFile m_result;
    //! Of the file; null until the cache is used.
    QSharedPointer<orx::ResourceHandler> m_handler;
    //! Nobody else writes there.
    QStringList m_places;
};

} // namespace halvane::host
