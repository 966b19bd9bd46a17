// In which order what comes down is flushed and gets its name. A program of its own, since it looks at the
// system calls of its own process.
#include <DirectoryFlushes.h>
#include <FileUtils.h>
#include <PartialFile.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <mutex>
#include <sys/syscall.h>
#include <unistd.h>

using namespace orx;

namespace {

std::mutex logMutex;
QStringList calls;
//! What happens just before a flush.
std::function<void()> onFlush;

void note(const QString& call) {
    const std::lock_guard lock(logMutex);
    calls.append(call);
}

const QString hidden = QStringLiteral("hidden");

//! Names that were made up are told apart from those that stay by their dot alone; a file that never had one
//! is as hidden as they are.
QString shown(const QString& path) {
    const QString name = QFileInfo(path).fileName();
    return name.startsWith(u'.') || name.endsWith(QStringLiteral(" (deleted)")) ? hidden : name;
}

QString shownOf(int descriptor) {
    return shown(QFileInfo(QStringLiteral("/proc/self/fd/%1").arg(descriptor)).symLinkTarget());
}

void noteFlush(int descriptor) {
    note(QStringLiteral("flush ") + shownOf(descriptor));
}

//! What goes from one hidden name to another is not seen by anybody, and neither is what failed.
int noted(long result, const QString& from, const QString& to) {
    if (result == 0 && to != hidden)
        note(QStringLiteral("name %1 as %2").arg(from, to));
    return int(result);
}

} // namespace

// The program's own definitions take the place of the C library's for the libraries too.
extern "C" int fsync(int descriptor) {
    noteFlush(descriptor);
    if (onFlush)
        onFlush();
    return int(::syscall(SYS_fsync, descriptor));
}

extern "C" int fdatasync(int descriptor) {
    noteFlush(descriptor);
    return int(::syscall(SYS_fdatasync, descriptor));
}

extern "C" int renameat2(int from, const char* oldName, int to, const char* newName, unsigned int flags) {
    return noted(::syscall(SYS_renameat2, from, oldName, to, newName, flags),
                 shown(QFile::decodeName(oldName)), shown(QFile::decodeName(newName)));
}

extern "C" int linkat(int from, const char* oldName, int to, const char* newName, int flags) {
    const QByteArray name(oldName);
    constexpr QByteArrayView ownDescriptor("/proc/self/fd/");
    return noted(::syscall(SYS_linkat, from, oldName, to, newName, flags),
                 name.startsWith(ownDescriptor) ? shownOf(name.sliced(ownDescriptor.size()).toInt())
                                                : shown(QFile::decodeName(oldName)),
                 shown(QFile::decodeName(newName)));
}

extern "C" int link(const char* oldName, const char* newName) {
    return linkat(AT_FDCWD, oldName, AT_FDCWD, newName, 0);
}

extern "C" int renameat(int from, const char* oldName, int to, const char* newName) {
    return renameat2(from, oldName, to, newName, 0);
}

extern "C" int rename(const char* oldName, const char* newName) {
    return renameat2(AT_FDCWD, oldName, AT_FDCWD, newName, 0);
}

namespace {

QString text(const char* words) {
    return QString::fromLatin1(words);
}

class DownloadDurability : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(QDir(dir.path()).mkpath(text("source/sub")));
        ASSERT_TRUE(QDir(dir.path()).mkdir(text("out")));
        write("source/run", "content");
        write("source/sub/inner", "content");
    }
    QString at(const char* path) const { return dir.filePath(text(path)); }
    QByteArray encoded(const char* path) const { return QFile::encodeName(at(path)); }
    void write(const char* path, const QByteArray& content) const {
        QFile file(at(path));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(content), content.size());
    }
    //! What \a work, which must succeed, did in order.
    template <typename Work>
    static QStringList callsOf(Work work) {
        calls.clear();
        const Error error = work();
        EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
        return calls;
    }

    const QStringList oneFile{text("flush hidden"), text("name hidden as run"), text("flush out")};
    QTemporaryDir dir;
};

