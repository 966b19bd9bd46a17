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

    //! Calls \a work with 0, 1, ... on threads of their own while another write runs, which ends when they
    //! wait.
    void whileOneRuns(int threads, const std::function<void(int)>& work) {
        std::latch running(1);
        std::jthread holder([this, threads, &running] {
            const auto hold = [this, threads, &running, isTold = false](SQLite::Database&) mutable {
                if (!std::exchange(isTold, true))
                    running.count_down();
                while (m_file.waitingWrites() < threads)
                    std::this_thread::yield();
            };
            EXPECT_FALSE(m_file.run(Access::WriteRelaxed, hold).hasError());
        });
        running.wait();
        sideBySide(threads, work);
    }

    QTemporaryDir m_dir;
    SqliteFile m_file{m_dir.filePath(QStringLiteral("numbers.sqlite")), format()};
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
    const int before = flushes;
    whileOneRuns(4, [this](int index) { EXPECT_FALSE(add(index).hasError()); });
    EXPECT_EQ(flushes - before, 1);
    EXPECT_EQ(count(), 5);
}

TEST_F(SqliteFileTest, OfMoreThanAreDoneTogetherEachIsDone) {
    ASSERT_FALSE(add(-1).hasError());
    const int before = flushes;
    whileOneRuns(70, [this](int index) { EXPECT_FALSE(add(index).hasError()); });
    EXPECT_EQ(flushes - before, 2);
    EXPECT_EQ(count(), 71);
}

TEST_F(SqliteFileTest, RelaxedWritesAreNotFlushedForOthers) {
    ASSERT_FALSE(add(-1).hasError());
    const int before = flushes;
    whileOneRuns(4, [this](int index) {
        EXPECT_FALSE(add(index, index < 2 ? Access::Write : Access::WriteRelaxed).hasError());
    });
    EXPECT_EQ(flushes - before, 1);
    EXPECT_EQ(count(), 5);
}

TEST_F(SqliteFileTest, EachWriteThatIsAloneIsFlushedAndARelaxedOneIsNot) {
    ASSERT_FALSE(add(-1).hasError());
    for (int index = 0; index < 3; ++index) {
        int before = flushes;
        ASSERT_FALSE(add(2 * index).hasError());
        EXPECT_EQ(flushes - before, 1);
        before = flushes;
        ASSERT_FALSE(add(2 * index + 1, Access::WriteRelaxed).hasError());
        EXPECT_EQ(flushes - before, 0);
    }
}

TEST_F(SqliteFileTest, OneThatFailsAmongOthersFailsAlone) {
    ASSERT_FALSE(add(-1).hasError());
    std::atomic<int> calls = 0;
    whileOneRuns(4, [this, &calls](int index) {
        const Error error = m_file.run(Access::Write, [index, &calls](SQLite::Database& database) {
            insert(database, index);
            if (index == 3) {
                ++calls;
                insert(database, -1); // is there already
            }
        });
        EXPECT_EQ(error.hasError(), index == 3) << index;
    });
    EXPECT_EQ(calls, 2) << "with the others, and then alone";
    EXPECT_EQ(count(), 4);
}

TEST_F(SqliteFileTest, WhatAWorkThrowsReachesItsOwnCaller) {
    std::atomic<int> calls = 0;
    whileOneRuns(4, [this, &calls](int index) {
        if (index < 3) {
            EXPECT_FALSE(add(index).hasError());
            return;
        }
        const auto work = [&calls](SQLite::Database&) {
            ++calls;
            throw std::runtime_error("of the fourth");
        };
        EXPECT_THROW((void)m_file.run(Access::Write, work), std::runtime_error);
    });
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(count(), 3);
}

TEST_F(SqliteFileTest, ThoseWhoWaitInVainForAnotherProcessAllHearOfIt) {
    SqliteFile::Format impatient = format();
    impatient.busyTimeout = std::chrono::milliseconds(50);
    SqliteFile file(m_dir.filePath(QStringLiteral("other.sqlite")), impatient);
    ASSERT_FALSE(file.run(Access::Write, [](SQLite::Database& database) { insert(database, 1); }).hasError());
    SQLite::Database other(file.path().toStdString(), SQLite::OPEN_READWRITE);
    other.exec("BEGIN IMMEDIATE");
    std::atomic<int> calls = 0;
    std::atomic<int> busy = 0;
    sideBySide(4, [&file, &calls, &busy](int) {
        busy += file.run(Access::Write, [&calls](SQLite::Database&) { ++calls; }).is(ErrorCode::Busy);
    });
    EXPECT_EQ(busy, 4);
    EXPECT_EQ(calls, 0);
    other.exec("ROLLBACK");
    EXPECT_FALSE(file.run(Access::Write, [](SQLite::Database& database) { insert(database, 2); }).hasError());
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
