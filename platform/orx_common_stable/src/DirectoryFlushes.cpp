#include "DirectoryFlushes.h"

#include "FilePlace.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QObject>
#include <QVariant>

#include <utility>

namespace orx {

namespace {

constexpr auto propertyName = "_orx_directoryFlushes";

thread_local DirectoryFlushes::Scope* innermost = nullptr;

QString directoryOf(const QByteArray& path) {
    return QFileInfo(QFile::decodeName(path)).path();
}

Error flushNameOf(const QByteArray& path) {
    const int reason = FilePlace::flushName(path);
    if (reason == 0)
        return {};
    return Error::fromErrno(
        reason, QCoreApplication::translate("orx::DirectoryFlushes", "Could not flush the directory \"%1\"")
                    .arg(directoryOf(path)));
}

} // namespace

DirectoryFlushes::~DirectoryFlushes() {
    (void)flush();
}

qsizetype DirectoryFlushes::count() const {
    const std::lock_guard lock(m_mutex);
    return m_directories.size();
}

void DirectoryFlushes::note(const QByteArray& path) {
    const std::lock_guard lock(m_mutex);
    m_directories.insert(directoryOf(path), {path, ++m_notes});
}

void DirectoryFlushes::forget(const QString& directory, quint64 number) {
    const std::lock_guard lock(m_mutex);
    const auto found = m_directories.constFind(directory);
    if (found != m_directories.constEnd() && found->number == number)
        m_directories.erase(found);
}

QList<DirectoryFlushes::Failure> DirectoryFlushes::flush() {
    QHash<QString, Note> waiting;
    {
        const std::lock_guard lock(m_mutex);
        waiting = m_directories;
    }
    QList<Failure> failures;
    for (auto entry = waiting.cbegin(); entry != waiting.cend(); ++entry) {
        Error error = flushNameOf(entry->path);
        // The stamp of the error is its line in the log.
        if (error.hasError() && QFileInfo::exists(entry.key()))
            failures.append({entry.key(), ORX_ECATCH(error)});
        forget(entry.key(), entry->number);
    }
    return failures;
}

DirectoryFlushes::Scope::Scope(std::shared_ptr<DirectoryFlushes> flushes)
    : m_flushes(std::move(flushes)), m_outer(std::exchange(innermost, this)) {}

DirectoryFlushes::Scope::~Scope() {
    innermost = m_outer;
}

Error DirectoryFlushes::flushOrNoteName(const QByteArray& path) {
    if (!innermost || !innermost->m_flushes)
        return flushNameOf(path);
    innermost->m_flushes->note(path);
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
