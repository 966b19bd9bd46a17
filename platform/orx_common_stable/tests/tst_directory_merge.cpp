// A directory that is joined with another one is what it was, or all of the new one, wherever the process is
// killed. A program of its own, since it ends itself in the middle of system calls and makes some fail.
#include "NoBlockSharing.h"

#include <DirectoryMerge.h>
#include <FilePlace.h>
#include <FileUtils.h>
#include <ReplaceGuard.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <linux/fs.h>
#include <map>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace orx;

namespace {

//! What the process does before it changes something on the disk; it is told which call that is.
std::function<void(const char* call)> onChange;
//! As on a file system that knows neither hard links nor the exchange of names.
bool cannotLink = false;
bool cannotExchange = false;
//! What becomes of a rename, given its kind ("exchange" or "rename") and its number among those of its kind:
//! an errno instead of it, a negative one after it was done all the same, 0: it is done.
std::function<int(std::string_view call, int number)> onRename;
std::map<std::string_view, int> renameCounts;
//! The directory whose names cannot be flushed.
std::string unflushable;
bool isDiskFull = false;
//! As of a kernel that does not tell of an entry whether something is mounted there.
bool tellsNoMounts = false;
//! As on a file system of several layers, where files have other device numbers than directories.
bool hasLayers = false;

long changing(const char* call, const std::function<long()>& work) {
    if (onChange)
        onChange(call);
    return work();
}

bool hasBegun = false;
__attribute__((constructor)) void begin() {
    hasBegun = true;
}

} // namespace

// The program's own definitions take the place of the C library's for the libraries too. The thread sanitizer
// makes the directory of its reports by the first of them, before it can watch any.
extern "C" __attribute__((no_sanitize("thread"))) int mkdir(const char* path, mode_t mode) {
    if (!hasBegun)
        return int(::syscall(SYS_mkdirat, AT_FDCWD, path, mode));
    return int(changing("mkdir", [=] { return ::syscall(SYS_mkdirat, AT_FDCWD, path, mode); }));
}

extern "C" int link(const char* from, const char* to) {
    if (cannotLink) {
        errno = EPERM;
        return -1;
    }
    return int(changing("link", [=] { return ::syscall(SYS_linkat, AT_FDCWD, from, AT_FDCWD, to, 0); }));
}

extern "C" ssize_t copy_file_range(int from, off64_t* at, int to, off64_t* end, size_t length,
                                   unsigned flags) {
    if (isDiskFull) {
        errno = ENOSPC;
        return -1;
    }
    return changing("copy", [=] { return ::syscall(SYS_copy_file_range, from, at, to, end, length, flags); });
}

extern "C" int fsync(int descriptor) {
    const QByteArray link = "/proc/self/fd/" + QByteArray::number(descriptor);
    if (!unflushable.empty() && QFile::symLinkTarget(QFile::decodeName(link)).toStdString() == unflushable) {
        errno = EIO;
        return -1;
    }
    return int(changing("flush", [=] { return ::syscall(SYS_fsync, descriptor); }));
}

extern "C" int renameat2(int from, const char* oldName, int to, const char* newName, unsigned int flags) {
    if (flags == RENAME_EXCHANGE && cannotExchange) {
        errno = EINVAL;
        return -1;
    }
    const char* const call = flags == RENAME_EXCHANGE ? "exchange" : "rename";
    const int failure = onRename ? onRename(call, ++renameCounts[call]) : 0;
    if (failure > 0) {
        errno = failure;
        return -1;
    }
    const long result =
        changing(call, [=] { return ::syscall(SYS_renameat2, from, oldName, to, newName, flags); });
    if (failure == 0 || result != 0)
        return int(result);
    errno = -failure;
    return -1;
}

extern "C" int statx(int directory, const char* path, int flags, unsigned mask, struct statx* info) noexcept {
    const long result = ::syscall(SYS_statx, directory, path, flags, mask, info);
    if (result == 0 && tellsNoMounts)
        info->stx_attributes = info->stx_attributes_mask = 0;
    if (result == 0 && hasLayers && S_ISREG(info->stx_mode))
        ++info->stx_dev_minor;
    return int(result);
}

