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
    // The stamp of the error is its line in the log.
    (void)ORX_ECATCH(flush());
}

qsizetype DirectoryFlushes::count() const {
    const std::lock_guard lock(m_mutex);
    return m_directories.size();
}

void DirectoryFlushes::note(const QString& directory) {
    const std::lock_guard lock(m_mutex);
    m_directories.insert(directory);
}

Error DirectoryFlushes::flush() {
    QSet<QString> waiting;
    {
        const std::lock_guard lock(m_mutex);
        waiting.swap(m_directories);
    }
    Error first;
    for (const QString& directory : std::as_const(waiting)) {
        const Error error = AtomicFile::syncDirectory(directory);
        if (!error.hasError() || !QFileInfo::exists(directory))
            continue;
        note(directory);
        if (!first.hasError())
            first = error;
    }
    return first;
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
