#pragma once

#include "Downloads.h"

#include <Result.h>

#include <QFileInfo>
#include <QHash>
#include <QObject>
#include <QSet>

#include <deque>
#include <functional>
#include <optional>

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
//! download, which goes on while somebody thinks.
class HALVANE_HOST_EXPORT ClashAnswerer : public QObject {
    Q_OBJECT
public:
    //! Overwrite, Skip or Rename. ErrorCode::AlreadyExists when nothing may be done, saying what to do about
    //! it; ErrorCode::Canceled when the answer was to quit, which is then true of wantsToQuit() too. What
    //! this download made is replaced by an answer about this very clash only, never by a policy.
    using Decision = orx::Result<IfExists>;
    using Decided = std::function<void(const Decision&)>;

    //! When there is nobody who \a canBeAsked, Ask is Fail.
    explicit ClashAnswerer(IfExists policy, bool canBeAsked = false, QObject* parent = nullptr);
    ~ClashAnswerer() override;

    //! What holds without asking: an answer for all changes it. Never Ask when nobody can be asked.
    IfExists policy() const { return m_policy; }
    //! What is decided without asking; none: ask().
    std::optional<Decision> decided(const Clash& clash) const;
    //! Has somebody asked about \a clash, one after the other, and calls \a then with the answer, never
    //! before this returns. The number is for withdraw(), after which it is not called any more.
    int ask(const Clash& clash, Decided then);
    void withdraw(int number);
    //! The answer to what was asked last; nothing when no question is open.
    void answer(const ClashAnswer& answer);
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

Q_SIGNALS:
    //! To be answered by answer(), within the signal or later. One question is open at a time.
    void asked(const halvane::host::Clash& clash);
    //! The open question is not to be answered any more.
    void withdrawn();
    //! The answer was to quit.
    void gaveUp();

private:
    struct Waiting {
        int number = 0;
        Clash clash;
        Decided then;
    };
    struct Maker {
        RemoteItem::ItemType type = RemoteItem::ItemType::File;
        int id = -1;
        int version = 0;
    };

    orx::Error refusal(const Clash& clash) const;
    void askNext();
    void decideWaiting();
    std::optional<RemoteItem> itemAt(const QString& path) const;

    IfExists m_policy;
    bool m_nobodyAsked;
    //! The first is asked about while m_isOpen.
    std::deque<Waiting> m_waiting;
    bool m_isOpen = false;
    int m_lastNumber = 0;
    //! By directory and name, of which a download of many files has few and short ones.
    QHash<QString, QHash<QString, Maker>> m_made;
    QSet<QString> m_written;
    bool m_quit = false;
};

} // namespace halvane::host
