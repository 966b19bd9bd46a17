#pragma once

#include "KnownContents.h"
#include "RemoteItem.h"

#include <ComplexTask.h>
#include <HalvaneItems.h>

#include <deque>
#include <memory>
#include <optional>

namespace halvane::host {

class SameContent;

//! Tells whether the server has the content of a local file, packed acquisition or raw data already: under
//! the name that is taken, of several files of that name each when something beside it goes up under it too,
//! and perhaps under the free names that were made of it ("run (2).raw"). Compared are size and SHA-256 with
//! the last version; for raw data the paths, sizes and SHA-256 of everything in it with what its packed
//! version says of itself; a packed acquisition of an older format, which is upgraded when it is sent, by
//! what both say of themselves. Times of raw data do not count. Sends nothing but questions. Thread: that of
//! the object.
class HALVANE_HOST_EXPORT SameContentTask : public orx::ComplexTask {
    Q_OBJECT
public:
    struct Wanted {
        QString localPath;
        bool isRawData = false;
        int folderId = -1;
        //! The file that has the name.
        int existingFileId = -1;
        bool alsoFreeNames = false;
        //! What the path is known to hold as long as its stamp is the same; then nothing is read.
        std::optional<KnownContent> known;
        //! Record that this machine has the version at the path.
        bool recordsVersion = true;
    };

    explicit SameContentTask(const Wanted& wanted);
    ~SameContentTask() override;

    const Wanted& wanted() const { return m_wanted; }
    //! What has the content; nothing when nothing has.
    const std::optional<RemoteItem>& same() const { return m_same; }
    //! The file that has the name.
    const RemoteItem& existing() const { return m_existing; }
    //! What lies beside it and would go up under the same name, when nothing has the content: existing() may
    //! be that one's. Empty for nothing.
    const QString& rival() const { return m_rival; }

protected:
    orx::Error initialize() override;

private:
    void ask(int fileId);
    void onAnswered(const RemoteItem& item);
    void compareStamps(const RemoteItem& item);
    void compareContent(const RemoteItem& item);
    void askTrace(const RemoteItem& item);
    void onTrace(const RemoteItem& item, const QJsonObject& trace);
    void compareMore(const RemoteItem& item, const std::shared_ptr<SameContent>& content);
    void onAnother();
    void findRival();
    void onRivalKnown(const QString& rival);
    void askNext();
    void onListed(const QList<orx::HalvaneFileItemSPtr>& files);
    void onSame(const RemoteItem& item);

    Wanted m_wanted;
    RemoteItem m_existing;
    std::optional<RemoteItem> m_same;
    QString m_rival;
    bool m_hasListed = false;
    std::deque<int> m_candidates;
};

} // namespace halvane::host
