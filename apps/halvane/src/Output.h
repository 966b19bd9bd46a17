#pragma once

#include "CommandLine.h"

#include <Downloads.h>
#include <Error.h>
#include <HalvaneSessionTasks.h>
#include <Profiles.h>
#include <RemoteItem.h>

#include <QJsonObject>

namespace halvane::cli {

//! Everything the program prints goes through here. Results go to standard output, as text for people or as
//! one JSON object a line; messages and errors go to standard error. With --json an error is an object on
//! standard output too, so that a script needs to read one stream only. Names are escaped in text and exact
//! in JSON.
class Output {
public:
    explicit Output(const GlobalOptions& options);

    //! One item concerned. \a path is the local path (put, get) or the remote one. \a outcome is a word for
    //! scripts ("uploaded", "downloaded", "skipped", "created", "exists", "listed"); \a text the line for
    //! people. \a more: further keys.
    void item(const host::RemoteItem& item, const QString& path, const QString& outcome, const QString& text,
              const QJsonObject& more = {}) const;
    //! The lines of a listing.
    void listing(const QList<host::RemoteItem>& items, bool longFormat) const;
    void session(const host::Profile& profile, const orx::HalvaneUser& user, const QDateTime& expiresAt,
                 const QString& outcome) const;
    void loggedOut(const host::Profile& profile) const;
    //! A result of its own kind: \a object with --json, else \a text; an empty text prints nothing.
    void result(const QJsonObject& object, const QString& text) const;
    //! Rows in columns that line up; the cells are shown as they are: escape them before.
    void table(const QList<QStringList>& rows) const;
    bool isJson() const { return m_options.json; }
    //! The keys that every item has.
    static QJsonObject jsonOf(const host::RemoteItem& item, const QString& path);
    //! ISO 8601 in UTC; null for an invalid time.
    static QJsonValue jsonOf(const QDateTime& time);
    //! Warnings are printed with --quiet too.
    void warnings(const orx::Warnings& warnings) const;
    //! The error in words, on standard error.
    void words(const orx::Error& error, const QString& text) const;
    //! Prints the error; returns its exit code.
    int error(const orx::Error& error) const;
    //! \a error with \a text in the place of its own words.
    int error(const orx::Error& error, const QString& text) const;

    //! What of a transfer failed, and why: an object each, or a table below \a title.
    void failures(const QList<host::DownloadFailure>& failures,
                  const QString& title = QStringLiteral("not downloaded:")) const;
    //! Rows in columns that line up, for people, on standard error below \a title; nothing without rows.
    void notes(const QString& title, const QList<QStringList>& rows) const;
    //! Ends a run of which more is said before: \a text, and as an object the error \a name; returns \a
    //! exitCode.
    int failedRun(int exitCode, const QString& name, const QString& text) const;

    //! \a exitCode, unless it is 0 and what was to be printed could not be written: a script would take half
    //! a list for the whole. Says so on standard error.
    int exitCodeAtEnd(int exitCode) const;

    //! A name or a path for people.
    QString shown(const QString& name) const;

private:
    GlobalOptions m_options;
    bool m_terminal;
};

} // namespace halvane::cli