TEST_F(DownloadDurability, ADownloadGetsItsNameWhenItsContentIsOnTheDiskAndItsNameIsFlushedAfterwards) {
    for (const bool overwrite : {false, true}) {
        PartialFile file({at("out"), text("run"), text(".run.part"), overwrite});
        EXPECT_EQ(callsOf([&]() -> Error {
                      ORX_RETURN_ON_ERROR(file.open());
                      ORX_RETURN_ON_ERROR(file.append("content"));
                      ContentHash hash;
                      hash.add("content", 7);
                      return file.publish({7, hash.hexDigest(), QDateTime()});
                  }),
                  oneFile);
    }
}

TEST_F(DownloadDurability, WhetherItMayReplaceWhatIsThereIsAskedBetweenTheFlushAndTheName) {
    write("out/run", "old");
    PartialFile file({at("out"), text("run"), text(".run.part"), true});
    EXPECT_EQ(
        callsOf([&]() -> Error {
            ORX_RETURN_ON_ERROR(file.open());
            ORX_RETURN_ON_ERROR(file.append("content"));
            ContentHash hash;
            hash.add("content", 7);
            return file.publish({7, hash.hexDigest(), QDateTime()}, [] {
                note(text("ask"));
                return true;
            });
        }),
        (QStringList{text("flush hidden"), text("ask"), text("name hidden as run"), text("flush out")}));
}

TEST_F(DownloadDurability, SoDoesACopyOfAFile) {
    using Policy = FileUtils::DuplicateFilesPolicy;
    for (const Policy policy : {Policy::Refuse, Policy::Overwrite})
        EXPECT_EQ(callsOf([&] { return FileUtils::tryCopyFile(at("source/run"), at("out/run"), policy); }),
                  oneFile);
}

TEST_F(DownloadDurability, ADirectoryThatIsNotedIsFlushedOnceForAllThatCameIntoIt) {
    const auto flushes = std::make_shared<DirectoryFlushes>();
    using Policy = FileUtils::DuplicateFilesPolicy;
    const auto copy = [this](const char* name) {
        return FileUtils::tryCopyFile(at("source/run"), at("out/") + text(name), Policy::Refuse);
    };
    const QStringList noted{text("flush hidden"), text("name hidden as a"), text("flush hidden"),
                            text("name hidden as b")};
    EXPECT_EQ(callsOf([&]() -> Error {
                  const DirectoryFlushes::Scope scope(flushes);
                  ORX_RETURN_ON_ERROR(copy("a"));
                  return copy("b");
              }),
              noted);
    EXPECT_EQ(flushes->count(), 1);
    const auto flush = [&] {
        EXPECT_TRUE(flushes->flush().isEmpty());
        return Error();
    };
    EXPECT_EQ(callsOf(flush), QStringList{text("flush out")});
    EXPECT_EQ(callsOf(flush), QStringList());
    // Without a scope, and in one of nobody within another, each copy is durable when it ends.
    EXPECT_EQ(callsOf([&] { return copy("run"); }), oneFile);
    ASSERT_TRUE(QFile::remove(at("out/run")));
    EXPECT_EQ(callsOf([&] {
                  const DirectoryFlushes::Scope outer(flushes);
                  const DirectoryFlushes::Scope inner(nullptr);
                  return copy("run");
              }),
              oneFile);
    EXPECT_EQ(flushes->count(), 0);
}

TEST_F(DownloadDurability, ADirectoryThatIsNotedIsFlushedAtTheLatestWhenNobodyHoldsTheNote) {
    auto flushes = std::make_shared<DirectoryFlushes>();
    EXPECT_EQ(callsOf([&] {
                  const DirectoryFlushes::Scope scope(flushes);
                  return FileUtils::tryCopyFile(at("source/run"), at("out/run"),
                                                FileUtils::DuplicateFilesPolicy::Refuse);
              }).size(),
              2);
    EXPECT_EQ(callsOf([&] {
                  flushes.reset();
                  return Error();
              }),
              QStringList{text("flush out")});
}

