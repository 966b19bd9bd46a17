#include "UploadReckoning.h"

#include <ErrorText.h>

#include <QFileInfo>

namespace halvane::host {

using orx::Error;
using orx::ErrorCode;
using orx::UploadFileInputValidation;
using orx::UploadRefusal;
using Kind = LocalEntry::Kind;

namespace {

QString reasonWord(UploadRefusal refusal) {
    switch (refusal) {
    case UploadRefusal::Hidden:
        return QStringLiteral("hidden");
    case UploadRefusal::DirectoryLink:
    case UploadRefusal::Missing:
        return QStringLiteral("link");
    case UploadRefusal::Special:
        return QStringLiteral("special");
    case UploadRefusal::Companion:
        return QStringLiteral("companion");
    default:
        return QStringLiteral("filter");
    }
}

// Somebody wanted it to go up; a rule did not keep it back.
bool isFailure(UploadRefusal refusal) {
    return refusal == UploadRefusal::StillWritten || refusal == UploadRefusal::UnreadableName;
}

// It was listed, and was not there any more when it was looked at.
bool isGone(const LocalEntry& entry) {
    return entry.refusal == UploadRefusal::Missing && !QFileInfo(entry.path).isSymLink();
}

QString explanationOf(const LocalEntry& entry) {
    if (entry.refusal == UploadRefusal::Missing)
        return QStringLiteral("\"%1\" is a link to something that does not exist.").arg(entry.path);
    return UploadFileInputValidation::explanation(entry.refusal, entry.path);
}

QString keyOf(const Error& error) {
    return QStringLiteral("%1 %2 %3").arg(int(error.domain())).arg(error.code()).arg(error.errorMessage());
}

QString vanishedText(const QString& path) {
    return QStringLiteral("\"%1\" has vanished while the upload ran.").arg(path);
}

} // namespace

UploadReckoning::UploadReckoning(const UploadAccount& account, const LocalTree& before, const LocalTree& now,
                                 bool wasStopped)
    : m_account(account), m_source(before.source), m_wasStopped(wasStopped) {
    collect(before, now);
    collectErrors();
    collectVanished();
    collectFiles();
}

// ---- what there is

void UploadReckoning::collect(const LocalTree& before, const LocalTree& now) {
    QHash<QString, const LocalEntry*> found;
    for (const LocalEntry& entry : now.entries)
        found.insert(entry.path, &entry);
    QSet<QString> seen;
    for (const LocalEntry& entry : before.entries) {
        const LocalEntry* const still = found.value(entry.path);
        const bool hasVanished = !still || isGone(*still);
        m_paths.append({hasVanished ? entry : *still, hasVanished});
        seen.insert(entry.path);
    }
    for (const LocalEntry& entry : now.entries) {
        if (!seen.contains(entry.path))
            m_paths.append({entry, isGone(entry)});
        seen.insert(entry.path);
    }
    collectWords(seen);
}

// It came after the first look and was gone before the last one.
void UploadReckoning::collectWords(const QSet<QString>& seen) {
    QStringList more;
    for (auto entry = m_account.m_entries.begin(); entry != m_account.m_entries.end(); ++entry) {
        if (isWithin(entry.key()) && !seen.contains(entry.key()))
            more.append(entry.key());
    }
    more.sort();
    for (const QString& path : std::as_const(more)) {
        LocalEntry entry;
        entry.path = path;
        entry.kind = Kind::File;
        m_paths.append({entry, true});
    }
}

void UploadReckoning::collectErrors() {
    for (auto error = m_account.m_folderErrors.begin(); error != m_account.m_folderErrors.end(); ++error)
        m_errorsBelow.insert(error.key(), {});
    const auto add = [this](const QString& path, const Error& error) {
        for (const QString& above : directoriesAbove(path)) {
            if (const auto below = m_errorsBelow.find(above); below != m_errorsBelow.end())
                below->insert(keyOf(error));
        }
    };
    for (auto entry = m_account.m_entries.begin(); entry != m_account.m_entries.end(); ++entry) {
        if (entry->word == Word::Failed)
            add(entry.key(), entry->error);
    }
    for (auto error = m_account.m_folderErrors.begin(); error != m_account.m_folderErrors.end(); ++error)
        add(error.key(), *error);
}

void UploadReckoning::collectVanished() {
    for (const Path& path : std::as_const(m_paths)) {
        if (path.hasVanished && path.entry.kind == Kind::Directory &&
            vanishedAbove(path.entry.path).isEmpty())
            m_vanished.insert(path.entry.path, 0);
    }
    for (const Path& path : std::as_const(m_paths)) {
        if (!path.entry.isUpload() || hasWord(path.entry.path))
            continue;
        if (const QString above = vanishedAbove(path.entry.path); !above.isEmpty())
            ++m_vanished[above];
    }
}

void UploadReckoning::collectFiles() {
    for (const Path& path : std::as_const(m_paths)) {
        if (!isFile(path))
            continue;
        for (const QString& above : directoriesAbove(path.entry.path))
            m_withFiles.insert(above);
    }
}

// ---- questions

bool UploadReckoning::isWithin(const QString& path) const {
    return path == m_source || (path.startsWith(m_source) && path.mid(m_source.size()).startsWith(u'/'));
}

// From the innermost one to the source.
QStringList UploadReckoning::directoriesAbove(const QString& path) const {
    QStringList found;
    for (QString above = path; above.size() > m_source.size() && isWithin(above);) {
        above.truncate(above.lastIndexOf(u'/'));
        found.append(above);
    }
    return found;
}

bool UploadReckoning::isOwnError(const QString& directory) const {
    const auto error = m_account.m_folderErrors.constFind(directory);
    return error != m_account.m_folderErrors.constEnd() &&
           !m_errorsBelow.value(directory).contains(keyOf(*error));
}

std::optional<Error> UploadReckoning::ownErrorAbove(const QString& path) const {
    for (const QString& above : directoriesAbove(path)) {
        if (isOwnError(above))
            return m_account.m_folderErrors.value(above);
    }
    return std::nullopt;
}

QString UploadReckoning::vanishedAbove(const QString& path) const {
    for (const QString& above : directoriesAbove(path)) {
        if (m_vanished.contains(above))
            return above;
    }
    return {};
}

bool UploadReckoning::isFileless(const Path& path) const {
    return path.entry.kind == Kind::Directory && path.entry.problem.isEmpty() && !hasWord(path.entry.path) &&
           !m_withFiles.contains(path.entry.path);
}

UploadReckoning::Reason UploadReckoning::reasonOf(const Path& path) const {
    const QString& at = path.entry.path;
    if (const QString above = vanishedAbove(at); m_vanished.value(above) > 0)
        return {Reason::Kind::NotTried, vanishedText(above)};
    if (const auto error = ownErrorAbove(at); error && !error->isCanceled())
        return {Reason::Kind::NotTried, errorText(*error)};
    const auto source = m_account.m_entries.constFind(m_source);
    if (at != m_source && source != m_account.m_entries.constEnd() && source->word == Word::Failed)
        return {Reason::Kind::NotTried, errorText(source->error)};
    if (path.hasVanished)
        return {Reason::Kind::Vanished, vanishedText(at)};
    if (m_wasStopped || ownErrorAbove(at) || m_account.m_folderErrors.contains(at))
        return {Reason::Kind::NotTried, QStringLiteral("The upload ended before its turn came.")};
    return {Reason::Kind::Unexplained,
            QStringLiteral("Nothing is known of it; it came perhaps while the upload ran.")};
}

// ---- the report

UploadedTree UploadReckoning::addTo(UploadReport& report) {
    m_report = &report;
    m_tree.path = m_source;
    m_tree.isFolder = m_paths.first().entry.kind == Kind::Directory;
    m_tree.folder = m_account.m_folders.value(m_source);
    for (const Path& path : std::as_const(m_paths))
        add(path);
    groupNotTried();
    report.done += m_tree.uploaded + m_tree.unchanged;
    return m_tree;
}

void UploadReckoning::add(const Path& path) {
    const qsizetype notTried = m_notTried.size();
    m_tree.files += isFile(path) ? 1 : 0;
    if (!addWord(path.entry) && !addRefused(path)) {
        if (path.entry.kind == Kind::Directory)
            addDirectory(path);
        else
            addMissing(path);
    }
    if (isFile(path) || isFileless(path))
        addToDirectories(path.entry.path, m_notTried.size() > notTried ? m_notTried.last().text : QString());
}

void UploadReckoning::addToDirectories(const QString& path, const QString& reason) {
    for (const QString& above : directoriesAbove(path)) {
        const auto first = m_onlyReason.constFind(above);
        if (first == m_onlyReason.constEnd())
            m_onlyReason.insert(above, reason);
        else if (*first != reason)
            m_mixed.insert(above);
    }
}

bool UploadReckoning::addWord(const LocalEntry& entry) {
    const auto known = m_account.m_entries.constFind(entry.path);
    if (known == m_account.m_entries.constEnd())
        return false;
    switch (known->word) {
    case Word::Uploaded:
        ++m_tree.uploaded;
        break;
    case Word::Unchanged:
        ++m_tree.unchanged;
        break;
    case Word::Skipped:
        ++m_tree.skipped;
        addLeftOut(entry.path, QStringLiteral("policy"),
                   QStringLiteral("The folder has a file of that name with another content."));
        break;
    case Word::Failed:
        addFailure(entry.path, known->error);
        break;
    case Word::Canceled:
        addNotTried(entry, QStringLiteral("The upload ended before it was complete."));
        break;
    }
    return true;
}

bool UploadReckoning::addRefused(const Path& path) {
    const LocalEntry& entry = path.entry;
    if (!entry.problem.isEmpty()) {
        addFailure(entry.path, Error(ErrorCode::FileNotReadable, entry.problem));
        return true;
    }
    if (entry.refusal == UploadRefusal::None)
        return false;
    if (isFailure(entry.refusal)) {
        addFailure(entry.path, Error(ErrorCode::InvalidArgument, explanationOf(entry)));
        return true;
    }
    ++m_tree.leftOut;
    if (path.hasVanished && entry.refusal == UploadRefusal::Missing)
        addLeftOut(entry.path, QStringLiteral("vanished"), vanishedText(entry.path));
    else
        addLeftOut(entry.path, reasonWord(entry.refusal), explanationOf(entry));
    return true;
}

// A directory whose failure is that of something in it needs no line of its own.
void UploadReckoning::addDirectory(const Path& path) {
    const QString& at = path.entry.path;
    if (const int lost = m_vanished.value(at); lost > 0)
        return addFailure(
            at, Error(ErrorCode::NotFound,
                      QStringLiteral("%1 %2 of its files did not go up.").arg(vanishedText(at)).arg(lost)));
    const Error error = m_account.m_folderErrors.value(at);
    const bool isOwn = isOwnError(at) && !(m_wasStopped && !m_errorsBelow.value(at).isEmpty());
    if (isOwn && !error.isCanceled())
        addFailure(at, error);
    else if (isFileless(path) && !m_account.m_foldersMade.contains(at))
        addMissing(path);
}

void UploadReckoning::addMissing(const Path& path) {
    const QString& at = path.entry.path;
    switch (const Reason reason = reasonOf(path); reason.kind) {
    case Reason::Kind::NotTried:
        return addNotTried(path.entry, reason.text);
    case Reason::Kind::Vanished:
        return addFailure(at, Error(ErrorCode::NotFound, reason.text));
    case Reason::Kind::Unexplained:
        ++m_tree.unexplained;
        ++m_report->unexplained;
        return addLeftOut(at, QStringLiteral("unexplained"), reason.text);
    }
}

void UploadReckoning::addFailure(const QString& path, const Error& error) {
    ++m_tree.failed;
    m_report->failures.append({m_source, path, error});
}

void UploadReckoning::addLeftOut(const QString& path, const QString& reason, const QString& text) {
    m_report->leftOut.append({m_source, path, reason, text});
}

void UploadReckoning::addNotTried(const LocalEntry& entry, const QString& text) {
    ++m_tree.notTried;
    addLeftOut(entry.path, QStringLiteral("not_tried"), text);
    const bool isDirectory = entry.kind == Kind::Directory;
    m_notTried.append({entry.path, isDirectory, isDirectory ? 0 : 1, text});
}

void UploadReckoning::groupNotTried() {
    QHash<QString, qsizetype> groups;
    for (const NotTriedPath& path : std::as_const(m_notTried)) {
        QString whole = path.isDirectory ? path.path : QString();
        for (const QString& above : directoriesAbove(path.path)) {
            if (!m_mixed.contains(above))
                whole = above;
        }
        const auto group = whole.isEmpty() ? groups.end() : groups.find(whole);
        if (group != groups.end()) {
            m_report->notTried[*group].files += path.files;
            continue;
        }
        if (!whole.isEmpty())
            groups.insert(whole, m_report->notTried.size());
        m_report->notTried.append(
            {whole.isEmpty() ? path.path : whole, !whole.isEmpty(), path.files, path.text});
    }
}

} // namespace halvane::host