extern "C" int unlink(const char* path) {
    return int(changing("remove", [=] { return ::syscall(SYS_unlinkat, AT_FDCWD, path, 0); }));
}

extern "C" int rmdir(const char* path) {
    return int(changing("remove", [=] { return ::syscall(SYS_unlinkat, AT_FDCWD, path, AT_REMOVEDIR); }));
}

namespace {

using Tree = std::map<std::string, std::string>;

class DirectoryMergeTest : public ::testing::Test {
protected:
    void SetUp() override {
        write("new/acqu", "new parameters");
        write("new/data/fid", "new points");
        write("new/data/more/peaks", "peaks");
    }
    void TearDown() override {
        onChange = {};
        cannotLink = false;
        cannotExchange = false;
        onRename = {};
        unflushable.clear();
        isDiskFull = false;
        tellsNoMounts = false;
        hasLayers = false;
        // So that what is protected can be removed with the rest.
        for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path().toStdString())) {
            if (entry.is_directory() && !entry.is_symlink())
                std::filesystem::permissions(entry.path(), std::filesystem::perms::owner_all,
                                             std::filesystem::perm_options::add);
        }
    }
    static void failRenames(const decltype(onRename)& how) {
        onRename = how;
        renameCounts.clear();
    }
    //! What is at the target before each merge.
    void putOld() const {
        ::chmod(bytes("run/mine/protected").constData(), 0700);
        ASSERT_TRUE(QDir(at("run")).removeRecursively());
        write("run/acqu", "old parameters");
        write("run/data/fid", "old");
        write("run/data/notes", "mine");
        write("run/mine/protected/deep", "mine, too");
        ASSERT_EQ(::symlink("nowhere", bytes("run/link").constData()), 0);
        ASSERT_EQ(::chmod(bytes("run/mine/protected").constData(), 0555), 0);
        ASSERT_EQ(::chmod(bytes("run/data").constData(), 0750), 0);
    }
    QString at(const char* path) const { return dir.filePath(QString::fromUtf8(path)); }
    QByteArray bytes(const char* path) const { return QFile::encodeName(at(path)); }
    void write(const char* path, const QByteArray& content) const {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(at(path)).path()));
        QFile file(at(path));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ASSERT_EQ(file.write(content), content.size());
    }
    //! The three entries of a mode, as the kernel wants them: a version, then tag, rights and no id for each.
    //! Whether the file system knows any.
    bool setDefaultAcl(const char* path, unsigned mode) const {
        struct Entry {
            quint16 tag;
            quint16 rights;
            quint32 id;
        };
        struct {
            quint32 version = 2;
            Entry entries[3];
        } acl;
        acl.entries[0] = {0x01, quint16(mode >> 6 & 7), ~0u};
        acl.entries[1] = {0x04, quint16(mode >> 3 & 7), ~0u};
        acl.entries[2] = {0x20, quint16(mode & 7), ~0u};
        return isSet(path, "system.posix_acl_default", &acl, sizeof acl);
    }
    bool isSet(const char* path, const char* name, const void* value, size_t size) const {
        if (::setxattr(bytes(path).constData(), name, value, size, 0) == 0)
            return true;
        EXPECT_EQ(errno, ENOTSUP) << qt_error_string(errno).toStdString();
        return false;
    }
    ino_t inodeOf(const char* path) const {
        struct stat info = {};
        EXPECT_EQ(::lstat(bytes(path).constData(), &info), 0) << path;
        return info.st_ino;
    }
    mode_t modeOf(const char* path) const {
        struct stat info = {};
        EXPECT_EQ(::lstat(bytes(path).constData(), &info), 0) << path;
        return info.st_mode & 07777;
    }
    static void addTo(Tree& tree, const QDir& directory, const QString& prefix) {
        for (const QFileInfo& entry :
             directory.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot)) {
            const QString path = prefix + entry.fileName();
            QFile file(entry.filePath());
            if (entry.isSymLink())
                tree[path.toStdString()] = "-> " + QFileInfo(entry.symLinkTarget()).fileName().toStdString();
            else if (entry.isDir())
                addTo(tree, QDir(entry.filePath()), path + u'/');
            else if (file.open(QIODevice::ReadOnly))
                tree[path.toStdString()] = file.readAll().toStdString();
        }
    }
    Tree treeOf(const char* path) const {
        Tree tree;
        addTo(tree, QDir(at(path)), QString());
        return tree;
    }
    QStringList names() const {
        return QDir(dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    }
    QStringList onlySourceAndTarget() const { return {QStringLiteral("new"), QStringLiteral("run")}; }
    Error merge(const DirectoryMerge::Options& options = {}) const {
        return DirectoryMerge::run(at("new"), at("run"), options);
    }
    //! Kills a merge of its own process before its \a number-th change; false when it had fewer.
    bool killAt(int number) const {
        const pid_t child = ::fork();
        if (child == 0) {
            int met = 0;
            onChange = [&met, number](const char*) {
                if (++met == number)
                    ::raise(SIGKILL);
            };
            ::_exit(merge().hasError() ? 1 : 0);
        }
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << status;
        return WIFSIGNALED(status);
    }

    //! What was left is hidden and stays; after the exchange it is what is left of the old one.
    void takeAwayLeft(bool wasKilled, bool isOldThere) const {
        const QStringList left =
            QDir(dir.path()).entryList({QStringLiteral(".run.*.part")}, QDir::Dirs | QDir::Hidden);
        EXPECT_EQ(names().size(), 2 + left.size());
        EXPECT_LE(left.size(), wasKilled ? 1 : 0);
        for (const QString& name : left) {
            for (const auto& [path, content] : isOldThere ? Tree() : treeOf(name.toUtf8().constData()))
                EXPECT_EQ(content, old.at(path));
            FilePlace::removeTree(QFile::encodeName(dir.filePath(name)));
        }
        EXPECT_EQ(names(), onlySourceAndTarget());
    }

    const Tree old{{"acqu", "old parameters"},
                   {"data/fid", "old"},
                   {"data/notes", "mine"},
                   {"link", "-> nowhere"},
                   {"mine/protected/deep", "mine, too"}};
    const Tree merged{{"acqu", "new parameters"},   {"data/fid", "new points"},
                      {"data/more/peaks", "peaks"}, {"data/notes", "mine"},
                      {"link", "-> nowhere"},       {"mine/protected/deep", "mine, too"}};
    QTemporaryDir dir;
};

