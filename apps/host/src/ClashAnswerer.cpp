#include "ClashAnswerer.h"

#include <QDir>

#include <algorithm>

namespace halvane::host {

using orx::Error;
using orx::ErrorCode;
using orx::Result;

ClashAnswerer::ClashAnswerer(IfExists policy, bool canBeAsked, QObject* parent)
    : QObject(parent)
    , m_policy(policy == IfExists::Ask && !canBeAsked ? IfExists::Fail : policy)
    , m_nobodyAsked(m_policy != policy) {}

ClashAnswerer::~ClashAnswerer() = default;

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

std::optional<ClashAnswerer::Decision> ClashAnswerer::decided(const Clash& clash) const {
    if (m_quit)
        return Error(ErrorCode::Canceled, QStringLiteral("The download was given up."));
    if (m_policy == IfExists::Ask)
        return std::nullopt;
    if (m_policy == IfExists::Fail || (m_policy == IfExists::Overwrite && !clash.madeBy.isEmpty()))
        return refusal(clash);
    return m_policy;
}

int ClashAnswerer::ask(const Clash& clash, Decided then) {
    m_waiting.push_back({++m_lastNumber, clash, std::move(then)});
    QMetaObject::invokeMethod(this, &ClashAnswerer::askNext, Qt::QueuedConnection);
    return m_lastNumber;
}

void ClashAnswerer::withdraw(int number) {
    const auto found = std::find_if(m_waiting.begin(), m_waiting.end(),
                                    [number](const Waiting& one) { return one.number == number; });
    if (found == m_waiting.end())
        return;
    const bool wasOpen = m_isOpen && found == m_waiting.begin();
    m_waiting.erase(found);
    if (!wasOpen)
        return;
    m_isOpen = false;
    Q_EMIT withdrawn();
    QMetaObject::invokeMethod(this, &ClashAnswerer::askNext, Qt::QueuedConnection);
}

void ClashAnswerer::askNext() {
    decideWaiting();
    if (m_isOpen || m_waiting.empty())
        return;
    m_isOpen = true;
    const Clash clash = m_waiting.front().clash;
    Q_EMIT asked(clash);
}

// What is said of all later ones holds for those that wait, too.
void ClashAnswerer::decideWaiting() {
    while (!m_isOpen && !m_waiting.empty()) {
        const auto decision = decided(m_waiting.front().clash);
        if (!decision)
            return;
        const Waiting one = std::move(m_waiting.front());
        m_waiting.pop_front();
        one.then(*decision);
    }
}

void ClashAnswerer::answer(const ClashAnswer& answer) {
    if (!m_isOpen)
        return;
    m_isOpen = false;
    QMetaObject::invokeMethod(this, &ClashAnswerer::askNext, Qt::QueuedConnection);
    if (answer.choice == ClashAnswer::Choice::Quit) {
        m_quit = true;
        Q_EMIT gaveUp();
        return; // the waiting ones hear of it, this one among them
    }
    IfExists decision = IfExists::Skip;
    if (answer.choice == ClashAnswer::Choice::Overwrite)
        decision = IfExists::Overwrite;
    else if (answer.choice == ClashAnswer::Choice::Rename)
        decision = IfExists::Rename;
    if (answer.forAll)
        m_policy = decision;
    const Waiting one = std::move(m_waiting.front());
    m_waiting.pop_front();
    one.then(decision);
}

} // namespace halvane::host
