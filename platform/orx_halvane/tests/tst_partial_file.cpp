#include <PartialFile.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace orx;

namespace {

class PartialFileTest : public testing::Test {
protected:
    static QByteArray sha256(const QByteArray& content) {
        ContentHash hash;
        hash.add(content.constData(), content.size());
        return hash.hexDigest();
    }
    static PartialFile::Expected expected(const QByteArray& content) {
        return {content.size(), sha256(content), QDateTime()};
    }
    PartialFile::Location location(bool overwrite = false) const {
        return {m_dir.path(), QStringLiteral("run"), QStringLiteral(".run.part"), overwrite};
    }
    void put(const char* name, const QByteArray& content) const {
        QFile file(m_dir.filePath(QString::fromLatin1(name)));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(content), content.size());
    }
    QByteArray get(const char* name) const {
        QFile file(m_dir.filePath(QString::fromLatin1(name)));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(nothing)");
    }
    QStringList entries() const {
        return QDir(m_dir.path())
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    }

    QTemporaryDir m_dir;
};

const QStringList onlyTarget{QStringLiteral("run")};
const QStringList onlyPartial{QStringLiteral(".run.part")};
const QStringList both{QStringLiteral(".run.part"), QStringLiteral("run")};

// What closing it costs is not paid by who gives the object up.
TEST_F(PartialFileTest, IsClosedWhenItIsPublished) {
    const auto isOpen = [this] {
        const QDir descriptors(QStringLiteral("/proc/self/fd"));
        const QStringList names =
            descriptors.entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
        return std::any_of(names.begin(), names.end(), [&](const QString& name) {
            return QFile::symLinkTarget(descriptors.filePath(name)) ==
                   QDir(m_dir.path()).canonicalPath() + QStringLiteral("/run");
        });
    };
    PartialFile file(location());
    ASSERT_FALSE(file.open().hasError());
    ASSERT_FALSE(file.append("measured values").hasError());
    ASSERT_FALSE(file.publish(expected("measured values")).hasError());
    EXPECT_FALSE(isOpen());
    EXPECT_EQ(file.size(), 15);
}

TEST_F(PartialFileTest, BecomesTheTargetWhenItIsWholeAndRight) {
    PartialFile file(location());
    ASSERT_FALSE(file.open().hasError());
    ASSERT_FALSE(file.append("measured ").hasError());
    EXPECT_EQ(entries(), onlyPartial);
    ASSERT_FALSE(file.append("values").hasError());
    PartialFile::Expected whole = expected("measured values");
    whole.modified = QDateTime(QDate(2021, 3, 4), QTime(5, 6, 7, 890), Qt::UTC);
    const Error error = file.publish(whole);
    ASSERT_FALSE(error.hasError()) << error.errorMessage().toStdString();
    EXPECT_EQ(entries(), onlyTarget);
    EXPECT_EQ(get("run"), "measured values");
    EXPECT_EQ(QFileInfo(m_dir.filePath(QStringLiteral("run"))).lastModified().toUTC(), whole.modified);
}

TEST_F(PartialFileTest, SetsTimesBeforeTheEpochToo) {
    PartialFile file(location());
    ASSERT_FALSE(file.open().hasError());
    PartialFile::Expected whole = expected("");
    whole.modified = QDateTime::fromMSecsSinceEpoch(-1, Qt::UTC);
    ASSERT_FALSE(file.publish(whole).hasError());
    EXPECT_EQ(QFileInfo(m_dir.filePath(QStringLiteral("run"))).lastModified().toMSecsSinceEpoch(), -1);
}

TEST_F(PartialFileTest, AnEmptyContentMakesAnEmptyFile) {
    PartialFile file(location());
    ASSERT_FALSE(file.open().hasError());
    ASSERT_FALSE(file.publish(expected("")).hasError());
    EXPECT_EQ(entries(), onlyTarget);
    EXPECT_EQ(get("run"), "");
}