TEST_F(DownloadDurability, ANotedDirectoryThatHasGoneIsForgottenAndOneThatCannotBeFlushedIsTold) {
    const auto flushes = std::make_shared<DirectoryFlushes>();
    ASSERT_TRUE(QDir(dir.path()).mkdir(text("gone")));
    {
        const DirectoryFlushes::Scope scope(flushes);
        ASSERT_FALSE(DirectoryFlushes::flushOrNoteName(encoded("gone/run")).hasError());
        ASSERT_FALSE(DirectoryFlushes::flushOrNoteName(encoded("source/run/none")).hasError());
    }
    ASSERT_TRUE(QDir(dir.path()).rmdir(text("gone")));
    const auto failures = flushes->flush();
    ASSERT_EQ(failures.size(), 1);
    EXPECT_EQ(failures.first().directory, at("source/run")) << "it is no directory";
    EXPECT_TRUE(failures.first().error.errorMessage().contains(at("source/run")));
    EXPECT_EQ(flushes->count(), 0);
}

TEST_F(DownloadDurability, ADirectoryWaitsUntilItIsFlushedAndOnceMoreWhenItIsNotedMeanwhile) {
    const auto flushes = std::make_shared<DirectoryFlushes>();
    const auto noteOut = [&] {
        const DirectoryFlushes::Scope scope(flushes);
        ASSERT_FALSE(DirectoryFlushes::flushOrNoteName(encoded("out/run")).hasError());
    };
    noteOut();
    qsizetype meanwhile = -1;
    onFlush = [&] {
        meanwhile = flushes->count();
        noteOut();
    };
    EXPECT_TRUE(flushes->flush().isEmpty());
    onFlush = {};
    EXPECT_EQ(meanwhile, 1);
    EXPECT_EQ(flushes->count(), 1);
    EXPECT_TRUE(flushes->flush().isEmpty());
    EXPECT_EQ(flushes->count(), 0);
}

TEST_F(DownloadDurability, TheDirectoriesOfAMissingTargetAreFlushedToo) {
    using Options = FileUtils::CopyFilesOptions;
    ASSERT_TRUE(QDir(at("source/sub")).removeRecursively());
    const QStringList done = callsOf([&] {
        return FileUtils::tryCopyFiles(
            at("source"), at("out/new/deep"),
            Options(Options::RecursionPolicy::Recursive, Options::DuplicateFilesPolicy::Refuse), {}, {},
            nullptr);
    });
    EXPECT_EQ(done, (QStringList{text("flush out"), text("flush new"), text("flush hidden"),
                                 text("name hidden as run"), text("flush deep")}));
}

TEST_F(DownloadDurability, TheyWaitWithTheOthersWhereThoseAreFlushedLater) {
    using Options = FileUtils::CopyFilesOptions;
    ASSERT_TRUE(QDir(at("source/sub")).removeRecursively());
    const auto flushes = std::make_shared<DirectoryFlushes>();
    const QStringList done = callsOf([&] {
        const DirectoryFlushes::Scope scope(flushes);
        return FileUtils::tryCopyFiles(
            at("source"), at("out/new/deep"),
            Options(Options::RecursionPolicy::Recursive, Options::DuplicateFilesPolicy::Refuse), {}, {},
            nullptr);
    });
    EXPECT_EQ(done, (QStringList{text("flush hidden"), text("name hidden as run")}));
    QStringList flushed = callsOf([&] {
        EXPECT_TRUE(flushes->flush().isEmpty());
        return Error();
    });
    flushed.sort();
    EXPECT_EQ(flushed, (QStringList{text("flush deep"), text("flush new"), text("flush out")}));
}

TEST_F(DownloadDurability, ADirectoryGetsItsNameWhenEverythingInItIsOnTheDisk) {
    using Options = FileUtils::CopyFilesOptions;
    ASSERT_TRUE(QFile::remove(at("source/run")));
    const QStringList done = callsOf([&] {
        return FileUtils::tryCopyFiles(
            at("source"), at("out"),
            Options(Options::RecursionPolicy::Recursive, Options::DuplicateFilesPolicy::Refuse), {}, {},
            nullptr);
    });
    EXPECT_EQ(done, (QStringList{text("flush inner"), text("flush hidden"), text("name hidden as sub"),
                                 text("flush out")}));
}

} // namespace
