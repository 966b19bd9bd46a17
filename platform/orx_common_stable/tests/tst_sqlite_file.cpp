#include "SqliteFile.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

using namespace orx;

namespace {

std::atomic<int> flushes = 0;

using Access = SqliteFile::Access;

} // namespace

// The program's own definitions take the place of the C library's for SQLite too.
extern "C" int fdatasync(int descriptor) {
    ++flushes;
    return int(::syscall(SYS_fdatasync, descriptor));
}

extern "C" int fsync(int descriptor) {
    ++flushes;
    return int(::syscall(SYS_fsync, descriptor));
}

namespace {

class SqliteFileTest : public ::testing::Test {
protected:
    static SqliteFile::Format format() {
        return {.schema = "CREATE TABLE numbers (number INTEGER NOT NULL UNIQUE)",
                .version = 1,
                .subject = QStringLiteral("the numbers"),
                .damagedRemedy = QStringLiteral("Move it away."),
                .newerRemedy = QStringLiteral("Update."),
                .onDamage = {}};
    }

    static void insert(SQLite::Database& database, int number) {
        const auto statement = SqliteFile::prepared(database, "INSERT INTO numbers VALUES (?)");
        statement->bind(1, number);
        statement->exec();
    }

    Error add(int number, Access access = Access::Write) {
        return m_file.run(access, [number](SQLite::Database& database) { insert(database, number); });
    }

    int count() {
        int found = -1;
        const Error error = m_file.run(Access::Read, [&found](SQLite::Database& database) {
            found = database.execAndGet("SELECT count(*) FROM numbers").getInt();
        });
        EXPECT_FALSE(error.hasError()) << error.errorMessage().toStdString();
        return found;
    }

    //! Calls \a work with 0, 1, ... at once on threads of their own.
    static void sideBySide(int threads, const std::function<void(int)>& work) {
        std::latch begin(threads);
        std::vector<std::jthread> all;
        for (int index = 0; index < threads; ++index)
            all.emplace_back([&begin, &work, index] {
                begin.arrive_and_wait();
                work(index);
            });
    }

    //! Repeats \a round, in which writes wait for each other only by chance, until it is true.
    static bool happens(const std::function<bool()>& round) {
        for (int index = 0; index < 5'000; ++index)
            if (round())
                return true;
        return false;
    }

    QTemporaryDir m_dir;
    SqliteFile m_file{m_dir.filePath(QStringLiteral("numbers.sqlite")), format()};
    int m_next = 0;
};

} // namespace

TEST_F(SqliteFileTest, WhatManyWriteAtOnceIsThereOnce) {
    std::atomic<int> failed = 0;
    sideBySide(8, [this, &failed](int thread) {
        for (int index = 0; index < 50; ++index)
            failed +=
                add(1000 * thread + index, index % 3 == 0 ? Access::WriteRelaxed : Access::Write).hasError();
    });
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(count(), 400);
}

TEST_F(SqliteFileTest, WritesThatWaitAreFlushedTogether) {
    ASSERT_FALSE(add(-1).hasError());
    EXPECT_TRUE(happens([this] {
        const int before = flushes;
        const int first = m_next;
        m_next += 4;
        sideBySide(4, [this, first](int index) { EXPECT_FALSE(add(first + index).hasError()); });
        return flushes - before < 4;
    }));
    EXPECT_EQ(count(), m_next + 1);
}

TEST_F(SqliteFileTest, EachWriteThatIsAloneIsFlushedAndARelaxedOneIsNot) {
    ASSERT_FALSE(add(-1).hasError());
    for (int index = 0; index < 3; ++index) {
        int before = flushes;
        ASSERT_FALSE(add(m_next++).hasError());
        EXPECT_EQ(flushes - before, 1);
        before = flushes;
        ASSERT_FALSE(add(m_next++, Access::WriteRelaxed).hasError());
        EXPECT_EQ(flushes - before, 0);
    }
}

TEST_F(SqliteFileTest, OneThatFailsAmongOthersFailsAlone) {
    ASSERT_FALSE(add(-1).hasError());
    EXPECT_TRUE(happens([this] {
        std::atomic<int> calls = 0;
        const int first = m_next;
        m_next += 3;
        sideBySide(4, [&](int index) {
            if (index < 3) {
                EXPECT_FALSE(add(first + index).hasError());
                return;
            }
            const Error error = m_file.run(Access::Write, [&calls](SQLite::Database& database) {
                ++calls;
                insert(database, -2); // is not kept
                insert(database, -1); // is there already
            });
            EXPECT_TRUE(error.hasError());
        });
        return calls == 2; // with others first, and then alone
    }));
    EXPECT_EQ(count(), m_next + 1);
}

TEST_F(SqliteFileTest, WhatAWorkThrowsReachesItsOwnCaller) {
    EXPECT_TRUE(happens([this] {
        std::atomic<int> calls = 0;
        const int first = m_next;
        m_next += 3;
        sideBySide(4, [&](int index) {
            if (index < 3) {
                EXPECT_FALSE(add(first + index).hasError());
                return;
            }
            const auto work = [&calls](SQLite::Database&) {
                ++calls;
                throw std::runtime_error("of the fourth");
            };
            EXPECT_THROW((void)m_file.run(Access::Write, work), std::runtime_error);
        });
        return calls == 2;
    }));
    EXPECT_EQ(count(), m_next);
}

TEST_F(SqliteFileTest, AKeptStatementHasNothingOfItsLastUse) {
    ASSERT_FALSE(add(1).hasError());
    ASSERT_FALSE(add(2).hasError());
    const auto largestUpTo = [this](std::optional<int> limit) {
        int found = -1;
        EXPECT_FALSE(m_file
                         .run(Access::Read,
                              [&](SQLite::Database& database) {
                                  const auto query = SqliteFile::prepared(
                                      database,
                                      "SELECT number FROM numbers WHERE number <= ? ORDER BY 1 DESC");
                                  if (limit)
                                      query->bind(1, *limit);
                                  if (query->executeStep()) // and no further
                                      found = query->getColumn(0).getInt();
                              })
                         .hasError());
        return found;
    };
    EXPECT_EQ(largestUpTo(2), 2);
    EXPECT_EQ(largestUpTo(1), 1);
    EXPECT_EQ(largestUpTo(std::nullopt), -1) << "what was bound before is not bound now";
    ASSERT_FALSE(add(3).hasError());
    EXPECT_EQ(largestUpTo(9), 3);
}

TEST_F(SqliteFileTest, KeptStatementsGoWithTheFile) {
    ASSERT_FALSE(add(1).hasError());
    for (const QString& name : QDir(m_dir.path()).entryList(QDir::Files))
        ASSERT_TRUE(QFile::remove(m_dir.filePath(name)));
    ASSERT_FALSE(add(1).hasError());
    EXPECT_EQ(count(), 1);
}