TEST_F(PartialFileTest, ALaterRunGoesOnAfterWhatIsThere) {
    {
        PartialFile file(location());
        ASSERT_FALSE(file.open().hasError());
        ASSERT_FALSE(file.append("measured ").hasError());
    }
    EXPECT_EQ(entries(), onlyPartial);
    PartialFile file(location());
    ASSERT_FALSE(file.open().hasError());
    EXPECT_EQ(file.size(), 9);
    const Result<bool> part = file.hashMore(5);
    ASSERT_TRUE(part);
    EXPECT_FALSE(*part);
    const Result<bool> all = file.hashMore(5);
    ASSERT_TRUE(all);
    EXPECT_TRUE(*all);
    ASSERT_FALSE(file.append("values").hasError());
    ASSERT_FALSE(file.publish(expected("measured values")).hasError());
    EXPECT_EQ(get("run"), "measured values");
}

// Killed between the two steps of a file system that cannot rename without replacing.
TEST_F(PartialFileTest, NothingIsWrittenIntoATargetThatStillBearsThePartialNameToo) {
    put("run", "what a person went on with");
    ASSERT_EQ(::link(QFile::encodeName(m_dir.filePath(QStringLiteral("run"))).constData(),
                     QFile::encodeName(m_dir.filePath(QStringLiteral(".run.part"))).constData()),
              0);
    PartialFile file(location(true));
    ASSERT_FALSE(file.open().hasError());
    EXPECT_EQ(file.size(), 0);
    ASSERT_FALSE(file.startOver().hasError());
    ASSERT_FALSE(file.append("measured ").hasError());
    EXPECT_EQ(get("run"), "what a person went on with");
    ASSERT_FALSE(file.append("values").hasError());
    ASSERT_FALSE(file.publish(expected("measured values")).hasError());
    EXPECT_EQ(entries(), onlyTarget);
    EXPECT_EQ(get("run"), "measured values");
}

TEST_F(PartialFileTest, WithoutAByteNothingIsLeft) {
    {
        PartialFile file(location());
        ASSERT_FALSE(file.open().hasError());
        EXPECT_EQ(entries(), onlyPartial);
    }
    EXPECT_EQ(entries(), QStringList());
}

TEST_F(PartialFileTest, AWrongContentNeverBecomesTheTarget) {
    put("run", "precious");
    {
        PartialFile file(location(true));
        ASSERT_FALSE(file.open().hasError());
        ASSERT_FALSE(file.append("measured valueZ").hasError());
        const Error error = file.publish(expected("measured values"));
        EXPECT_TRUE(error.is(ErrorCode::ChecksumMismatch));
        EXPECT_TRUE(error.errorMessage().contains(m_dir.filePath(QStringLiteral("run"))));
    }
    EXPECT_EQ(entries(), onlyTarget) << "the partial file is gone";
    EXPECT_EQ(get("run"), "precious");
}

TEST_F(PartialFileTest, AContentOfTheWrongLengthIsWrong) {
    PartialFile file(location());
    ASSERT_FALSE(file.open().hasError());
    ASSERT_FALSE(file.append("measured").hasError());
    PartialFile::Expected whole = expected("measured");
    whole.size += 1;
    EXPECT_TRUE(file.publish(whole).is(ErrorCode::ChecksumMismatch));
}

TEST_F(PartialFileTest, ATargetThatMayNotBeReplacedIsRefusedAtOnce) {
    put("run", "precious");
    PartialFile file(location());
    const Error error = file.open();
    EXPECT_TRUE(error.is(ErrorCode::AlreadyExists));
    EXPECT_TRUE(error.errorMessage().contains(m_dir.filePath(QStringLiteral("run"))));
    EXPECT_EQ(entries(), onlyTarget);
}

TEST_F(PartialFileTest, ATargetThatAppearsMeanwhileIsNotReplaced) {
    PartialFile file(location());
    ASSERT_FALSE(file.open().hasError());
    ASSERT_FALSE(file.append("new").hasError());
    put("run", "precious");
    EXPECT_TRUE(file.publish(expected("new")).is(ErrorCode::AlreadyExists));
    EXPECT_EQ(get("run"), "precious");
    EXPECT_EQ(entries(), both) << "what arrived stays";
}

TEST_F(PartialFileTest, ReplacesATargetWhenItMay) {
    put("run", "old");
    PartialFile file(location(true));
    ASSERT_FALSE(file.open().hasError());
    ASSERT_FALSE(file.append("new").hasError());
    EXPECT_EQ(get("run"), "old") << "until the rename";
    ASSERT_FALSE(file.publish(expected("new")).hasError());
    EXPECT_EQ(get("run"), "new");
    EXPECT_EQ(entries(), onlyTarget);
}