// Mounts themselves, and files of other people, need permission: tests/root.
TEST_F(DirectoryMergeTest, NothingIsTakenForMountedWhereTheKernelSaysLittleOrDevicesDiffer) {
    for (bool* const oddity : {&tellsNoMounts, &hasLayers}) {
        *oddity = true;
        putOld();
        const Error error = merge();
        EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
        EXPECT_EQ(treeOf("run")["acqu"], "new parameters");
        *oddity = false;
    }
}

TEST_F(DirectoryMergeTest, TheTargetHoldsTheSourceAndWhatElseItHadAndNothingIsLeft) {
    putOld();
    const ino_t notes = inodeOf("run/data/notes");
    const ino_t deep = inodeOf("run/mine/protected/deep");
    const Error error = merge();
    ASSERT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_EQ(treeOf("run"), merged);
    EXPECT_EQ(names(), onlySourceAndTarget());
    EXPECT_EQ(inodeOf("run/data/notes"), notes) << "the file itself, with whatever is said of it";
    EXPECT_EQ(inodeOf("run/mine/protected/deep"), deep);
    EXPECT_EQ(modeOf("run/data"), 0750u);
    EXPECT_EQ(modeOf("run/mine/protected"), 0555u);
    EXPECT_EQ(treeOf("new").size(), 3u);
}

