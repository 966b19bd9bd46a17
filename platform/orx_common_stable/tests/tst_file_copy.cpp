// A copied file is what was there, or the whole new one, and nothing is left beside it, wherever the process
// is killed. A program of its own, since it ends itself in the middle of system calls and makes some fail.
#include "NoBlockSharing.h"

#include <DirectoryFlushes.h>
#include <FileCopy.h>
#include <FilePlace.h>
#include <NewFile.h>
#include <ReplaceGuard.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace orx;

namespace {

//! What the process does before it changes something on the disk; it is told which call that is.
std::function<void(const char* call)> onChange;
//! The errno with which files without a name cannot be made, or get no name; 0: they can as far as they can.
int makingUnnamed = 0;
int namingUnnamed = 0;
//! A directory that others may put something into, and nobody but its owner may read; empty: none.
QByteArray dropBox;
//! The errno with which a file system or a directory cannot be flushed; 0: it can.
int flushFailure = 0;

long changing(const char* call, const std::function<long()>& work) {
    if (onChange)
        onChange(call);
    return work();
}

bool isDirectory(int descriptor) {
    struct stat info = {};
    return ::fstat(descriptor, &info) == 0 && S_ISDIR(info.st_mode);
}

int opening(const char* path, int flags, mode_t mode) {
    if (!dropBox.isEmpty() && dropBox == path && (flags & O_ACCMODE) == O_RDONLY) {
        errno = EACCES;
        return -1;
    }
    if ((flags & O_TMPFILE) == O_TMPFILE && makingUnnamed != 0) {
        errno = makingUnnamed;
        return -1;
    }
    const auto work = [=] { return ::syscall(SYS_openat, AT_FDCWD, path, flags, mode); };
    return int((flags & O_ACCMODE) == O_WRONLY ? changing("make", work) : work());
}

} // namespace

// The program's own definitions take the place of the C library's for the libraries too.
extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return opening(path, flags, mode);
}

extern "C" int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    return opening(path, flags, mode);
}

extern "C" ssize_t copy_file_range(int from, off64_t* at, int to, off64_t* end, size_t length,
                                   unsigned flags) {
    return changing("copy", [=] {
        return ::syscall(SYS_copy_file_range, from, at, to, end, std::min<size_t>(length, 3000), flags);
    });
}

extern "C" int fsync(int descriptor) {
    if (flushFailure != 0 && isDirectory(descriptor)) {
        errno = flushFailure;
        return -1;
    }
    return int(changing("flush", [=] { return ::syscall(SYS_fsync, descriptor); }));
}

extern "C" int syncfs(int descriptor) noexcept {
    if (flushFailure != 0) {
        errno = flushFailure;
        return -1;
    }
    return int(changing("flush all", [=] { return ::syscall(SYS_syncfs, descriptor); }));
}

extern "C" int linkat(int from, const char* oldName, int to, const char* newName, int flags) noexcept {
    if (namingUnnamed != 0 && std::strncmp(oldName, "/proc/", 6) == 0) {
        errno = namingUnnamed;
        return -1;
    }
    return int(changing("link", [=] { return ::syscall(SYS_linkat, from, oldName, to, newName, flags); }));
}

extern "C" int rename(const char* from, const char* to) noexcept {
    return int(changing("rename", [=] { return ::syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0); }));
}

extern "C" int renameat2(int from, const char* oldName, int to, const char* newName,
                         unsigned int flags) noexcept {
    return int(
        changing("rename", [=] { return ::syscall(SYS_renameat2, from, oldName, to, newName, flags); }));
}

namespace {

class FileCopyTest : public ::testing::Test {
protected:
    void SetUp() override {
        put(source(), content);
        ASSERT_TRUE(QDir().mkdir(dir.filePath(QStringLiteral("to"))));
    }
    void TearDown() override {
        onChange = {};
        makingUnnamed = 0;
        namingUnnamed = 0;
        dropBox.clear();
        flushFailure = 0;
    }
    QString source() const { return dir.filePath(QStringLiteral("source")); }
    QString target() const { return dir.filePath(QStringLiteral("to/run")); }
    QByteArray bytes() const { return QFile::encodeName(target()); }
    static void put(const QString& path, const QByteArray& content) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ASSERT_EQ(file.write(content), content.size());
    }
    static QByteArray get(const QString& path) {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(nothing)");
    }
    QStringList names() const {
        return QDir(dir.filePath(QStringLiteral("to")))
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    }
    const QStringList only{QStringLiteral("run")};
    Error copy(FileCopy::IfExists ifExists) const { return FileCopy::file(source(), target(), ifExists); }