TEST_F(PartialFileTest, ADirectoryAtTheTargetIsNeverReplaced) {
    ASSERT_TRUE(QDir(m_dir.path()).mkdir(QStringLiteral("run")));
    PartialFile file(location(true));
    const Error error = file.open();
    EXPECT_TRUE(error.is(ErrorCode::AlreadyExists));
    EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("is a directory")));
}

TEST_F(PartialFileTest, ADeviceOrAPipeAtTheTargetIsNeverReplaced) {
    ASSERT_EQ(::mkfifo(QFile::encodeName(m_dir.filePath(QStringLiteral("run"))).constData(), 0600), 0);
    PartialFile file(location(true));
    EXPECT_TRUE(file.open().is(ErrorCode::AlreadyExists));
}

TEST_F(PartialFileTest, ADirectoryThatAppearsAtTheTargetIsNotReplacedEither) {
    PartialFile file(location(true));
    ASSERT_FALSE(file.open().hasError());
    ASSERT_TRUE(QDir(m_dir.path()).mkdir(QStringLiteral("run")));
    const Error error = file.publish(expected(""));
    EXPECT_TRUE(error.is(ErrorCode::AlreadyExists)) << error.errorMessage().toStdString();
}

TEST_F(PartialFileTest, AMissingDirectoryIsNamed) {
    PartialFile::Location missing = location();
    missing.directory += QStringLiteral("/none");
    PartialFile file(missing);
    const Error error = file.open();
    EXPECT_TRUE(error.is(ErrorCode::NotFound));
    EXPECT_TRUE(error.errorMessage().contains(missing.directory));
}

TEST_F(PartialFileTest, IsLockedAgainstASecondDownload) {
    PartialFile first(location());
    ASSERT_FALSE(first.open().hasError());
    ASSERT_FALSE(first.append("x").hasError());
    PartialFile second(location());
    const Error error = second.open();
    EXPECT_TRUE(error.is(ErrorCode::Busy));
    EXPECT_TRUE(error.errorMessage().contains(m_dir.filePath(QStringLiteral("run"))));
    EXPECT_EQ(get(".run.part"), "x");
}

TEST_F(PartialFileTest, ALinkInThePlaceOfThePartialFileIsNotFollowed) {
    put("other", "precious");
    ASSERT_TRUE(QFile::link(QStringLiteral("other"), m_dir.filePath(QStringLiteral(".run.part"))));
    PartialFile file(location());
    EXPECT_TRUE(file.open().hasError());
    EXPECT_EQ(get("other"), "precious");
}

TEST_F(PartialFileTest, StartingOverForgetsContentAndHash) {
    put(".run.part", "garbage");
    PartialFile file(location());
    ASSERT_FALSE(file.open().hasError());
    ASSERT_TRUE(file.hashMore(100));
    ASSERT_FALSE(file.startOver().hasError());
    EXPECT_EQ(file.size(), 0);
    ASSERT_FALSE(file.append("good").hasError());
    ASSERT_FALSE(file.publish(expected("good")).hasError());
    EXPECT_EQ(get("run"), "good");
}

TEST_F(PartialFileTest, SaysBeforehandWhenTheDiskHasNoRoom) {
    PartialFile file(location());
    ASSERT_FALSE(file.open().hasError());
    EXPECT_FALSE(file.checkRoom(1).hasError());
    const Error error = file.checkRoom(1LL << 60);
    EXPECT_TRUE(error.is(ErrorDomain::OperatingSystem, ENOSPC));
    EXPECT_TRUE(error.errorMessage().contains(m_dir.filePath(QStringLiteral("run"))));
    EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("Free at least")));
}

TEST_F(PartialFileTest, WhatWasWrittenBeforeAFailureStaysAndCounts) {
    PartialFile file(location());
    ASSERT_FALSE(file.open().hasError());
    ASSERT_FALSE(file.append("kept").hasError());
    // A limit on the size of files makes the write end in the middle.
    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{6, old.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const Error error = file.append("12345");
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
    std::signal(SIGXFSZ, oldHandler);
    EXPECT_TRUE(error.is(ErrorDomain::OperatingSystem, EFBIG));
    EXPECT_EQ(file.size(), 6);
    EXPECT_EQ(get(".run.part"), "kept12");
    ASSERT_FALSE(file.append("345").hasError());
    EXPECT_FALSE(file.publish(expected("kept12345")).hasError());
}

} // namespace