TEST_F(DirectoryMergeTest, KilledAnywhereItIsOldOrNewAndTheNextOneCompletesIt) {
    int kills = 0;
    int sawOld = 0;
    int sawNew = 0;
    for (bool wasKilled = true; wasKilled;) {
        putOld();
        wasKilled = killAt(++kills);
        const Tree found = treeOf("run");
        EXPECT_TRUE(found == old || found == merged) << "killed at change " << kills;
        ++(found == old ? sawOld : sawNew);
        EXPECT_LE(names().size(), 3) << kills;
        const Error error = merge();
        ASSERT_FALSE(error.hasError()) << kills << ' ' << qPrintable(error.errorMessage());
        EXPECT_EQ(treeOf("run"), merged) << kills;
        takeAwayLeft(wasKilled, found == old);
    }
    EXPECT_GT(sawOld, 15) << "copies, links, flushes";
    EXPECT_GT(sawNew, 8) << "what the old one consisted of is removed";
}

TEST_F(DirectoryMergeTest, EverythingIsFlushedBeforeTheExchangeAndThatBeforeTheOldOneGoes) {
    putOld();
    QStringList calls;
    onChange = [&calls](const char* call) { calls << QString::fromLatin1(call); };
    ASSERT_FALSE(merge().hasError());
    const auto exchange = calls.indexOf(QStringLiteral("exchange"));
    const auto remove = calls.indexOf(QStringLiteral("remove"));
    ASSERT_GT(exchange, 0);
    EXPECT_EQ(calls.mid(0, exchange).count(QStringLiteral("flush")), 3 + 5) << "files and directories";
    EXPECT_EQ(calls.at(exchange - 1), QStringLiteral("flush"));
    EXPECT_EQ(calls.mid(exchange + 1, remove - exchange - 1), QStringList{QStringLiteral("flush")});
}

TEST_F(DirectoryMergeTest, WithoutExchangeTheOldOneIsCalledOtherwiseUntilTheNewOneIsThere) {
    cannotExchange = true;
    putOld();
    ASSERT_FALSE(merge().hasError());
    EXPECT_EQ(treeOf("run"), merged);
    EXPECT_EQ(names(), onlySourceAndTarget());
    // Killed between the two renames: nothing is at the target, and the old one is whole and shows.
    putOld();
    const pid_t child = ::fork();
    if (child == 0) {
        int renames = 0;
        onChange = [&renames](const char* call) {
            if (std::string_view(call) == "rename" && ++renames == 2)
                ::raise(SIGKILL);
        };
        ::_exit(merge().hasError() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    const QStringList shown = QDir(dir.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name);
    ASSERT_EQ(shown.size(), 2);
    EXPECT_TRUE(shown.at(1).startsWith(QStringLiteral("run.")) &&
                shown.at(1).endsWith(QStringLiteral(".old")));
    EXPECT_EQ(treeOf(shown.at(1).toUtf8().constData()), old);
}

TEST_F(DirectoryMergeTest, WhereThereAreNoHardLinksWhatStaysIsCopied) {
    cannotLink = true;
    putOld();
    ASSERT_EQ(::chmod(bytes("run/data/notes").constData(), 0640), 0);
    const Error error = merge({.filter = {}, .mayLinkSource = true});
    ASSERT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_EQ(treeOf("run"), merged);
    EXPECT_EQ(modeOf("run/data/notes"), 0640u);
    EXPECT_EQ(names(), onlySourceAndTarget());
}

TEST_F(DirectoryMergeTest, ASourceThatGoesAnywayIsLinked) {
    putOld();
    int copies = 0;
    onChange = [&copies](const char* call) { copies += std::string_view(call) == "copy" ? 1 : 0; };
    ASSERT_FALSE(merge({.filter = {}, .mayLinkSource = true}).hasError());
    EXPECT_EQ(treeOf("run"), merged);
    EXPECT_EQ(copies, 0);
    EXPECT_EQ(inodeOf("run/data/fid"), inodeOf("new/data/fid"));
}

TEST_F(DirectoryMergeTest, WhatComesToTheTargetMeanwhileIsNotLost) {
    for (const char* const what : {"run/data/later", "run/acqu"}) {
        putOld();
        onChange = [this, what](const char* call) {
            if (std::string_view(call) == "link")
                write(what, "written meanwhile");
        };
        const Error error = merge();
        onChange = {};
        EXPECT_TRUE(error.is(ErrorCode::FileChanged)) << what << qPrintable(error.errorMessage());
        EXPECT_EQ(treeOf("run").at(what + 4), "written meanwhile");
        EXPECT_EQ(treeOf("run").at("data/fid"), "old");
        EXPECT_EQ(names(), onlySourceAndTarget());
    }
    // In the very last moment, by somebody who has the old directory open.
    putOld();
    onChange = [this](const char* call) {
        if (std::string_view(call) == "exchange")
            write("run/data/later", "written meanwhile");
    };
    const Error error = merge();
    onChange = {};
    EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    EXPECT_EQ(treeOf("run"), merged);
    ASSERT_EQ(names().size(), 3);
    EXPECT_TRUE(names().last().endsWith(QStringLiteral(".old"))) << "where it shows";
    ASSERT_EQ(error.warnings().size(), 1);
    EXPECT_TRUE(error.warnings().first().contains(names().last())) << "says where it is";
    EXPECT_EQ(treeOf(names().last().toUtf8().constData()), (Tree{{"data/later", "written meanwhile"}}));
}

//! What is copied by FileUtils: the directory that is at the target already, and after it one file.
class CopyWithMerge : public DirectoryMergeTest {
protected:
    using Options = FileUtils::CopyFilesOptions;

    void SetUp() override {
        DirectoryMergeTest::SetUp();
        putOld();
        ASSERT_TRUE(QDir(from.path()).mkdir(QStringLiteral("run")));
        for (const char* const name : {"run/acqu", "z.txt"}) {
            QFile file(from.filePath(QString::fromLatin1(name)));
            ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write("new") == 3);
        }
        // So that the old directory cannot be removed, and what is in it is told.
        onChange = [this](const char* call) {
            if (std::string_view(call) == "exchange")
                write("run/data/later", "written meanwhile");
        };
    }
    const Options options{Options::RecursionPolicy::Recursive, FileUtils::DuplicateFilesPolicy::Overwrite};
    const QTemporaryDir from;
    QList<QString> copied;
    QString kept() const {
        return QDir(dir.path()).entryList({QStringLiteral("run.*.old")}, QDir::Dirs).value(0, {});
    }
    //! What \a work writes into the log.
    static QString logOf(const std::function<void()>& work) {
        static QString log;
        log.clear();
        const QtMessageHandler before = qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext&, const QString& text) { log += text + u'\n'; });
        work();
        qInstallMessageHandler(before);
        return log;
    }
};

