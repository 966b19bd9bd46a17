#include "FileCopy.h"
#include "FileUtils.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace orx;

namespace {

using Options = FileUtils::CopyFilesOptions;
using Policy = FileUtils::DuplicateFilesPolicy;
using Recursion = Options::RecursionPolicy;

const QDateTime kOld = QDateTime::fromSecsSinceEpoch(1'500'000'000, Qt::UTC);
const QDateTime kNew = QDateTime::fromSecsSinceEpoch(1'600'000'000, Qt::UTC);

class FileUtilsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_dir.isValid());
        ASSERT_TRUE(QDir(m_dir.path()).mkpath(QStringLiteral("from")));
        ASSERT_TRUE(QDir(m_dir.path()).mkpath(QStringLiteral("to")));
    }

    QString from(const char* name = "") const { return path("from", name); }
    QString to(const char* name = "") const { return path("to", name); }

    static void write(const QString& path, const QByteArray& content, const QDateTime& modified = kOld) {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(path).path()));
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(content), content.size());
        ASSERT_TRUE(file.flush());
        ASSERT_TRUE(file.setFileTime(modified, QFileDevice::FileModificationTime));
    }

    static QByteArray read(const QString& path) {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(cannot be read)");
    }

    //! Every path below the target directory, with contents: what a copy made of it.
    QStringList tree() const { return tree(QDir(to()), QString()); }

    bool copyFiles(Policy policy, QList<QString>* names = nullptr,
                   const QList<FileUtils::CustomName>& customNames = {},
                   Recursion recursion = Recursion::Recursive) const {
        return FileUtils::copyFiles(from(), to(), Options(recursion, policy), FileUtils::CopyFilesValidator(),
                                    customNames, names);
    }

private:
    QString path(const char* directory, const char* name) const {
        return QDir::cleanPath(m_dir.filePath(QLatin1String(directory)) + u'/' + QString::fromUtf8(name));
    }

    static QStringList tree(const QDir& directory, const QString& prefix) {
        QStringList lines;
        const auto entries = directory.entryInfoList(
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
        for (const QFileInfo& entry : entries) {
            if (entry.isDir())
                lines << prefix + entry.fileName() + u'/'
                      << tree(QDir(entry.filePath()), prefix + entry.fileName() + u'/');
            else
                lines << prefix + entry.fileName() + u'=' + QString::fromUtf8(read(entry.filePath()));
        }
        return lines;
    }

    QTemporaryDir m_dir;
};

QStringList lines(std::initializer_list<const char*> texts) {
    QStringList list;
    for (const char* const text : texts)
        list << QString::fromUtf8(text);
    return list;
}

} // namespace

