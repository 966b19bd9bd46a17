#pragma once

#include "UploadAccount.h"

#include <QSet>

#include <optional>

namespace halvane::host {

//! Makes the report of an account, for one of the paths that were asked for. Used once, within
//! UploadAccount::report().
class UploadReckoning {
public:
    UploadReckoning(const UploadAccount& account, const LocalTree& before, const LocalTree& now,
                    bool wasStopped);
    //! What failed, was left out and was not tried is added to the lists.
    UploadedTree addTo(UploadReport& report);

private:
    using Word = UploadAccount::Word;
    struct Path {
        LocalEntry entry;
        //! It was there and is not any more.
        bool hasVanished = false;
    };
    //! Why a path without a word of its own did not go up.
    struct Reason {
        enum class Kind { NotTried, Vanished, Unexplained };
        Kind kind = Kind::Unexplained;
        QString text;
    };
    void collect(const LocalTree& before, const LocalTree& now);
    void collectWords(const QSet<QString>& seen);
    void collectErrors();
    void collectVanished();
    void collectFiles();

    bool isWithin(const QString& path) const;
    QStringList directoriesAbove(const QString& path) const;
    //! Whether the error of a directory is none of something in it.
    bool isOwnError(const QString& directory) const;
    std::optional<orx::Error> ownErrorAbove(const QString& path) const;
    //! The outermost directory above that has vanished; empty without.
    QString vanishedAbove(const QString& path) const;
    bool isFile(const Path& path) const { return path.entry.isUpload() || hasWord(path.entry.path); }
    //! A directory of which nothing but itself could go up.
    bool isFileless(const Path& path) const;
    bool hasWord(const QString& path) const { return m_account.isKnown(path); }
    Reason reasonOf(const Path& path) const;

    void add(const Path& path);
    bool addWord(const LocalEntry& entry);
    bool addRefused(const Path& path);
    void addDirectory(const Path& path);
    void addMissing(const Path& path);
    void addNotTried(const LocalEntry& entry, const QString& text);
    //! What the directories above \a path have in common is as before.
    void addToDirectories(const QString& path, const QString& reason);
    void addFailure(const QString& path, const orx::Error& error);
    void addLeftOut(const QString& path, const QString& reason, const QString& text);
    //! A directory nothing of which was tried is one line.
    void groupNotTried();

    const UploadAccount& m_account;
    const QString m_source;
    const bool m_wasStopped;
    QList<Path> m_paths;
    //! Of failed directories: the errors of what is in them.
    QHash<QString, QSet<QString>> m_errorsBelow;
    //! Outermost directories that have vanished, with the number of files that did not go up for that.
    QHash<QString, int> m_vanished;
    //! Directories that hold something that was to go up.
    QSet<QString> m_withFiles;
    //! Each path by itself.
    QList<NotTriedPath> m_notTried;
    //! Directories that have something that was tried, or was not for another reason.
    QHash<QString, QString> m_onlyReason;
    QSet<QString> m_mixed;
    UploadReport* m_report = nullptr;
    UploadedTree m_tree;
};

} // namespace halvane::host