TEST_F(CopyWithMerge, ASuccessWithAWarningIsASuccessAndTheWarningIsInTheLog) {
    const QString log = logOf(
        [this] { EXPECT_TRUE(FileUtils::copyFiles(from.path(), dir.path(), options, {}, {}, &copied)); });
    EXPECT_EQ(copied, (QList<QString>{QStringLiteral("run"), QStringLiteral("z.txt")}));
    EXPECT_EQ(treeOf("run").at("acqu"), "new");
    ASSERT_FALSE(kept().isEmpty());
    EXPECT_EQ(log.count(kept()), 1) << qPrintable(log);
}

TEST_F(CopyWithMerge, AFailureAfterAWarningTellsTheWarningToo) {
    ASSERT_TRUE(QDir(dir.path()).mkdir(QStringLiteral("z.txt")));
    const Error error = FileUtils::tryCopyFiles(from.path(), dir.path(), options, {}, {}, &copied);
    EXPECT_TRUE(error.is(ErrorCode::FileNotWritable)) << qPrintable(error.errorMessage());
    EXPECT_EQ(copied, QList<QString>{QStringLiteral("run")}) << "it was written";
    ASSERT_FALSE(kept().isEmpty());
    ASSERT_EQ(error.warnings().size(), 1);
    EXPECT_TRUE(error.warnings().first().contains(kept())) << qPrintable(error.warnings().first());

    FilePlace::removeTree(QFile::encodeName(dir.filePath(kept())));
    const QString log = logOf(
        [this] { EXPECT_FALSE(FileUtils::copyFiles(from.path(), dir.path(), options, {}, {}, nullptr)); });
    ASSERT_FALSE(kept().isEmpty());
    EXPECT_TRUE(log.contains(kept())) << qPrintable(log);
}