    //! Whether the file system knows files without a name.
    bool knowsUnnamed() const {
        const int file = ::open(QFile::encodeName(dir.path()).constData(), O_WRONLY | O_TMPFILE, 0600);
        if (file >= 0)
            ::close(file);
        return file >= 0;
    }
    //! Kills a copy of its own process before its \a number-th change, and tells which that was; empty when
    //! it had fewer.
    QByteArray killAt(int number, FileCopy::IfExists ifExists) const {
        int told[2];
        EXPECT_EQ(::pipe(told), 0);
        const pid_t child = ::fork();
        if (child == 0) {
            int met = 0;
            onChange = [&](const char* call) {
                if (++met != number)
                    return;
                (void)!::write(told[1], call, std::strlen(call));
                ::raise(SIGKILL);
            };
            ::_exit(copy(ifExists).hasError() ? 1 : 0);
        }
        ::close(told[1]);
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << status;
        QByteArray call(16, '\0');
        call.resize(::read(told[0], call.data(), size_t(call.size())));
        ::close(told[0]);
        EXPECT_EQ(call.isEmpty(), !WIFSIGNALED(status));
        return call;
    }
    //! Kills at every change in turn. \a mayLeave: before which calls something may be left beside the
    //! target.
    void killEverywhere(FileCopy::IfExists ifExists, const QByteArray& old, const QList<QByteArray>& mayLeave,
                        int atLeast) const {
        int number = 0;
        for (QByteArray before = "start"; !before.isEmpty();) {
            QFile::remove(target());
            if (ifExists == FileCopy::IfExists::Replace)
                put(target(), old);
            before = killAt(++number, ifExists);
            const QByteArray found = get(target());
            EXPECT_TRUE(found == content || (!before.isEmpty() && found == old)) << before.constData();
            QStringList left = names();
            left.removeAll(QStringLiteral("run"));
            EXPECT_LE(left.size(), mayLeave.contains(before) ? 1 : 0) << before.constData();
            for (const QString& name : left) {
                EXPECT_TRUE(name.startsWith(QStringLiteral(".run.")) &&
                            name.endsWith(QStringLiteral(".part")));
                EXPECT_TRUE(QFile::remove(QFileInfo(target()).path() + u'/' + name));
            }
        }
        EXPECT_GT(number, atLeast);
    }

