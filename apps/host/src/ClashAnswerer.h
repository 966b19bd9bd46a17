#pragma once

#include "Downloads.h"

#include <Result.h>

#include <QFileInfo>
#include <QHash>
#include <QSet>

#include <functional>

namespace halvane::host {

//! A name that is taken: what is there, and what is to come.
struct Clash {
    QFileInfo existing;
    //! The version of the very file that this machine last had at the path; none when it had none.
    std::optional<int> existingVersion;
    //! The reference of the file of this download that made what is there; empty when none did.
    QString madeBy;
    RemoteItem item;
};

struct ClashAnswer {
    enum class Choice { Overwrite, Skip, Rename, Quit };
    Choice choice = Choice::Skip;
    //! Also for every later clash.
    bool forAll = false;
};

//! Decides about the clashes of one download, by its policy or by asking somebody. Thread: that of the
//! download, which a question blocks.
class HALVANE_HOST_EXPORT ClashAnswerer {
public:
    using Question = std::function<ClashAnswer(const Clash&)>;

    //! Without a \a question Ask is Fail.
    explicit ClashAnswerer(IfExists policy, Question question = {});

    //! What holds without asking: an answer for all changes it. Never Ask when nobody can be asked.
    IfExists policy() const { return m_policy; }
    //! Overwrite, Skip or Rename. ErrorCode::AlreadyExists when nothing may be done, saying what to do about
    //! it; ErrorCode::Canceled when the answer was to quit, which is then true of wantsToQuit() too. What
    //! this download made is replaced by an answer about this very clash only, never by a policy.
    orx::Result<IfExists> decide(const Clash& clash);
    bool wantsToQuit() const { return m_quit; }

    //! \a path is \a item of this download. Costs about a hundred bytes.
    void remember(const QString& path, const RemoteItem& item);
    //! The reference of what of this download is at \a path; empty when nothing is.
    QString whoMade(const QString& path) const;
    //! It is a folder.
    bool isOfFolder(const QString& path) const;
    //! For files that are written side by side: takes \a paths for one of them, unless another one writes to
    //! one of them just then (false).
    bool beginWriting(const QStringList& paths);
    void endWriting(const QStringList& paths);

private:
    struct Maker {
        RemoteItem::ItemType type = RemoteItem::ItemType::File;
        int id = -1;
        int version = 0;
    };

    orx::Error refusal(const Clash& clash) const;
    std::optional<RemoteItem> itemAt(const QString& path) const;

    IfExists m_policy;
    bool m_nobodyAsked;
    Question m_question;
    //! By directory and name, of which a download of many files has few and short ones.
    QHash<QString, QHash<QString, Maker>> m_made;
    QSet<QString> m_written;
    bool m_quit = false;
};

} // namespace halvane::host