TEST_F(DirectoryMergeTest, WhatIsWrittenIntoTheOldFileInTheLastMomentIsKept) {
    // Nothing that stays is the same file, so that what is written to the old one is not in the new one.
    cannotLink = true;
    for (const char* const path : {"acqu", "data/notes"}) {
        putOld();
        onChange = [this, path](const char* call) {
            if (std::string_view(call) == "exchange")
                write((std::string("run/") + path).c_str(), "written in place");
        };
        const Error error = merge();
        onChange = {};
        EXPECT_FALSE(error.hasError()) << path << qPrintable(error.errorMessage());
        EXPECT_EQ(error.warnings().size(), 1) << path;
        EXPECT_EQ(treeOf("run"), merged);
        ASSERT_EQ(names().size(), 3);
        EXPECT_EQ(treeOf(names().last().toUtf8().constData()), (Tree{{path, "written in place"}}));
        FilePlace::removeTree(QFile::encodeName(dir.filePath(names().last())));
    }
}

TEST_F(DirectoryMergeTest, WhatComesInheritsFromTheDirectoryThatItComesTo) {
    putOld();
    // A set-group-id directory hands its group and the bit down; a default ACL what it says.
    ASSERT_EQ(::chmod(bytes("run/data").constData(), 02750), 0);
    const bool hasAttributes = isSet("run", "user.of", "alice", 5);
    const bool hasAcl = setDefaultAcl("run/data", 0740);
    ASSERT_FALSE(merge().hasError());
    EXPECT_EQ(modeOf("run/data"), 02750u);
    EXPECT_NE(modeOf("run/data/more") & 02000u, 0u) << "a directory that came";
    if (hasAcl) {
        EXPECT_EQ(modeOf("run/data/more"), 02740u) << "a directory that came";
        EXPECT_EQ(modeOf("run/data/more/peaks"), 0640u);
        EXPECT_EQ(modeOf("run/data/fid"), 0640u) << "a file that was replaced";
    }
    if (hasAttributes) {
        char value[16];
        EXPECT_EQ(::getxattr(bytes("run").constData(), "user.of", value, sizeof value), 5);
    }
}

TEST_F(DirectoryMergeTest, WhereNamesAreNotExchangedForAnyReasonTheTargetIsWhatItWas) {
    for (const int reason : {EBUSY, EIO, EACCES, ENOSPC}) {
        putOld();
        failRenames([reason](std::string_view call, int) { return call == "exchange" ? reason : 0; });
        const Error error = merge();
        EXPECT_TRUE(error.is(ErrorDomain::OperatingSystem, reason)) << qPrintable(error.errorMessage());
        EXPECT_TRUE(error.errorMessage().contains(at("run\""))) << qPrintable(error.errorMessage());
        EXPECT_EQ(treeOf("run"), old);
        EXPECT_EQ(names(), onlySourceAndTarget());
    }
}

TEST_F(DirectoryMergeTest, AStepThatIsToldToHaveFailedAndWasDoneCounts) {
    putOld();
    failRenames([](std::string_view call, int) { return call == "exchange" ? -EIO : 0; });
    for (const bool inTwoSteps : {false, true}) {
        cannotExchange = inTwoSteps;
        const Error error = merge();
        EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
        EXPECT_TRUE(error.warnings().isEmpty());
        EXPECT_EQ(treeOf("run"), merged);
        EXPECT_EQ(names(), onlySourceAndTarget());
        putOld();
        failRenames([](std::string_view call, int) { return call == "rename" ? -EIO : 0; });
    }
}

TEST_F(DirectoryMergeTest, WhereTheFirstOfTwoRenamesFailsTheTargetIsWhatItWas) {
    cannotExchange = true;
    putOld();
    failRenames([](std::string_view, int number) { return number == 1 ? EBUSY : 0; });
    const Error error = merge();
    EXPECT_TRUE(error.is(ErrorDomain::OperatingSystem, EBUSY)) << qPrintable(error.errorMessage());
    EXPECT_EQ(treeOf("run"), old);
    EXPECT_EQ(names(), onlySourceAndTarget());
}

