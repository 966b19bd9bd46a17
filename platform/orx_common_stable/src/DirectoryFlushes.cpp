#include "DirectoryFlushes.h"

#include "AtomicFile.h"

#include <QFileInfo>
#include <QObject>
#include <QVariant>

#include <utility>

namespace orx {

namespace {

constexpr auto propertyName = "_orx_directoryFlushes";

thread_local DirectoryFlushes::Scope* innermost = nullptr;

} // namespace

DirectoryFlushes::~DirectoryFlushes() {
    (void)flush();
}

qsizetype DirectoryFlushes::count() const {
    const std::lock_guard lock(m_mutex);
    return m_directories.size();
}

void DirectoryFlushes::note(const QString& directory) {
    const std::lock_guard lock(m_mutex);
    m_directories.insert(directory, ++m_notes);
}

void DirectoryFlushes::forget(const QString& directory, quint64 note) {
    const std::lock_guard lock(m_mutex);
    const auto found = m_directories.constFind(directory);
    if (found != m_directories.constEnd() && *found == note)
        m_directories.erase(found);
}

QList<DirectoryFlushes::Failure> DirectoryFlushes::flush() {
    QHash<QString, quint64> waiting;
    {
        const std::lock_guard lock(m_mutex);
        waiting = m_directories;
    }
    QList<Failure> failures;
    for (auto entry = waiting.cbegin(); entry != waiting.cend(); ++entry) {
        Error error = AtomicFile::syncDirectory(entry.key());
        // The stamp of the error is its line in the log.
        if (error.hasError() && QFileInfo::exists(entry.key()))
            failures.append({entry.key(), ORX_ECATCH(error)});
        forget(entry.key(), entry.value());
    }
    return failures;
}

DirectoryFlushes::Scope::Scope(std::shared_ptr<DirectoryFlushes> flushes)
    : m_flushes(std::move(flushes)), m_outer(std::exchange(innermost, this)) {}

DirectoryFlushes::Scope::~Scope() {
    innermost = m_outer;
}

Error DirectoryFlushes::flushOrNote(const QString& directory) {
    if (!innermost || !innermost->m_flushes)
        return AtomicFile::syncDirectory(directory);
    innermost->m_flushes->note(directory);
    return {};
}

void DirectoryFlushes::attach(QObject& task, const std::shared_ptr<DirectoryFlushes>& flushes) {
    task.setProperty(propertyName, QVariant::fromValue(flushes));
}

std::shared_ptr<DirectoryFlushes> DirectoryFlushes::of(const QObject& task) {
    // Most objects have no such properties, and that is told faster than which they are.
    if (task.dynamicPropertyNames().isEmpty())
        return {};
    return task.property(propertyName).value<std::shared_ptr<DirectoryFlushes>>();
}

} // namespace orx