    const QByteArray content = QByteArray(10'000, 'n');
    QTemporaryDir dir;
};

TEST_F(FileCopyTest, KilledAnywhereNothingIsLeftAndNoHalfOfIt) {
    // Without files that have no name a hidden one is left until it has its own.
    const QList<QByteArray> named{"copy", "flush", "rename"};
    killEverywhere(FileCopy::IfExists::Fail, "(nothing)", knowsUnnamed() ? QList<QByteArray>{} : named, 7);
    // What replaces a file has another name for a moment, since a link replaces nothing.
    killEverywhere(FileCopy::IfExists::Replace, "old", knowsUnnamed() ? QList<QByteArray>{"rename"} : named,
                   7);
}

TEST_F(FileCopyTest, WhereEveryFileHasANameThereIsOldOrWholeContent) {
    for (const int reason : {EOPNOTSUPP, EISDIR, EINVAL}) {
        makingUnnamed = reason;
        killEverywhere(FileCopy::IfExists::Fail, "(nothing)", {"copy", "flush", "rename"}, 7);
        killEverywhere(FileCopy::IfExists::Replace, "old", {"copy", "flush", "rename"}, 7);
    }
}

TEST_F(FileCopyTest, AFileThatCanGetNoNameIsCopiedOnceMoreUnderOne) {
    for (const int reason : {EPERM, EXDEV, EOPNOTSUPP, ENOENT, EACCES}) {
        namingUnnamed = reason;
        for (const auto ifExists : {FileCopy::IfExists::Fail, FileCopy::IfExists::Replace}) {
            const Error error = copy(ifExists);
            EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
            EXPECT_EQ(get(target()), content);
            EXPECT_EQ(names(), only);
            put(source(), content);
        }
        ASSERT_TRUE(QFile::remove(target()));
    }
}

TEST_F(FileCopyTest, NobodysFileBesideItIsTouched) {
    const QStringList theirs{QStringLiteral(".run.orx-copy.part"), QStringLiteral(".run.part"),
                             QStringLiteral(".run.1a2b3c.part"), QStringLiteral("run.1a2b3c.old")};
    for (const int reason : {0, EOPNOTSUPP}) {
        makingUnnamed = reason;
        for (const QString& name : theirs)
            put(QFileInfo(target()).path() + u'/' + name, "theirs");
        ASSERT_FALSE(copy(FileCopy::IfExists::Fail).hasError());
        ASSERT_FALSE(copy(FileCopy::IfExists::Replace).hasError());
        EXPECT_EQ(names().size(), theirs.size() + 1);
        for (const QString& name : theirs)
            EXPECT_EQ(get(QFileInfo(target()).path() + u'/' + name), "theirs");
        ASSERT_TRUE(QFile::remove(target()));
    }
}

TEST_F(FileCopyTest, ANameThatIsTakenWhileItIsCopiedStaysWithItsOwner) {
    for (const int reason : {0, EOPNOTSUPP}) {
        makingUnnamed = reason;
        onChange = [this](const char* call) {
            if (std::string_view(call) == "flush")
                put(target(), "theirs");
        };
        EXPECT_TRUE(copy(FileCopy::IfExists::Fail).is(ErrorCode::AlreadyExists));
        onChange = {};
        EXPECT_EQ(get(target()), "theirs");
        EXPECT_EQ(names(), only);
        ASSERT_TRUE(QFile::remove(target()));
    }
}

// What the guard is asked about is what is there when the copy is whole and flushed.
TEST_F(FileCopyTest, AGuardIsAskedWhenTheCopyIsAboutToReplaceTheFile) {
    for (const int reason : {0, EOPNOTSUPP}) {
        makingUnnamed = reason;
        put(target(), "old");
        onChange = [this](const char* call) {
            if (std::string_view(call) == "flush")
                put(target(), "theirs");
        };
        int asked = 0;
        const ReplaceGuard::Scope guarded([&](const QString& path) {
            EXPECT_EQ(path, target());
            ++asked;
            return get(path) == "old";
        });
        const Error error = copy(FileCopy::IfExists::Replace);
        EXPECT_TRUE(error.is(ErrorCode::FileChanged)) << qPrintable(error.errorMessage());
        EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("try again when")))
            << qPrintable(error.errorMessage());
        EXPECT_EQ(asked, 1);
        EXPECT_EQ(get(target()), "theirs");
        EXPECT_EQ(names(), only);

        onChange = {};
        put(target(), "old");
        EXPECT_FALSE(copy(FileCopy::IfExists::Replace).hasError());
        EXPECT_EQ(get(target()), content);
        ASSERT_TRUE(QFile::remove(target()));
        EXPECT_FALSE(copy(FileCopy::IfExists::Fail).hasError());
        EXPECT_EQ(asked, 2) << "nothing is replaced";
        ASSERT_TRUE(QFile::remove(target()));
    }
}

TEST_F(FileCopyTest, AnInnerGuardTakesThePlaceOfTheOuterOne) {
    const auto never = [](const QString&) { return false; };
    put(target(), "old");
    const ReplaceGuard::Scope outer(never);
    {
        const ReplaceGuard::Scope inner(nullptr);
        EXPECT_FALSE(copy(FileCopy::IfExists::Replace).hasError());
    }
    EXPECT_TRUE(copy(FileCopy::IfExists::Replace).is(ErrorCode::FileChanged));
}

TEST_F(FileCopyTest, ADirectoryIsNotReplacedByAFile) {
    ASSERT_TRUE(QDir().mkdir(target()));
    for (const int reason : {0, EOPNOTSUPP}) {
        makingUnnamed = reason;
        EXPECT_TRUE(copy(FileCopy::IfExists::Replace).is(ErrorCode::FileNotWritable));
        EXPECT_TRUE(QFileInfo(target()).isDir());
        EXPECT_EQ(names(), only);
    }
}

