#include "QuietWatch.h"

#include <FileStamp.h>

#include <QDirIterator>
#include <QFile>

#include <algorithm>

namespace orx {

namespace {

// Adds what has that name, and tells whether it is a directory.
bool add(ContentStamp& stamp, const QString& path) {
    ++stamp.entries;
    const auto found = FileStamp::of(QFile::encodeName(path));
    if (!found)
        return false;
    stamp.changedMs = std::max(stamp.changedMs, found->modified / 1'000'000);
    stamp.bytes += found->isFile() ? found->size : 0;
    return found->isDirectory();
}

} // namespace

ContentStamp ContentStamp::of(const QString& path, const QStringList& companions) {
    ContentStamp stamp;
    const bool isDirectory = add(stamp, path);
    for (const QString& companion : companions)
        add(stamp, companion);
    if (isDirectory) {
        QDirIterator walk(path, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                          QDirIterator::Subdirectories);
        while (walk.hasNext())
            add(stamp, walk.next());
    }
    return stamp;
}

QuietWatch::Look QuietWatch::look(const ContentStamp& stamp, qint64 nowMs, Milliseconds waited) {
    if (m_last != stamp) {
        m_last = stamp;
        m_since = waited;
    }
    const Milliseconds age = std::max(Milliseconds(nowMs - stamp.changedMs), waited - m_since);
    if (age >= m_quietTime)
        return {State::Quiet, {}};
    if (waited >= m_patience)
        return {State::GivenUp, {}};
    const Milliseconds missing = m_quietTime - std::max(age, Milliseconds(0));
    return {State::Restless, std::max(Milliseconds(1), std::min(missing, m_patience - waited))};
}

} // namespace orx