TEST_F(FileUtilsTest, ACopyHasContentAndTimeOfTheSource) {
    const QByteArray content(3'000'000, 'x');
    write(from("run.raw"), content, kOld);
    EXPECT_TRUE(FileUtils::copyFile(from("run.raw"), to("copy.raw"), Policy::Refuse));
    EXPECT_EQ(read(to("copy.raw")), content);
    EXPECT_EQ(QFileInfo(to("copy.raw")).lastModified().toUTC(), kOld);
    EXPECT_EQ(QDir(to()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
              lines({"copy.raw"}));
}

TEST_F(FileUtilsTest, AnEmptyFileIsCopied) {
    write(from("empty"), "");
    EXPECT_TRUE(FileUtils::copyFile(from("empty"), to("empty"), Policy::Refuse));
    EXPECT_EQ(tree(), lines({"empty="}));
}

TEST_F(FileUtilsTest, ACopyOfAPrivateFileIsAnOrdinaryFile) {
    write(from("run.raw"), "x");
    ASSERT_EQ(::chmod(QFile::encodeName(from("run.raw")).constData(), 0600), 0);
    const mode_t mask = ::umask(022);
    EXPECT_TRUE(FileUtils::copyFile(from("run.raw"), to("run.raw"), Policy::Refuse));
    ::umask(mask);
    struct stat info = {};
    ASSERT_EQ(::stat(QFile::encodeName(to("run.raw")).constData(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
}

// Where the kernel cannot copy between two file systems by itself, the bytes go through this process.
TEST_F(FileUtilsTest, AFileOfAnotherFileSystemIsCopied) {
    const QString other = QStringLiteral("/dev/shm");
    const QTemporaryDir source((QFileInfo(other).isWritable() ? other : QDir::tempPath()) +
                               QStringLiteral("/tst_file_utils_XXXXXX"));
    QByteArray content(5'000'000, Qt::Uninitialized);
    for (qsizetype i = 0; i < content.size(); ++i)
        content[i] = char(i * 31 / 7);
    write(source.filePath(QStringLiteral("a")), content);
    EXPECT_TRUE(FileUtils::copyFile(source.filePath(QStringLiteral("a")), to("a"), Policy::Refuse));
    EXPECT_TRUE(read(to("a")) == content);
}

struct SingleCase {
    const char* name;
    Policy policy;
    bool sourceIsNewer;
    bool copied;
    QStringList tree;
};

class OneTakenName : public FileUtilsTest, public ::testing::WithParamInterface<SingleCase> {};

TEST_P(OneTakenName, IsTreatedAsThePolicySays) {
    write(from("a.txt"), "new", GetParam().sourceIsNewer ? kNew : kOld);
    write(to("a.txt"), "old", GetParam().sourceIsNewer ? kOld : kNew);
    EXPECT_EQ(FileUtils::copyFile(from("a.txt"), to("a.txt"), GetParam().policy), GetParam().copied);
    EXPECT_EQ(tree(), GetParam().tree);
}

INSTANTIATE_TEST_SUITE_P(
    Policies, OneTakenName,
    ::testing::Values(SingleCase{"Refuse", Policy::Refuse, true, false, lines({"a.txt=old"})},
                      SingleCase{"Overwrite", Policy::Overwrite, false, true, lines({"a.txt=new"})},
                      SingleCase{"Skip", Policy::Skip, true, true, lines({"a.txt=old"})},
                      SingleCase{"Rename", Policy::Rename, true, true, lines({"a (2).txt=new", "a.txt=old"})},
                      SingleCase{"NewerSource", Policy::OverwriteOlder, true, true, lines({"a.txt=new"})},
                      SingleCase{"OlderSource", Policy::OverwriteOlder, false, true, lines({"a.txt=old"})}),
    [](const auto& testCase) { return testCase.param.name; });

struct TreeCase {
    const char* name;
    Policy policy;
    bool copied;
    QStringList tree;
    QStringList names;
};

class SomeTakenNames : public FileUtilsTest, public ::testing::WithParamInterface<TreeCase> {};

TEST_P(SomeTakenNames, AreTreatedAsThePolicySays) {
    write(from("a.txt"), "A", kOld);
    write(from("d/x"), "X", kNew);
    write(from("d/y"), "Y", kOld);
    write(from("z.txt"), "Z", kOld);
    write(to("a.txt"), "a", kNew);
    write(to("d/x"), "x", kOld);
    write(to("d/kept"), "k", kOld);
    QList<QString> names;
    EXPECT_EQ(copyFiles(GetParam().policy, &names), GetParam().copied);
    EXPECT_EQ(tree(), GetParam().tree);
    EXPECT_EQ(names, GetParam().names);
}

INSTANTIATE_TEST_SUITE_P(
    Policies, SomeTakenNames,
    ::testing::Values(
        TreeCase{
            "RefuseChangesNothing", Policy::Refuse, false, lines({"a.txt=a", "d/", "d/kept=k", "d/x=x"}), {}},
        TreeCase{"OverwriteMergesDirectories", Policy::Overwrite, true,
                 lines({"a.txt=A", "d/", "d/kept=k", "d/x=X", "d/y=Y", "z.txt=Z"}),
                 lines({"a.txt", "d", "z.txt"})},
        TreeCase{"SkipLeavesDirectoriesAlone", Policy::Skip, true,
                 lines({"a.txt=a", "d/", "d/kept=k", "d/x=x", "z.txt=Z"}), lines({"z.txt"})},
        TreeCase{"RenameKeepsBoth", Policy::Rename, true,
                 lines({"a (2).txt=A", "a.txt=a", "d/", "d/kept=k", "d/x=x", "d (2)/", "d (2)/x=X",
                        "d (2)/y=Y", "z.txt=Z"}),
                 lines({"a (2).txt", "d (2)", "z.txt"})},
        TreeCase{"OnlyOlderFilesAreReplaced", Policy::OverwriteOlder, true,
                 lines({"a.txt=a", "d/", "d/kept=k", "d/x=X", "d/y=Y", "z.txt=Z"}), lines({"d", "z.txt"})}),
    [](const auto& testCase) { return testCase.param.name; });

TEST_F(FileUtilsTest, RefusingSeesAClashOfTheLastNameBeforeTheFirstIsCopied) {
    write(from("a"), "A");
    write(from("z"), "Z");
    write(to("z"), "z");
    EXPECT_FALSE(copyFiles(Policy::Refuse));
    EXPECT_EQ(tree(), lines({"z=z"}));
}

TEST_F(FileUtilsTest, RefusingReportsTheTakenPath) {
    write(from("a"), "A");
    write(to("a"), "a");
    const Error error = FileUtils::tryCopyFiles(from(), to(), Options(Recursion::Recursive, Policy::Refuse),
                                                FileUtils::CopyFilesValidator(), {}, nullptr);
    EXPECT_TRUE(error.is(ErrorCode::AlreadyExists));
    EXPECT_EQ(error.errorMessage(), QStringLiteral("\"%1\" exists already and stays as it is.").arg(to("a")));
}

TEST_F(FileUtilsTest, AFileIsNewerByAMicrosecondToo) {
    write(from("a"), "A", kNew);
    write(to("a"), "a", kNew);
    const auto setTime = [](const QString& path, long microseconds) {
        const timespec times[2] = {{0, UTIME_OMIT}, {kNew.toSecsSinceEpoch(), microseconds * 1000}};
        return ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0);
    };
    ASSERT_EQ(setTime(from("a"), 1), 0);
    ASSERT_EQ(setTime(to("a"), 2), 0);
    EXPECT_TRUE(copyFiles(Policy::OverwriteOlder));
    EXPECT_EQ(tree(), lines({"a=a"}));
    ASSERT_EQ(setTime(from("a"), 3), 0);
    EXPECT_TRUE(copyFiles(Policy::OverwriteOlder));
    EXPECT_EQ(tree(), lines({"a=A"}));
}

TEST_F(FileUtilsTest, ADanglingLinkTakesItsName) {
    write(from("a"), "A");
    ASSERT_TRUE(QFile::link(QStringLiteral("nowhere"), to("a")));
    EXPECT_FALSE(copyFiles(Policy::Refuse));
    EXPECT_TRUE(copyFiles(Policy::Overwrite));
    EXPECT_EQ(tree(), lines({"a=A"}));
    EXPECT_FALSE(QFileInfo::exists(to("nowhere")));
}

TEST_F(FileUtilsTest, CustomNamesAreUsedInTheTarget) {
    write(from("a"), "A");
    write(from("b"), "B");
    QList<QString> names;
    EXPECT_TRUE(copyFiles(Policy::Refuse, &names, {{QStringLiteral("b"), QStringLiteral("c")}}));
    EXPECT_EQ(tree(), lines({"a=A", "c=B"}));
    EXPECT_EQ(names, lines({"a", "c"}));
}

TEST_F(FileUtilsTest, CustomNamesThatLeaveTheDirectoryAreRefused) {
    write(from("a"), "A");
    for (const char* const name : {"../a", "", ".", "..", "x/y"})
        EXPECT_FALSE(copyFiles(Policy::Overwrite, nullptr, {{QStringLiteral("a"), QLatin1String(name)}}))
            << name;
    EXPECT_EQ(tree(), QStringList());
}

TEST_F(FileUtilsTest, TwoEntriesNeverGetOneName) {
    write(from("a"), "A");
    write(from("b"), "B");
    EXPECT_FALSE(copyFiles(Policy::Overwrite, nullptr, {{QStringLiteral("a"), QStringLiteral("b")}}));
    EXPECT_EQ(tree(), QStringList());
}

TEST_F(FileUtilsTest, HiddenEntriesAreCopied) {
    write(from(".hidden"), "h");
    write(from("d/.inner"), "i");
    EXPECT_TRUE(copyFiles(Policy::Refuse));
    EXPECT_EQ(tree(), lines({".hidden=h", "d/", "d/.inner=i"}));
}

TEST_F(FileUtilsTest, EmptyDirectoriesAreCopied) {
    ASSERT_TRUE(QDir(from()).mkpath(QStringLiteral("d/empty")));
    EXPECT_TRUE(copyFiles(Policy::Refuse));
    EXPECT_EQ(tree(), lines({"d/", "d/empty/"}));
}

TEST_F(FileUtilsTest, AnEmptySourceCopiesNothing) {
    QList<QString> names;
    EXPECT_TRUE(copyFiles(Policy::Refuse, &names));
    EXPECT_TRUE(names.isEmpty());
    EXPECT_EQ(tree(), QStringList());
}

TEST_F(FileUtilsTest, AMissingSourceFails) {
    ASSERT_TRUE(QDir(from()).removeRecursively());
    EXPECT_FALSE(copyFiles(Policy::Refuse));
    EXPECT_FALSE(FileUtils::copyFile(from("a"), to("a"), Policy::Refuse));
    EXPECT_EQ(tree(), QStringList());
}

TEST_F(FileUtilsTest, AMissingTargetDirectoryIsMade) {
    write(from("a"), "A");
    EXPECT_TRUE(FileUtils::copyFiles(from(), to("new/deep"), Options(Recursion::Recursive, Policy::Refuse),
                                     FileUtils::CopyFilesValidator(), {}, nullptr));
    EXPECT_EQ(tree(), lines({"new/", "new/deep/", "new/deep/a=A"}));
}

TEST_F(FileUtilsTest, FilesOnlyLeavesDirectoriesOut) {
    write(from("a"), "A");
    write(from("d/x"), "X");
    EXPECT_TRUE(copyFiles(Policy::Refuse, nullptr, {}, Recursion::FilesOnly));
    EXPECT_EQ(tree(), lines({"a=A"}));
}

TEST_F(FileUtilsTest, TheValidatorDecidesAtEveryDepth) {
    write(from("a.txt"), "A");
    write(from("a.tmp"), "T");
    write(from("d/b.tmp"), "T");
    write(from("d/b.txt"), "B");
    const FileUtils::CopyFilesValidator noTemporary(
        [](const QFileInfo& entry) { return entry.suffix() != u"tmp"; });
    EXPECT_TRUE(FileUtils::copyFiles(from(), to(), Options(Recursion::Recursive, Policy::Refuse), noTemporary,
                                     {}, nullptr));
    EXPECT_EQ(tree(), lines({"a.txt=A", "d/", "d/b.txt=B"}));
}

TEST_F(FileUtilsTest, LinksAreNeverFollowed) {
    write(from("a"), "A");
    write(to("secret"), "s");
    ASSERT_TRUE(QFile::link(to("secret"), from("link")));
    EXPECT_TRUE(
        FileCopy::file(from("link"), to("b"), FileCopy::IfExists::Fail).is(ErrorCode::FileNotReadable));
    EXPECT_FALSE(copyFiles(Policy::Overwrite));
    EXPECT_FALSE(QFileInfo::exists(to("link")));
    EXPECT_FALSE(QFileInfo::exists(to("b")));
}

TEST_F(FileUtilsTest, ACopyThatIsGivenUpLeavesTheTargetAsItWas) {
    // Longer than what is copied at one time.
    write(from("a"), QByteArray(20'000'000, 'A'));
    write(to("a"), "old");
    for (const int questions : {0, 1, 2}) {
        int asked = 0;
        const Error error = FileCopy::file(from("a"), to("a"), FileCopy::IfExists::Replace,
                                           [&] { return asked++ >= questions; });
        // Where blocks are shared there is one question only.
        if (questions > 0 && !error.hasError())
            break;
        EXPECT_TRUE(error.isCanceled()) << qPrintable(error.errorMessage());
        EXPECT_EQ(tree(), lines({"a=old"}));
    }
    EXPECT_FALSE(
        FileCopy::file(from("a"), to("a"), FileCopy::IfExists::Replace, [] { return false; }).hasError());
    EXPECT_EQ(read(to("a")).size(), 20'000'000);
}

TEST_F(FileUtilsTest, MessagesNameTheTargetAndNotWhatItIsCalledMeanwhile) {
    write(from("a"), "A");
    const Error error = FileCopy::file(from("a"), to("none/b"), FileCopy::IfExists::Fail);
    EXPECT_TRUE(error.is(ErrorCode::FileNotWritable));
    EXPECT_TRUE(error.errorMessage().contains(u'"' + to("none/b") + u'"'))
        << qPrintable(error.errorMessage());
}

TEST_F(FileUtilsTest, AFileThatIsNotAsItWasLookedAtIsNotCopied) {
    write(from("a"), "looked at");
    const auto stamp = FileCopy::stampOf(from("a"));
    ASSERT_FALSE(stamp.hasError());
    EXPECT_FALSE(FileCopy::file(from("a"), to("a"), FileCopy::IfExists::Fail, {}, *stamp).hasError());
    write(from("a"), "different"); // of the same size, and with the same time
    EXPECT_TRUE(FileCopy::file(from("a"), to("a"), FileCopy::IfExists::Replace, {}, *stamp)
                    .is(ErrorCode::FileChanged));
    EXPECT_EQ(tree(), lines({"a=looked at"}));
    EXPECT_TRUE(FileCopy::stampOf(from("none")).error().is(ErrorCode::NotFound));
}

TEST_F(FileUtilsTest, APipeIsNotWaitedFor) {
    ASSERT_EQ(::mkfifo(QFile::encodeName(from("pipe")).constData(), 0600), 0);
    EXPECT_TRUE(
        FileCopy::file(from("pipe"), to("b"), FileCopy::IfExists::Fail).is(ErrorCode::FileNotReadable));
}

TEST_F(FileUtilsTest, AFileNeverTakesThePlaceOfADirectory) {
    write(from("a"), "A");
    write(to("a/x"), "X");
    EXPECT_FALSE(copyFiles(Policy::Overwrite));
    EXPECT_EQ(tree(), lines({"a/", "a/x=X"}));
}

TEST_F(FileUtilsTest, ADirectoryNeverTakesThePlaceOfAFile) {
    write(from("a/x"), "X");
    write(to("a"), "A");
    EXPECT_FALSE(copyFiles(Policy::Overwrite));
    EXPECT_EQ(tree(), lines({"a=A"}));
}

TEST_F(FileUtilsTest, AFailedDirectoryLeavesNothing) {
    write(from("d/a"), "A");
    ASSERT_TRUE(QFile::link(QStringLiteral("a"), from("d/link")));
    EXPECT_FALSE(copyFiles(Policy::Refuse));
    EXPECT_EQ(tree(), QStringList());
}

TEST_F(FileUtilsTest, TheLongestNameCanBeCopied) {
    const QString name(255, u'n');
    write(from() + u'/' + name, "N");
    EXPECT_TRUE(copyFiles(Policy::Refuse));
    EXPECT_EQ(read(to() + u'/' + name), QByteArray("N"));
}

TEST(FreeName, CountsUpBeforeTheSuffix) {
    const auto free = [](const char* name, std::initializer_list<const char*> taken) {
        const QStringList all = lines(taken);
        return FileUtils::freeName(QString::fromUtf8(name),
                                   [&all](const QString& n) { return all.contains(n); });
    };
    EXPECT_EQ(free("a.raw", {}), u"a.raw");
    EXPECT_EQ(free("a.raw", {"a.raw"}), u"a (2).raw");
    EXPECT_EQ(free("a.raw", {"a.raw", "a (2).raw"}), u"a (3).raw");
    EXPECT_EQ(free("a", {"a"}), u"a (2)");
    EXPECT_EQ(free(".hidden", {".hidden"}), u".hidden (2)");
    EXPECT_EQ(free("a.", {"a."}), u"a. (2)");
}

TEST(FreeName, IsNeverTooLongForAFileSystem) {
    const QString longName = QString::fromUtf8("\xf0\x9f\x92\x89").repeated(62) + QStringLiteral(".mzML");
    ASSERT_LE(longName.toUtf8().size(), 255);
    const QString name = FileUtils::freeName(longName, [&](const QString& n) { return n == longName; });
    EXPECT_LE(name.toUtf8().size(), 255);
    EXPECT_TRUE(name.endsWith(QStringLiteral(" (2).mzML")));
    EXPECT_TRUE(name.isValidUtf16());
}
