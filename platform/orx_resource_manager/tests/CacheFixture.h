#pragma once

#include "ResourceCache.h"
#include "ResourceProbes.h"

#include <ContentHash.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orx::testing {

inline bool writeFile(const QString& path, const QByteArray& content) {
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

inline QByteArray readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline QString sha256(const QByteArray& content) {
    ContentHash hash;
    hash.add(content.constData(), content.size());
    return QString::fromLatin1(hash.hexDigest());
}

//! Brings a file under \a name by a worker, as downloads do.
inline auto fetchOf(const QString& name, const QByteArray& content) {
    return [name, content](const DirPath& directory) -> std::unique_ptr<Task> {
        return std::make_unique<probes::BodyTask>(
            [path = directory.child(name), content](probes::BodyTask*) {
                return writeFile(path, content) ? Error() : Error(ErrorCode::General, path);
            },
            Task::ExecutionMode::Worker);
    };
}

inline auto noFetch() {
    return [](const DirPath&) -> std::unique_ptr<Task> {
        ADD_FAILURE() << "fetched without need";
        return nullptr;
    };
}

//! A fetch that goes on until the test ends it.
class OpenFetch : public Task {
public:
    OpenFetch() : Task(QStringLiteral("open fetch")) {}

protected:
    void start() override {}
    void doCancel() override { finish(Error()); }
};

//! The locks of a cache (docs/cache.md) as another process sees them. What it holds is free when it goes.
class OtherLocks {
public:
    enum Which { Use, Fill, Place };
    static constexpr off_t kSweep = 0;
    static off_t of(const QString& subPath, Which which) {
        return (sha256(subPath.toUtf8()).left(15).toLongLong(nullptr, 16) << 2) + 4 + which;
    }

    explicit OtherLocks(const QString& root)
        : m_locks(::open(QFile::encodeName(root + QStringLiteral("/state/locks")).constData(),
                         O_RDWR | O_CLOEXEC)) {
        EXPECT_GE(m_locks, 0);
    }
    ~OtherLocks() { ::close(m_locks); }
    OtherLocks(const OtherLocks&) = delete;
    OtherLocks& operator=(const OtherLocks&) = delete;

    void hold(off_t byte) { EXPECT_EQ(control(F_OFD_SETLKW, F_WRLCK, byte), F_WRLCK); }
    void release(off_t byte) { EXPECT_EQ(control(F_OFD_SETLK, F_UNLCK, byte), F_UNLCK); }
    //! By somebody else.
    bool isHeld(off_t byte) const { return control(F_OFD_GETLK, F_WRLCK, byte) != F_UNLCK; }

private:
    int control(int command, short type, off_t byte) const {
        struct flock range {};
        range.l_type = type;
        range.l_whence = SEEK_SET;
        range.l_start = byte;
        range.l_len = 1;
        return ::fcntl(m_locks, command, &range) == 0 ? range.l_type : -1;
    }
    int m_locks;
};

//! Keeps what is brought to the place of an entry waiting while it lives.
class HeldPlace {
public:
    HeldPlace(const QString& root, const QString& subPath) : m_locks(root) {
        m_locks.hold(OtherLocks::of(subPath, OtherLocks::Place));
    }

private:
    OtherLocks m_locks;
};

//! Processes events until \a done.
template <typename Done>
void processUntil(Done done) {
    while (!done())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents | QEventLoop::AllEvents);
}

class CacheFixture : public ::testing::Test {
protected:
    QString path(const QString& name) const { return m_dir.filePath(name); }
    QString root() const { return path(QStringLiteral("cache")); }
    QString placeOf(const QString& subPath) const { return root() + QStringLiteral("/content/") + subPath; }
    QString database() const { return root() + QStringLiteral("/state/cache.sqlite"); }
    QStringList staged() const {
        return QDir(root() + QStringLiteral("/state/staging"))
            .entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    }

    std::unique_ptr<Task> fillTask(const QString& subPath, const QByteArray& content, bool replace = false) {
        return cache.fillTask(nullptr, subPath, fetchOf(subPath.section(u'/', -1), content),
                              replace ? ResourceCache::FillMode::Anew : ResourceCache::FillMode::Missing);
    }
    Error fill(const QString& subPath, const QByteArray& content, bool replace = false) {
        const auto task = fillTask(subPath, content, replace);
        task->exec();
        return task->waitForFinished();
    }
    QStringList subPaths() const {
        QStringList names;
        const auto entries = cache.entries();
        EXPECT_TRUE(entries) << entries.errorMessage().toStdString();
        if (entries)
            for (const ResourceCacheEntry& entry : *entries)
                names << entry.subPath;
        return names;
    }

private:
    QTemporaryDir m_dir;

protected:
    ResourceCache cache{root()};
};

} // namespace orx::testing