TEST_F(FileCopyTest, AccessIsThatOfANewFileAndTheTimeIsKept) {
    ASSERT_EQ(::chmod(QFile::encodeName(source()).constData(), 0755), 0);
    const timespec times[] = {{0, UTIME_OMIT}, {1'000'000'000, 5}};
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(source()).constData(), times, 0), 0);
    const mode_t before = ::umask(027);
    for (const int reason : {0, EOPNOTSUPP}) {
        makingUnnamed = reason;
        EXPECT_FALSE(copy(FileCopy::IfExists::Fail).hasError());
        struct stat info = {};
        EXPECT_EQ(::stat(bytes().constData(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777, 0750u);
        EXPECT_EQ(info.st_mtim.tv_sec, 1'000'000'000);
        EXPECT_EQ(info.st_mtim.tv_nsec, 5);
        EXPECT_EQ(info.st_nlink, 1u);
        EXPECT_TRUE(QFile::remove(target()));
    }
    ::umask(before);
}

TEST_F(FileCopyTest, TheLongestNameIsCopied) {
    const QString longest = dir.filePath(QStringLiteral("to/") + QString(255, u'x'));
    for (const int reason : {0, EOPNOTSUPP}) {
        makingUnnamed = reason;
        for (const auto ifExists : {FileCopy::IfExists::Fail, FileCopy::IfExists::Replace}) {
            const Error error = FileCopy::file(source(), longest, ifExists);
            EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
        }
        EXPECT_EQ(names().size(), 1);
        ASSERT_TRUE(QFile::remove(longest));
    }
}

TEST_F(FileCopyTest, AFileThatTakesNoPlaceIsGone) {
    for (const auto kind : {NewFile::Kind::Unnamed, NewFile::Kind::Hidden}) {
        {
            NewFile file;
            ASSERT_EQ(file.make(kind, bytes(), 0644), 0);
            EXPECT_GE(file.descriptor(), 0);
            EXPECT_EQ(names().size(), kind == NewFile::Kind::Unnamed && knowsUnnamed() ? 0 : 1);
        }
        EXPECT_EQ(names(), QStringList());
        NewFile nowhere;
        EXPECT_EQ(nowhere.make(kind, bytes() + "/none/run", 0644), ENOENT);
    }
}

// It is there, and durable as everything else on the file system is then.
TEST_F(FileCopyTest, AFilePutIntoADirectoryThatCannotBeReadIsFlushedWithItsFileSystem) {
    dropBox = QFile::encodeName(dir.filePath(QStringLiteral("to")));
    QList<QByteArray> calls;
    onChange = [&calls](const char* call) { calls << call; };
    for (const auto ifExists : {FileCopy::IfExists::Fail, FileCopy::IfExists::Replace}) {
        calls.clear();
        const Error error = copy(ifExists);
        EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
        EXPECT_EQ(get(target()), content);
        ASSERT_FALSE(calls.isEmpty());
        EXPECT_EQ(calls.last(), "flush all");
    }
    // Also where that is done once for all that came.
    const auto flushes = std::make_shared<DirectoryFlushes>();
    {
        const DirectoryFlushes::Scope scope(flushes);
        calls.clear();
        EXPECT_FALSE(copy(FileCopy::IfExists::Replace).hasError());
        EXPECT_FALSE(calls.contains("flush all"));
    }
    EXPECT_TRUE(flushes->flush().isEmpty());
    EXPECT_EQ(calls.last(), "flush all");

    // A disk that fails is told, and by the name of the directory.
    flushFailure = EIO;
    {
        const DirectoryFlushes::Scope scope(flushes);
        EXPECT_FALSE(copy(FileCopy::IfExists::Replace).hasError());
    }
    const auto failures = flushes->flush();
    ASSERT_EQ(failures.size(), 1);
    for (const Error& error : {copy(FileCopy::IfExists::Replace), failures.first().error}) {
        EXPECT_TRUE(error.is(ErrorDomain::OperatingSystem, EIO)) << qPrintable(error.errorMessage());
        EXPECT_TRUE(error.errorMessage().contains(dir.filePath(QStringLiteral("to\""))))
            << qPrintable(error.errorMessage());
    }
}

TEST_F(FileCopyTest, ADirectoryThatCannotBeFlushedIsToldByTheNameThatItWasToHave) {
    const QString directory = dir.filePath(QStringLiteral("directory"));
    ASSERT_TRUE(QDir().mkdir(directory));
    put(directory + QStringLiteral("/file"), content);
    flushFailure = EIO;
    const Error error = FileCopy::directory(directory, target());
    EXPECT_TRUE(error.is(ErrorCode::FileNotWritable)) << qPrintable(error.errorMessage());
    EXPECT_TRUE(error.errorMessage().contains(target())) << qPrintable(error.errorMessage());
    EXPECT_EQ(names(), QStringList());
}

TEST_F(FileCopyTest, SmallFilesCostFewCalls) {
    // Where all files have names one without is tried first.
    QList<QByteArray> expected = {"make", "copy", "flush", "link", "flush"};
    if (!knowsUnnamed())
        expected = {"make", "make", "copy", "flush", "rename", "flush"};
    put(source(), "small");
    QList<QByteArray> calls;
    onChange = [&calls](const char* call) { calls << call; };
    ASSERT_FALSE(copy(FileCopy::IfExists::Fail).hasError());
    EXPECT_EQ(calls, expected) << "file and directory";
}

} // namespace