TEST_F(DirectoryMergeTest, WhereTheSecondOfTwoRenamesFailsTheOldOneGetsItsNameBack) {
    cannotExchange = true;
    putOld();
    failRenames([](std::string_view, int number) { return number == 2 ? EIO : 0; });
    const Error error = merge();
    EXPECT_TRUE(error.is(ErrorDomain::OperatingSystem, EIO)) << qPrintable(error.errorMessage());
    EXPECT_TRUE(error.errorMessage().contains(at("run\""))) << qPrintable(error.errorMessage());
    EXPECT_EQ(treeOf("run"), old);
    EXPECT_EQ(names(), onlySourceAndTarget());
}

TEST_F(DirectoryMergeTest, WhereEvenThatFailsTheMessageTellsWhatTheOldOneIsCalled) {
    cannotExchange = true;
    putOld();
    failRenames([](std::string_view, int number) { return number >= 2 ? EIO : 0; });
    const Error error = merge();
    EXPECT_TRUE(error.is(ErrorDomain::OperatingSystem, EIO)) << qPrintable(error.errorMessage());
    ASSERT_EQ(names().size(), 2) << "nothing has the name of the target, and the successor is gone";
    const QString kept = names().last();
    EXPECT_TRUE(kept.startsWith(QStringLiteral("run.")) && kept.endsWith(QStringLiteral(".old")));
    EXPECT_EQ(treeOf(kept.toUtf8().constData()), old);
    for (const QString& told : {at("run\""), dir.filePath(kept)})
        EXPECT_TRUE(error.errorMessage().contains(told)) << qPrintable(error.errorMessage());
}

TEST_F(DirectoryMergeTest, WhereTheOldOneGetsNoNameThatShowsTheMessageTellsTheHiddenOne) {
    putOld();
    unflushable = QFileInfo(dir.path()).canonicalFilePath().toStdString();
    failRenames([](std::string_view call, int) { return call == "rename" ? EBUSY : 0; });
    const Error error = merge();
    EXPECT_TRUE(error.is(ErrorCode::FileNotWritable)) << qPrintable(error.errorMessage());
    EXPECT_EQ(treeOf("run"), merged);
    ASSERT_EQ(names().size(), 3);
    const QString kept = names().first();
    EXPECT_TRUE(error.errorMessage().contains(dir.filePath(kept))) << qPrintable(error.errorMessage());
    EXPECT_EQ(treeOf(kept.toUtf8().constData()), old);
    FilePlace::removeTree(QFile::encodeName(dir.filePath(kept)));
}

TEST_F(DirectoryMergeTest, WhenTheNamesCannotBeFlushedTheOldOneStaysWhereItShows) {
    putOld();
    unflushable = QFileInfo(dir.path()).canonicalFilePath().toStdString();
    const Error error = merge();
    EXPECT_TRUE(error.is(ErrorCode::FileNotWritable)) << qPrintable(error.errorMessage());
    EXPECT_EQ(treeOf("run"), merged);
    ASSERT_EQ(names().size(), 3);
    EXPECT_TRUE(names().last().endsWith(QStringLiteral(".old")));
    EXPECT_TRUE(error.errorMessage().contains(names().last())) << qPrintable(error.errorMessage());
    EXPECT_EQ(treeOf(names().last().toUtf8().constData()), old);
    FilePlace::removeTree(QFile::encodeName(dir.filePath(names().last())));
}

