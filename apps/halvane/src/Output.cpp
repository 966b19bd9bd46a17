#include "Output.h"

#include "TextForms.h"

#include <ErrorText.h>
#include <ExitCodes.h>

#include <QJsonArray>
#include <QJsonDocument>

#include <cstdio>

#include <errno.h>
#include <unistd.h>

namespace halvane::cli {

using host::RemoteItem;
using orx::Error;

namespace {

// errno of the first write to standard output that failed.
int outputErrno = 0;

void writeLine(FILE* stream, const QByteArray& line) {
    const bool written =
        std::fwrite(line.constData(), 1, size_t(line.size()), stream) == size_t(line.size()) &&
        std::fputc('\n', stream) != EOF && std::fflush(stream) == 0;
    if (!written && stream == stdout && outputErrno == 0)
        outputErrno = errno;
}

void writeText(FILE* stream, const QString& text) {
    writeLine(stream, text.toUtf8());
}

void writeJson(const QJsonObject& object) {
    writeLine(stdout, QJsonDocument(object).toJson(QJsonDocument::Compact));
}

QJsonObject userObject(const orx::HalvaneUser& user) {
    QJsonArray groups;
    for (const orx::HalvaneUser::Group& group : user.groups)
        groups.append(QJsonObject{{QStringLiteral("id"), group.id}, {QStringLiteral("name"), group.name}});
    return {{QStringLiteral("type"), QStringLiteral("user")},
            {QStringLiteral("id"), user.id},
            {QStringLiteral("name"), user.name},
            {QStringLiteral("is_admin"), user.isAdmin},
            {QStringLiteral("groups"), groups}};
}

QJsonObject errorObject(const Error& error, const QString& text) {
    return {{QStringLiteral("error"), host::errorName(error.domain(), error.code())},
            {QStringLiteral("domain"), int(error.domain())},
            {QStringLiteral("code"), error.code()},
            {QStringLiteral("exit_code"), int(host::exitCodeOf(error))},
            {QStringLiteral("message"), text}};
}

// Columns that line up: everything but the last one is padded to its widest cell.
QStringList aligned(const QList<QStringList>& rows) {
    QList<qsizetype> widths;
    for (const QStringList& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (qsizetype i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    }
    QStringList lines;
    for (const QStringList& row : rows) {
        QString line;
        for (qsizetype i = 0; i + 1 < row.size(); ++i)
            line += row[i].leftJustified(widths[i]) + QStringLiteral("  ");
        lines.append(line + row.last());
    }
    return lines;
}

} // namespace

QJsonValue Output::jsonOf(const QDateTime& time) {
    return time.isValid() ? QJsonValue(time.toUTC().toString(Qt::ISODateWithMs)) : QJsonValue();
}

QJsonObject Output::jsonOf(const RemoteItem& item, const QString& path) {
    QJsonObject object{
        {QStringLiteral("type"), item.isFile() ? QStringLiteral("file") : QStringLiteral("folder")},
        {QStringLiteral("id"), item.id},
        {QStringLiteral("name"), item.name},
        {QStringLiteral("path"), path},
        {QStringLiteral("reference"), item.reference()},
        {QStringLiteral("version"), QJsonValue()},
        {QStringLiteral("size"), QJsonValue()},
        {QStringLiteral("sha256"), QJsonValue()}};
    if (item.isFolder())
        return object;
    object[QStringLiteral("version")] = item.version;
    object[QStringLiteral("size")] = item.size;
    if (!item.sha256.isEmpty())
        object[QStringLiteral("sha256")] = item.sha256;
    object[QStringLiteral("alias")] = item.alias;
    object[QStringLiteral("modified_at")] = jsonOf(item.modifiedAt);
    return object;
}

Output::Output(const GlobalOptions& options)
    : m_options(options), m_terminal(::isatty(STDOUT_FILENO) || ::isatty(STDERR_FILENO)) {}

QString Output::shown(const QString& name) const {
    return printable(name, m_terminal ? Escaping::AlsoDirectionMarks : Escaping::ControlCharacters);
}

void Output::item(const RemoteItem& item, const QString& path, const QString& outcome, const QString& text,
                  const QJsonObject& more) const {
    QJsonObject object = jsonOf(item, path);
    object[QStringLiteral("outcome")] = outcome;
    for (auto key = more.begin(); key != more.end(); ++key)
        object[key.key()] = key.value();
    result(object, text);
}

void Output::result(const QJsonObject& object, const QString& text) const {
    if (m_options.json)
        writeJson(object);
    else if (!text.isEmpty())
        writeText(stdout, text);
}

void Output::table(const QList<QStringList>& rows) const {
    for (const QString& line : aligned(rows))
        writeText(stdout, line);
}

void Output::listing(const QList<RemoteItem>& items, bool longFormat) const {
    QList<QStringList> rows;
    for (const RemoteItem& item : items) {
        if (m_options.json) {
            writeJson(jsonOf(item, item.path));
            continue;
        }
        const QString name =
            shown(item.name) + (item.isFolder() && item.name != u"/" ? QStringLiteral("/") : QString());
        if (!longFormat)
            rows.append({name});
        else
            rows.append({item.reference(), item.isFile() ? bytesText(item.size) : QStringLiteral("-"),
                         timeText(item.modifiedAt),
                         item.createdBy.isEmpty() ? QStringLiteral("-") : shown(item.createdBy), name});
    }
    table(rows);
}

void Output::session(const host::Profile& profile, const orx::HalvaneUser& user, const QDateTime& expiresAt,
                     const QString& outcome) const {
    if (m_options.json) {
        QJsonObject object = userObject(user);
        object[QStringLiteral("server")] = profile.url.toString();
        object[QStringLiteral("profile")] = profile.name;
        object[QStringLiteral("token_expires_at")] = jsonOf(expiresAt);
        object[QStringLiteral("outcome")] = outcome;
        return writeJson(object);
    }
    QStringList groups;
    for (const orx::HalvaneUser::Group& group : user.groups)
        groups.append(shown(group.name));
    QString text =
        QStringLiteral("%1 at %2 (profile %3)").arg(shown(user.name), profile.url.toString(), profile.name);
    if (user.isAdmin)
        text += QStringLiteral(", administrator");
    if (!groups.isEmpty())
        text += QStringLiteral(", groups: ") + groups.join(QStringLiteral(", "));
    if (expiresAt.isValid())
        text += QStringLiteral(", until ") + timeText(expiresAt);
    writeText(stdout, text);
}

void Output::loggedOut(const host::Profile& profile) const {
    if (m_options.json)
        return writeJson({{QStringLiteral("type"), QStringLiteral("logout")},
                          {QStringLiteral("name"), profile.userName},
                          {QStringLiteral("server"), profile.url.toString()},
                          {QStringLiteral("profile"), profile.name}});
    writeText(stdout,
              QStringLiteral("logged out of %1 (profile %2)").arg(profile.url.toString(), profile.name));
}

void Output::warnings(const orx::Warnings& warnings) const {
    for (const QString& warning : warnings)
        writeText(stderr, QStringLiteral("halvane: warning: ") + shown(warning));
}

void Output::failures(const QList<host::DownloadFailure>& failures, const QString& title) const {
    QList<QStringList> rows;
    for (const host::DownloadFailure& failure : failures) {
        const QString text = host::errorText(failure.error);
        rows.append({QStringLiteral("  ") + shown(failure.path), shown(text)});
        if (!m_options.json)
            continue;
        QJsonObject object = errorObject(failure.error, text);
        object[QStringLiteral("type")] = QStringLiteral("failure");
        object[QStringLiteral("source")] = failure.source;
        object[QStringLiteral("path")] = failure.path;
        writeJson(object);
    }
    notes(title, rows);
}

void Output::notes(const QString& title, const QList<QStringList>& rows) const {
    if (rows.isEmpty())
        return;
    writeText(stderr, QStringLiteral("halvane: ") + title);
    for (const QString& line : aligned(rows))
        writeText(stderr, line);
}

int Output::failedRun(int exitCode, const QString& name, const QString& text) const {
    writeText(stderr, QStringLiteral("halvane: ") + shown(text));
    if (m_options.json)
        writeJson({{QStringLiteral("error"), name},
                   {QStringLiteral("domain"), 0},
                   {QStringLiteral("code"), int(orx::ErrorCode::General)},
                   {QStringLiteral("exit_code"), exitCode},
                   {QStringLiteral("message"), text}});
    return exitCode;
}

int Output::exitCodeAtEnd(int exitCode) const {
    // Whoever closed the pipe wants no more, as "head" does.
    if (exitCode != 0 || outputErrno == 0 || outputErrno == EPIPE)
        return exitCode;
    const Error error(
        orx::ErrorCode::FileNotWritable,
        QStringLiteral("What was asked for is done, but its result could not be written to standard "
                       "output: %1.")
            .arg(qt_error_string(outputErrno)));
    writeText(stderr, QStringLiteral("halvane: ") + error.errorMessage());
    return int(host::exitCodeOf(error));
}

int Output::error(const Error& error) const {
    return this->error(error, host::errorText(error));
}

void Output::words(const Error& error, const QString& text) const {
    warnings(error.warnings());
    writeText(stderr, QStringLiteral("halvane: ") + shown(text));
    if (m_options.traceErrors) {
        for (const QString& line : error.traceText().split(u'\n', Qt::SkipEmptyParts))
            writeText(stderr, QStringLiteral("  ") + shown(line));
    }
}

int Output::error(const Error& error, const QString& text) const {
    words(error, text);
    if (m_options.json)
        writeJson(errorObject(error, text));
    return int(host::exitCodeOf(error));
}

} // namespace halvane::cli
