#include "ClashAnswerer.h"

#include <QDir>

namespace halvane::host {

using orx::Error;
using orx::ErrorCode;
using orx::Result;

ClashAnswerer::ClashAnswerer(IfExists policy, Question question)
    : m_policy(policy == IfExists::Ask && !question ? IfExists::Fail : policy)
    , m_nobodyAsked(m_policy != policy)
    , m_question(std::move(question)) {}

void ClashAnswerer::remember(const QString& path, const RemoteItem& item) {
    const QFileInfo place(QDir::cleanPath(path));
    m_made[place.path()].insert(place.fileName(), {item.type, item.id, item.version});
}

std::optional<RemoteItem> ClashAnswerer::itemAt(const QString& path) const {
    const QFileInfo place(QDir::cleanPath(path));
    const auto directory = m_made.find(place.path());
    if (directory == m_made.end())
        return std::nullopt;
    const auto maker = directory->find(place.fileName());
    if (maker == directory->end())
        return std::nullopt;
    RemoteItem item;
    item.type = maker->type;
    item.id = maker->id;
    item.version = maker->version;
    return item;
}

QString ClashAnswerer::whoMade(const QString& path) const {
    const auto item = itemAt(path);
    return item ? item->reference() : QString();
}

bool ClashAnswerer::isOfFolder(const QString& path) const {
    const auto item = itemAt(path);
    return item && item->isFolder();
}

bool ClashAnswerer::beginWriting(const QStringList& paths) {
    const QSet<QString> wanted(paths.begin(), paths.end());
    if (m_written.intersects(wanted))
        return false;
    m_written.unite(wanted);
    return true;
}

void ClashAnswerer::endWriting(const QStringList& paths) {
    m_written.subtract(QSet<QString>(paths.begin(), paths.end()));
}

Error ClashAnswerer::refusal(const Clash& clash) const {
    const QString path = clash.existing.absoluteFilePath();
    if (!clash.madeBy.isEmpty())
        return Error(
            ErrorCode::AlreadyExists,
            QStringLiteral("\"%1\" is %2 of this same download and stays as it is. Get the other one "
                           "by a command of its own, into another directory or with --as.")
                .arg(path, clash.madeBy));
    const QString options = QStringLiteral("--if-exists overwrite, --if-exists skip or --if-exists rename");
    if (m_nobodyAsked)
        return Error(
            ErrorCode::AlreadyExists,
            QStringLiteral("\"%1\" exists already and is another file; it stays as it is. There is no "
                           "terminal to ask what to do: say it with %2, or choose another place.")
                .arg(path, options));
    return Error(
        ErrorCode::AlreadyExists,
        QStringLiteral("\"%1\" exists already and is another file; it stays as it is. Choose another "
                       "place, or say what is to happen with %2.")
            .arg(path, options));
}

Result<IfExists> ClashAnswerer::decide(const Clash& clash) {
    if (m_quit)
        return Error(ErrorCode::Canceled, QStringLiteral("The download was given up."));
    if (m_policy != IfExists::Ask) {
        if (m_policy == IfExists::Fail || (m_policy == IfExists::Overwrite && !clash.madeBy.isEmpty()))
            return refusal(clash);
        return m_policy;
    }
    const ClashAnswer answer = m_question(clash);
    IfExists decision = IfExists::Skip;
    switch (answer.choice) {
    case ClashAnswer::Choice::Quit:
        m_quit = true;
        return Error(ErrorCode::Canceled, QStringLiteral("The download was given up."));
    case ClashAnswer::Choice::Overwrite:
        decision = IfExists::Overwrite;
        break;
    case ClashAnswer::Choice::Rename:
        decision = IfExists::Rename;
        break;
    case ClashAnswer::Choice::Skip:
        break;
    }
    if (answer.forAll)
        m_policy = decision;
    return decision;
}

} // namespace halvane::host