TEST_F(DirectoryMergeTest, WhoHadNoAccessGetsNoneByWhatTheDirectoryAboveHandsDown) {
    struct Entry {
        quint16 tag;
        quint16 rights;
        quint32 id;
    };
    // The owner, the user 4242, the group, the mask of both, others.
    const struct {
        quint32 version = 2;
        Entry entries[5] = {{0x01, 7, ~0u}, {0x02, 7, 4242}, {0x04, 7, ~0u}, {0x10, 7, ~0u}, {0x20, 0, ~0u}};
    } acl;
    for (bool* const oddity : {&cannotLink, &tellsNoMounts}) {
        putOld();
        ASSERT_EQ(::chmod(bytes("run/data/notes").constData(), 0660), 0);
        *oddity = true;
        if (!isSet(".", "system.posix_acl_default", &acl, sizeof acl))
            return;
        ASSERT_FALSE(merge().hasError());
        ASSERT_EQ(::removexattr(bytes(".").constData(), "system.posix_acl_default"), 0);
        *oddity = false;
        for (const char* const path : {"run", "run/data", "run/data/notes", "run/data/more", "run/acqu"}) {
            char value[256];
            for (const char* const name : {"system.posix_acl_access", "system.posix_acl_default"})
                EXPECT_EQ(::getxattr(bytes(path).constData(), name, value, sizeof value), -1) << path << name;
        }
        EXPECT_EQ(modeOf("run/data"), 0750u);
        EXPECT_EQ(modeOf("run/data/notes"), 0660u);
    }
}

TEST_F(DirectoryMergeTest, ADirectoryThatMayNotBeReplacedAnyMoreStays) {
    putOld();
    QStringList asked;
    const ReplaceGuard::Scope guarded([&asked](const QString& path) {
        asked.append(path);
        return false;
    });
    EXPECT_TRUE(merge().is(ErrorCode::FileChanged));
    EXPECT_EQ(asked, QStringList{at("run")});
    EXPECT_EQ(treeOf("run"), old);
    EXPECT_EQ(names(), onlySourceAndTarget());
}

TEST_F(DirectoryMergeTest, ErrorsNameWhatPeopleKnow) {
    putOld();
    ASSERT_EQ(::symlink("acqu", bytes("new/data/more/zlink").constData()), 0);
    EXPECT_TRUE(merge().errorMessage().contains(at("new/data/more/zlink")));
    ASSERT_TRUE(QFile::remove(at("new/data/more/zlink")));
    isDiskFull = true;
    const Error error = merge();
    EXPECT_TRUE(error.is(ErrorDomain::OperatingSystem, ENOSPC)) << qPrintable(error.errorMessage());
    EXPECT_TRUE(error.errorMessage().contains(at("run/acqu"))) << qPrintable(error.errorMessage());
    EXPECT_FALSE(error.errorMessage().contains(QStringLiteral(".part"))) << qPrintable(error.errorMessage());
    EXPECT_EQ(treeOf("run"), old);
}

TEST_F(DirectoryMergeTest, AfterAFailureTheTargetIsWhatItWas) {
    putOld();
    ASSERT_EQ(::symlink("acqu", bytes("new/data/more/zlink").constData()), 0);
    EXPECT_TRUE(merge().is(ErrorCode::FileNotReadable)) << "links are not followed";
    EXPECT_EQ(treeOf("run"), old);
    ASSERT_TRUE(QFile::remove(at("new/data/more/zlink")));

    write("new/mine", "a file");
    EXPECT_TRUE(merge().is(ErrorCode::AlreadyExists)) << "where the target has a directory";
    EXPECT_EQ(treeOf("run"), old);
    ASSERT_TRUE(QFile::remove(at("new/mine")));

    write("new/link/file", "a directory");
    EXPECT_TRUE(merge().is(ErrorCode::AlreadyExists)) << "where the target has none";
    EXPECT_EQ(treeOf("run"), old);
    EXPECT_EQ(names(), onlySourceAndTarget());
}

TEST_F(DirectoryMergeTest, OnlyNewerFilesComeWhenThatIsAskedFor) {
    putOld();
    const timespec times[] = {{0, UTIME_OMIT}, {1'000'000'000, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, bytes("new/acqu").constData(), times, 0), 0);
    ASSERT_EQ(::utimensat(AT_FDCWD, bytes("run/data/fid").constData(), times, 0), 0);
    ASSERT_FALSE(merge({.filter = {}, .onlyNewer = true}).hasError());
    Tree expected = merged;
    expected["acqu"] = "old parameters";
    EXPECT_EQ(treeOf("run"), expected);
}

} // namespace
