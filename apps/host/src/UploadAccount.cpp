#include "UploadAccount.h"

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

QString explanationOf(const LocalEntry& entry) {
    if (entry.refusal == UploadRefusal::Missing && QFileInfo(entry.path).isSymLink())
        return QStringLiteral("\"%1\" is a link to something that does not exist.").arg(entry.path);
    return UploadFileInputValidation::explanation(entry.refusal, entry.path);
}

QString parentOf(const QString& path) {
    return path.left(path.lastIndexOf(u'/'));
}

} // namespace

void UploadAccount::set(const QString& path, Word word, const Error& error) {
    m_entries.insert(path, {word, error});
    if (word != Word::Failed)
        return;
    for (QString above = parentOf(path); !above.isEmpty(); above = parentOf(above))
        m_hasFailures.insert(above);
}

void UploadAccount::setDone(const QString& path, UploadedFile::Outcome outcome) {
    using Outcome = UploadedFile::Outcome;
    ++m_done;
    set(path, outcome == Outcome::Uploaded    ? Word::Uploaded
              : outcome == Outcome::Unchanged ? Word::Unchanged
                                              : Word::Skipped);
}

void UploadAccount::setFailed(const QString& path, const Error& error) {
    ++m_failed;
    set(path, Word::Failed, error);
}

void UploadAccount::setCanceled(const QString& path) {
    if (!m_entries.contains(path))
        set(path, Word::Canceled);
}

void UploadAccount::setFolderFailed(const QString& path, const Error& error) {
    m_folderErrors.insert(path, error);
    for (QString above = parentOf(path); !above.isEmpty(); above = parentOf(above))
        m_hasFailures.insert(above);
}

void UploadAccount::setFolder(const QString& source, const RemoteItem& folder) {
    m_folders.insert(source, folder);
}

QStringList UploadAccount::unfinishedPaths() const {
    QStringList paths;
    for (auto entry = m_entries.begin(); entry != m_entries.end(); ++entry) {
        if (entry->word == Word::Failed || entry->word == Word::Canceled)
            paths.append(entry.key());
    }
    paths.sort();
    return paths;
}

const Error* UploadAccount::folderErrorAbove(const QString& path) const {
    for (QString above = parentOf(path); !above.isEmpty(); above = parentOf(above)) {
        const auto found = m_folderErrors.constFind(above);
        if (found != m_folderErrors.constEnd())
            return &*found;
    }
    return nullptr;
}

bool UploadAccount::addKnown(UploadReport& report, UploadedTree& tree, const LocalEntry& entry) const {
    const auto known = m_entries.constFind(entry.path);
    if (known == m_entries.constEnd())
        return false;
    switch (known->word) {
    case Word::Uploaded:
        ++tree.uploaded;
        break;
    case Word::Unchanged:
        ++tree.unchanged;
        break;
    case Word::Skipped:
        ++tree.skipped;
        report.leftOut.append({tree.path, entry.path, QStringLiteral("policy"),
                               QStringLiteral("The folder has a file of that name with another content.")});
        break;
    case Word::Failed:
        ++tree.failed;
        report.failures.append({tree.path, entry.path, known->error});
        break;
    case Word::Canceled:
        ++tree.notTried;
        report.leftOut.append({tree.path, entry.path, QStringLiteral("not_tried"),
                               QStringLiteral("The upload ended before it was complete.")});
        break;
    }
    return true;
}

bool UploadAccount::addRefused(UploadReport& report, UploadedTree& tree, const LocalEntry& entry) const {
    if (!entry.problem.isEmpty()) {
        ++tree.failed;
        report.failures.append({tree.path, entry.path, Error(ErrorCode::FileNotReadable, entry.problem)});
        return true;
    }
    if (entry.refusal == UploadRefusal::None)
        return false;
    if (isFailure(entry.refusal)) {
        ++tree.failed;
        report.failures.append(
            {tree.path, entry.path, Error(ErrorCode::InvalidArgument, explanationOf(entry))});
        return true;
    }
    ++tree.leftOut;
    report.leftOut.append({tree.path, entry.path, reasonWord(entry.refusal), explanationOf(entry)});
    return true;
}

void UploadAccount::addMissing(UploadReport& report, UploadedTree& tree, const LocalEntry& entry,
                               bool wasStopped) const {
    const Error* const above = folderErrorAbove(entry.path);
    if (wasStopped || above) {
        ++tree.notTried;
        report.leftOut.append(
            {tree.path, entry.path, QStringLiteral("not_tried"),
             above ? errorText(*above) : QStringLiteral("The upload ended before its turn came.")});
        return;
    }
    ++tree.unexplained;
    ++report.unexplained;
    report.leftOut.append({tree.path, entry.path, QStringLiteral("unexplained"),
                           QStringLiteral("Nothing is known of it; it came perhaps while the upload ran.")});
}

// A folder whose failure is that of something in it needs no line of its own.
void UploadAccount::addFailedFolder(UploadReport& report, UploadedTree& tree, const LocalEntry& entry) const {
    const auto failed = m_folderErrors.constFind(entry.path);
    if (failed == m_folderErrors.constEnd() || m_hasFailures.contains(entry.path) || failed->isCanceled())
        return;
    ++tree.failed;
    report.failures.append({tree.path, entry.path, *failed});
}

void UploadAccount::addTo(UploadReport& report, UploadedTree& tree, const LocalEntry& entry,
                          bool wasStopped) const {
    if (entry.isUpload() || m_entries.contains(entry.path))
        ++tree.files;
    if (addKnown(report, tree, entry) || addRefused(report, tree, entry))
        return;
    if (entry.kind == Kind::Directory)
        addFailedFolder(report, tree, entry);
    else
        addMissing(report, tree, entry, wasStopped);
}

UploadReport UploadAccount::report(const QList<LocalTree>& trees, bool wasStopped) const {
    UploadReport report;
    for (const LocalTree& local : trees) {
        UploadedTree tree;
        tree.path = local.source;
        tree.isFolder = local.root().kind == Kind::Directory;
        tree.folder = m_folders.value(local.source);
        const bool isRefused = tree.isFolder && m_entries.contains(local.source);
        for (const LocalEntry& entry : local.entries)
            addTo(report, tree, entry, wasStopped || isRefused);
        report.done += tree.uploaded + tree.unchanged + tree.skipped;
        report.trees.append(tree);
    }
    return report;
}

} // namespace halvane::host
