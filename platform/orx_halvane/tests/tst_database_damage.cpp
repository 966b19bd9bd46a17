#include "HalvaneHistory.h"
#include "HalvaneStateFixture.h"

#include <QDir>
#include <QFile>

#include <SQLiteCpp/Column.h>
#include <SQLiteCpp/Database.h>

using namespace orx;

namespace {

class DatabaseDamageTest : public orx::testing::HalvaneStateFixture {
protected:
    void makeDatabase() {
        for (int id = 1; id <= 200; ++id)
            ASSERT_FALSE(
                HalvaneHistory().setFileVersion(QStringLiteral("/data/some/path"), id, 3).hasError());
        closeDatabase();
    }
    //! The connection follows the configuration directory: pointing it elsewhere closes this one.
    void closeDatabase() {
        qputenv("HALVANE_CONFIG_DIR", QFile::encodeName(m_dir.filePath(QStringLiteral("elsewhere"))));
        ASSERT_TRUE(HalvaneHistory().fileVersion(QStringLiteral("/a"), 1));
        qputenv("HALVANE_CONFIG_DIR", QFile::encodeName(configDir()));
    }
    void writeDatabase(const QByteArray& content) const {
        ASSERT_TRUE(QDir().mkpath(configDir()));
        QFile file(databasePath());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ASSERT_EQ(file.write(content), content.size());
    }
    //! All that touches the database fails with \a code and a message that names the file.
    void expectEverythingFails(ErrorCode code) const {
        const HalvaneUploadRecord wanted = recordFor(makeFile(QStringLiteral("a")));
        const QList<Error> errors = {
            HalvaneHistory().fileVersion(QStringLiteral("/data/some/path"), 1).error(),
            HalvaneHistory().setFileVersion(QStringLiteral("/data/some/path"), 1, 3),
            HalvaneUploadJournal::acquire(wanted).error(),
            HalvaneUploadJournal::unsettled(wanted).error(),
            HalvaneUploadJournal::setUploadId(1, 1),
            HalvaneUploadJournal::release(1),
            HalvaneUploadJournal::remove(1)};
        for (const Error& error : errors) {
            EXPECT_TRUE(error.is(code)) << qPrintable(error.traceText());
            EXPECT_TRUE(error.errorMessage().contains(databasePath())) << qPrintable(error.errorMessage());
        }
    }
    QByteArray content() const {
        QFile file(databasePath());
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        return file.readAll();
    }
};

} // namespace

TEST_F(DatabaseDamageTest, WhatIsNoDatabaseIsRefusedWithARemedyAndLeftAsItIs) {
    const QByteArray garbage("this is a text and no database at all, however long one makes it\n", 64);
    writeDatabase(garbage);
    expectEverythingFails(ErrorCode::ParseError);
    const QString message = HalvaneHistory().fileVersion(QStringLiteral("/a"), 1).errorMessage();
    EXPECT_TRUE(message.contains(QStringLiteral("Move it"))) << qPrintable(message);
    EXPECT_EQ(content(), garbage);
}

TEST_F(DatabaseDamageTest, ADamagedDatabaseIsAnError) {
    makeDatabase();
    QByteArray damaged = content();
    ASSERT_GT(damaged.size(), 3 * 4096);
    damaged.replace(4096, damaged.size() - 4096, QByteArray(damaged.size() - 4096, '\xa5'));
    writeDatabase(damaged);
    expectEverythingFails(ErrorCode::ParseError);
}

TEST_F(DatabaseDamageTest, ATruncatedDatabaseIsAnError) {
    makeDatabase();
    writeDatabase(content().left(4096 + 100));
    expectEverythingFails(ErrorCode::ParseError);
}

TEST_F(DatabaseDamageTest, AnEmptyFileIsANewDatabase) {
    writeDatabase(QByteArray());
    EXPECT_FALSE(HalvaneHistory().setFileVersion(QStringLiteral("/a"), 1, 3).hasError());
    EXPECT_EQ(*HalvaneHistory().fileVersion(QStringLiteral("/a"), 1), 3);
}

TEST_F(DatabaseDamageTest, TheRemedyHelpsARunningProcess) {
    writeDatabase(QByteArray(8192, 'x'));
    expectEverythingFails(ErrorCode::ParseError);
    ASSERT_TRUE(QFile::rename(databasePath(), databasePath() + QStringLiteral(".damaged")));
    EXPECT_FALSE(HalvaneHistory().setFileVersion(QStringLiteral("/a"), 1, 3).hasError());
}

TEST_F(DatabaseDamageTest, ARemovedDatabaseIsMadeAgain) {
    ASSERT_FALSE(HalvaneHistory().setFileVersion(QStringLiteral("/a"), 1, 3).hasError());
    ASSERT_TRUE(QDir(configDir()).removeRecursively());
    EXPECT_EQ(*HalvaneHistory().fileVersion(QStringLiteral("/a"), 1), std::nullopt);
    EXPECT_FALSE(HalvaneHistory().setFileVersion(QStringLiteral("/a"), 1, 4).hasError());
    EXPECT_EQ(*HalvaneHistory().fileVersion(QStringLiteral("/a"), 1), 4);
}

TEST_F(DatabaseDamageTest, AFormatOfTheFutureIsRefusedAndLeftAsItIs) {
    makeDatabase();
    SQLite::Database(databasePath().toStdString(), SQLite::OPEN_READWRITE).exec("PRAGMA user_version = 2");
    expectEverythingFails(ErrorCode::ParseError);
    const QString message = HalvaneHistory().fileVersion(QStringLiteral("/a"), 1).errorMessage();
    EXPECT_TRUE(message.contains(QStringLiteral("newer release"))) << qPrintable(message);
    SQLite::Database database(databasePath().toStdString(), SQLite::OPEN_READWRITE);
    EXPECT_EQ(database.execAndGet("PRAGMA user_version").getInt(), 2);
    EXPECT_EQ(database.execAndGet("SELECT count(*) FROM history").getInt(), 200);
}

TEST_F(DatabaseDamageTest, ADirectoryInItsPlaceIsAnError) {
    ASSERT_TRUE(QDir().mkpath(databasePath()));
    expectEverythingFails(ErrorCode::FileNotReadable);
}

TEST_F(DatabaseDamageTest, AFileInThePlaceOfTheDirectoryIsAnError) {
    makeFile(QStringLiteral("config"));
    const Error error = HalvaneHistory().setFileVersion(QStringLiteral("/a"), 1, 3);
    ASSERT_TRUE(error.hasError());
    EXPECT_TRUE(error.errorMessage().contains(configDir())) << qPrintable(error.errorMessage());
    EXPECT_TRUE(HalvaneHistory().fileVersion(QStringLiteral("/a"), 1).hasError());
}
