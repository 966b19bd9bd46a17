#include "LocalStamp.h"

#include <FileTime.h>
#include <PackInput.h>

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <algorithm>

#include <sys/stat.h>

namespace halvane::host {

using std::chrono::system_clock;

namespace {

// More than the tick of any file system's clock.
constexpr std::chrono::seconds tick(10);

class Stamping {
public:
    //! \a name tells it from others of the same stamp.
    void add(const QString& path, const QString& name) {
        struct stat found = {};
        if (::stat(QFile::encodeName(path).constData(), &found) != 0)
            m_hasFailed = true;
        const bool isFile = S_ISREG(found.st_mode);
        const qint64 modified = isFile ? orx::nanosecondsOf(found.st_mtim) : 0;
        const qint64 changed = isFile ? orx::nanosecondsOf(found.st_ctim) : 0;
        m_changed = std::max({m_changed, modified, changed});
        QByteArray line;
        for (const qint64 number : {qint64(isFile), isFile ? qint64(found.st_size) : 0, modified, changed,
                                    isFile ? qint64(found.st_ino) : 0})
            line += QByteArray::number(number) + ' ';
        m_lines.append(line + name.toUtf8());
    }
    LocalStamp result() {
        if (m_hasFailed)
            return {};
        // A directory gives its entries in any order.
        std::sort(m_lines.begin(), m_lines.end());
        QCryptographicHash hash(QCryptographicHash::Sha256);
        for (const QByteArray& line : std::as_const(m_lines))
            hash.addData(line + '\0');
        const std::chrono::nanoseconds changed(m_changed);
        return {hash.result().toHex(),
                system_clock::time_point(std::chrono::duration_cast<system_clock::duration>(changed))};
    }

private:
    QByteArrayList m_lines;
    qint64 m_changed = 0;
    bool m_hasFailed = false;
};

void addBelow(Stamping& stamping, const QString& top) {
    QDirIterator below(top, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                       QDirIterator::Subdirectories);
    while (below.hasNext()) {
        const QString path = below.next();
        stamping.add(path, QDir(top).relativeFilePath(path));
    }
}

} // namespace

LocalStamp LocalStamp::of(const QString& path, bool isRawData) {
    Stamping stamping;
    if (!isRawData) {
        stamping.add(path, QString());
        return stamping.result();
    }
    const auto input = orx::vonk::PackInput::fromMs(path);
    if (!input.refusal.isEmpty())
        return {};
    for (const QString& top : QStringList(input.path) + input.companions) {
        stamping.add(top, QFileInfo(top).fileName());
        if (QFileInfo(top).isDir())
            addBelow(stamping, top);
    }
    return stamping.result();
}

bool LocalStamp::isReliable(Time taken) const {
    return !text.isEmpty() && changedAt + tick < taken;
}

} // namespace halvane::host
