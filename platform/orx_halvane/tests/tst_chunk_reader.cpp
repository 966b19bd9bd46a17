#include <ChunkReader.h>

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace orx;

namespace {

class ChunkReaderTest : public testing::Test {
protected:
    void write(const QByteArray& content) {
        QFile file(path());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ASSERT_EQ(file.write(content), content.size());
    }
    QString path() const { return m_dir.filePath(QStringLiteral("run 1%2.mzML")); }
    std::unique_ptr<ChunkReader> reader(qint64 size, std::optional<qint64> modifiedNs = std::nullopt) const {
        const int descriptor = ::open(QFile::encodeName(path()).constData(), O_RDONLY | O_CLOEXEC);
        return std::make_unique<ChunkReader>(descriptor, path(), *ChunkPlan::create(size, 4), modifiedNs);
    }
    qint64 modifiedNs() const {
        struct stat status {};
        EXPECT_EQ(::stat(QFile::encodeName(path()).constData(), &status), 0);
        return status.st_mtim.tv_sec * 1'000'000'000LL + status.st_mtim.tv_nsec;
    }
    void expectChanged(const Error& error) const {
        EXPECT_TRUE(error.is(ErrorCode::FileChanged));
        EXPECT_EQ(error.errorMessage(),
                  QStringLiteral("The file \"%1\" changed while it was being sent; nothing of it counts. "
                                 "Start the upload again.")
                      .replace(QStringLiteral("%1"), path()));
    }

    QTemporaryDir m_dir;
    BufferPool m_pool{4, 2};
};

TEST_F(ChunkReaderTest, GivesEveryChunkWithItsChecksumAndTheLastWithThatOfTheContent) {
    write("abcdefghij");
    const auto chunks = reader(10, modifiedNs());
    QByteArray content;
    QByteArray sha256;
    for (const QByteArray expected : {"abcd", "efgh", "ij"}) {
        const Result<ChunkReader::Chunk> chunk = chunks->readNext(m_pool);
        ASSERT_TRUE(chunk) << chunk.errorMessage().toStdString();
        EXPECT_EQ(*chunk->data, expected);
        EXPECT_EQ(chunk->checksum, ChunkHash::of(expected));
        EXPECT_TRUE(sha256.isEmpty());
        sha256 = chunk->contentSha256;
    }
    EXPECT_EQ(sha256, "72399361da6a7754fec986dca5b7cbaf1c810a28ded4abaf56b2106d06cb78b0");
}

TEST_F(ChunkReaderTest, ReadsAnEmptyFile) {
    write("");
    const Result<QByteArray> sha256 = reader(0)->readEmpty();
    ASSERT_TRUE(sha256);
    EXPECT_EQ(*sha256, ContentHash().hexDigest());
}

TEST_F(ChunkReaderTest, AnEmptyFileThatHasGrownIsChanged) {
    write("x");
    expectChanged(reader(0)->readEmpty().error());
}

TEST_F(ChunkReaderTest, AFileOfAnotherSizeOrTimeThanAnnouncedIsChanged) {
    write("abcdefgh");
    expectChanged(reader(9)->readNext(m_pool).error());
    expectChanged(reader(8, modifiedNs() + 1)->readNext(m_pool).error());
}

TEST_F(ChunkReaderTest, AFileThatShrinksIsChanged) {
    write("abcdefghij");
    const auto chunks = reader(10);
    ASSERT_TRUE(chunks->readNext(m_pool));
    ASSERT_EQ(::truncate(QFile::encodeName(path()).constData(), 6), 0);
    expectChanged(chunks->readNext(m_pool).error());
}

TEST_F(ChunkReaderTest, AFileThatGrowsIsChangedAndItsLastChunkDoesNotCome) {
    write("abcdefgh");
    const auto chunks = reader(8);
    ASSERT_TRUE(chunks->readNext(m_pool));
    ASSERT_EQ(::truncate(QFile::encodeName(path()).constData(), 9), 0);
    expectChanged(chunks->readNext(m_pool).error());
}

TEST_F(ChunkReaderTest, AWriteWhoseModificationTimeWasSetBackIsAChange) {
    write("abcdefgh");
    const qint64 before = modifiedNs();
    const auto chunks = reader(8, before);
    ASSERT_TRUE(chunks->readNext(m_pool));
    struct stat status {};
    do { // the clock of the file system is coarse
        QFile file(path());
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_EQ(file.write("X"), 1);
        file.close();
        const timespec times[] = {{0, UTIME_OMIT}, {before / 1'000'000'000, before % 1'000'000'000}};
        ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(path()).constData(), times, 0), 0);
        ASSERT_EQ(::stat(QFile::encodeName(path()).constData(), &status), 0);
    } while (status.st_ctim.tv_sec * 1'000'000'000LL + status.st_ctim.tv_nsec == before);
    ASSERT_EQ(modifiedNs(), before);
    expectChanged(chunks->readNext(m_pool).error());
}

TEST_F(ChunkReaderTest, ClosesItsDescriptor) {
    write("abcd");
    const int descriptor = ::open(QFile::encodeName(path()).constData(), O_RDONLY | O_CLOEXEC);
    { const ChunkReader chunks(descriptor, path(), *ChunkPlan::create(4, 4), std::nullopt); }
    EXPECT_EQ(::fcntl(descriptor, F_GETFD), -1);
}

TEST_F(ChunkReaderTest, WhatCannotBeReadIsAnErrorOfTheSystemThatNamesThePath) {
    const int descriptor = ::open(QFile::encodeName(m_dir.path()).constData(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    ASSERT_EQ(::fstat(descriptor, &status), 0);
    ChunkReader chunks(descriptor, m_dir.path(), *ChunkPlan::create(status.st_size, 4), std::nullopt);
    const Result<ChunkReader::Chunk> chunk = chunks.readNext(m_pool);
    ASSERT_TRUE(chunk.hasError());
    EXPECT_TRUE(chunk.error().is(ErrorDomain::OperatingSystem, EISDIR));
    EXPECT_TRUE(chunk.errorMessage().contains(m_dir.path()));
}

} // namespace
