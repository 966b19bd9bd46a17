#include "QuietWatch.h"

#include <QDateTime>
#include <QDirIterator>
#include <QFileInfo>

#include <algorithm>

namespace orx {

namespace {

void add(ContentStamp& stamp, const QFileInfo& info) {
    stamp.changedMs = std::max(stamp.changedMs, info.lastModified().toMSecsSinceEpoch());
    stamp.bytes += info.isFile() ? info.size() : 0;
    ++stamp.entries;
}

} // namespace

ContentStamp ContentStamp::of(const QString& path, const QStringList& companions) {
    ContentStamp stamp;
    const QFileInfo top(path);
    add(stamp, top);
    for (const QString& companion : companions)
        add(stamp, QFileInfo(companion));
    if (top.isDir()) {
        QDirIterator walk(path, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                          QDirIterator::Subdirectories);
        while (walk.hasNext()) {
            walk.next();
            add(stamp, walk.fileInfo());
        }
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
