#include "HalvaneHistory.h"
#include "HalvaneStateFixture.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSet>

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Statement.h>

#include <algorithm>

using namespace orx;
using ItemType = HalvaneResourceReference::ItemType;

namespace {

const QString kServer = QStringLiteral("https://lab.example.org");

class JournalTest : public orx::testing::HalvaneStateFixture {
protected:
    static HalvaneUploadRecord acquire(const HalvaneUploadRecord& wanted) {
        const auto record = HalvaneUploadJournal::acquire(wanted);
        EXPECT_TRUE(record) << qPrintable(record.errorMessage());
        return record.valueOr(HalvaneUploadRecord());
    }
    static QList<HalvaneUploadRecord> unsettled(const HalvaneUploadRecord& wanted) {
        const auto records = HalvaneUploadJournal::unsettled(wanted);
        EXPECT_TRUE(records) << qPrintable(records.errorMessage());
        return records.valueOr(QList<HalvaneUploadRecord>());
    }
    static void release(const HalvaneUploadRecord& record) {
        EXPECT_FALSE(HalvaneUploadJournal::release(record.rowId).hasError());
    }
};

} // namespace

TEST_F(JournalTest, WritesWhatWasWanted) {
    HalvaneUploadRecord wanted = recordFor(makeFile(QStringLiteral("a"), "12345"));
    wanted.originalTargetItemType = ItemType::Folder;
    wanted.originalTargetId = 9;
    wanted.targetItemType = ItemType::File;
    wanted.targetId = 12;
    const HalvaneUploadRecord written = acquire(wanted);
    EXPECT_GT(written.rowId, 0);
    EXPECT_EQ(written.uploadId, -1);
    release(written);
    const QList<HalvaneUploadRecord> found = unsettled(wanted);
    ASSERT_EQ(found.size(), 1);
    const HalvaneUploadRecord& read = found.front();
    EXPECT_EQ(read.rowId, written.rowId);
    EXPECT_EQ(read.idempotencyKey, written.idempotencyKey);
    EXPECT_EQ(read.serverKey, QStringLiteral("https://lab.example.org:443"));
    EXPECT_EQ(read.userName, QStringLiteral("anna"));
    EXPECT_EQ(read.localPath, wanted.localPath);
    EXPECT_EQ(read.size, 5);
    EXPECT_EQ(read.modifiedNs, wanted.modifiedNs);
    EXPECT_EQ(read.targetItemType, ItemType::File);
    EXPECT_EQ(read.targetId, 12);
    EXPECT_EQ(read.originalTargetItemType, ItemType::Folder);
    EXPECT_EQ(read.originalTargetId, 9);
    EXPECT_EQ(read.targetFileName, QStringLiteral("a"));
    EXPECT_FALSE(read.temporary);
}

TEST_F(JournalTest, EveryRecordHasAKeyOfItsOwnThatTheProtocolAllows) {
    const HalvaneUploadRecord wanted = recordFor(makeFile(QStringLiteral("a")));
    static const QRegularExpression allowed(QStringLiteral("^[A-Za-z0-9_-]{16,128}$"));
    QSet<QByteArray> keys;
    for (int i = 0; i < 20; ++i) {
        const QByteArray key = acquire(wanted).idempotencyKey;
        EXPECT_TRUE(allowed.match(QString::fromLatin1(key)).hasMatch()) << key.constData();
        keys.insert(key);
    }
    EXPECT_EQ(keys.size(), 20);
}

TEST_F(JournalTest, AReleasedRecordIsTakenUpAgainWithItsKeyAndUpload) {
    const HalvaneUploadRecord wanted = recordFor(makeFile(QStringLiteral("a")));
    const HalvaneUploadRecord first = acquire(wanted);
    ASSERT_FALSE(HalvaneUploadJournal::setUploadId(first.rowId, 5).hasError());
    release(first);
    const HalvaneUploadRecord second = acquire(wanted);
    EXPECT_EQ(second.rowId, first.rowId);
    EXPECT_EQ(second.idempotencyKey, first.idempotencyKey);
    EXPECT_EQ(second.uploadId, 5);
}

TEST_F(JournalTest, AHeldRecordIsNeverSharedWithinAProcess) {
    const HalvaneUploadRecord wanted = recordFor(makeFile(QStringLiteral("a")));
    const HalvaneUploadRecord first = acquire(wanted);
    const HalvaneUploadRecord second = acquire(wanted);
    EXPECT_NE(second.rowId, first.rowId);
    EXPECT_NE(second.idempotencyKey, first.idempotencyKey);
    EXPECT_TRUE(unsettled(wanted).isEmpty());
}

TEST_F(JournalTest, TheNewestFreeRecordIsTaken) {
    const HalvaneUploadRecord wanted = recordFor(makeFile(QStringLiteral("a")));
    const HalvaneUploadRecord first = acquire(wanted);
    const HalvaneUploadRecord second = acquire(wanted);
    release(first);
    release(second);
    const QList<HalvaneUploadRecord> found = unsettled(wanted);
    ASSERT_EQ(found.size(), 2);
    EXPECT_EQ(found.front().rowId, second.rowId);
    EXPECT_EQ(acquire(wanted).rowId, second.rowId);
    EXPECT_EQ(acquire(wanted).rowId, first.rowId);
}

TEST_F(JournalTest, ARemovedRecordIsGoneAndItsRowNeverComesBack) {
    const HalvaneUploadRecord wanted = recordFor(makeFile(QStringLiteral("a")));
    const HalvaneUploadRecord first = acquire(wanted);
    EXPECT_FALSE(HalvaneUploadJournal::remove(first.rowId).hasError());
    EXPECT_FALSE(HalvaneUploadJournal::remove(first.rowId).hasError()) << "removing twice is no error";
    EXPECT_FALSE(HalvaneUploadJournal::release(first.rowId).hasError());
    const Error error = HalvaneUploadJournal::setUploadId(first.rowId, 5);
    EXPECT_TRUE(error.is(ErrorCode::NotFound));
    const HalvaneUploadRecord second = acquire(wanted);
    EXPECT_GT(second.rowId, first.rowId);
    EXPECT_NE(second.idempotencyKey, first.idempotencyKey);
}

TEST_F(JournalTest, OnlyTheSameUnchangedFileToTheSameTargetIsResumed) {
    const HalvaneUploadRecord wanted = recordFor(makeFile(QStringLiteral("a")));
    release(acquire(wanted));
    using Change = std::function<void(HalvaneUploadRecord&)>;
    const QList<Change> changes = {
        [](HalvaneUploadRecord& r) { r.serverKey += u'x'; },
        [](HalvaneUploadRecord& r) { r.userName = QStringLiteral("bert"); },
        [](HalvaneUploadRecord& r) { r.localPath += u'x'; },
        [](HalvaneUploadRecord& r) { r.size += 1; },
        [](HalvaneUploadRecord& r) { r.modifiedNs += 1; },
        [](HalvaneUploadRecord& r) { r.targetId = r.originalTargetId = 8; },
        [](HalvaneUploadRecord& r) { r.targetItemType = r.originalTargetItemType = ItemType::File; },
        [](HalvaneUploadRecord& r) { r.targetFileName = QStringLiteral("b"); },
        [](HalvaneUploadRecord& r) { r.temporary = true; },
    };
    for (const Change& change : changes) {
        HalvaneUploadRecord other = wanted;
        change(other);
        const auto index = &change - changes.data();
        EXPECT_TRUE(unsettled(other).isEmpty()) << index;
        const HalvaneUploadRecord made = acquire(other);
        EXPECT_EQ(made.uploadId, -1) << index;
        EXPECT_FALSE(HalvaneUploadJournal::remove(made.rowId).hasError());
    }
    EXPECT_EQ(unsettled(wanted).size(), 1);
}

TEST_F(JournalTest, WhatIsUnsettledIsFoundByTheOriginalTarget) {
    HalvaneUploadRecord wanted = recordFor(makeFile(QStringLiteral("a")));
    HalvaneUploadRecord replaced = wanted;
    replaced.targetItemType = ItemType::File;
    replaced.targetId = 12;
    release(acquire(replaced));
    EXPECT_EQ(unsettled(wanted).size(), 1) << "asked for by the folder";
    HalvaneUploadRecord direct = replaced;
    direct.originalTargetItemType = ItemType::File;
    direct.originalTargetId = 12;
    EXPECT_TRUE(unsettled(direct).isEmpty());
}

TEST_F(JournalTest, ATemporaryCopyIsKnownByItsTargetAndSize) {
    ASSERT_TRUE(QDir(m_dir.path()).mkdir(QStringLiteral("tmp")));
    HalvaneHistory::registerTemporaryDir(m_dir.filePath(QStringLiteral("tmp")));
    HalvaneUploadRecord wanted = recordFor(makeFile(QStringLiteral("tmp/a")));
    EXPECT_TRUE(wanted.temporary);
    const HalvaneUploadRecord first = acquire(wanted);
    release(first);
    wanted.localPath = QStringLiteral("/elsewhere/a");
    wanted.modifiedNs += 1;
    EXPECT_EQ(acquire(wanted).rowId, first.rowId);
    HalvaneHistory::unregisterTemporaryDir(m_dir.filePath(QStringLiteral("tmp")));
}

TEST_F(JournalTest, ARecordOfALivingProcessIsNeverReused) {
    const QString path = makeFile(QStringLiteral("a"));
    orx::testing::StateProcess other({kServer, QStringLiteral("hold"), path, QStringLiteral("7")});
    const QStringList held = other.readLine().split(u' ');
    ASSERT_EQ(held.size(), 2);
    const HalvaneUploadRecord wanted = recordFor(path);
    EXPECT_TRUE(unsettled(wanted).isEmpty());
    const HalvaneUploadRecord mine = acquire(wanted);
    EXPECT_NE(mine.rowId, held.front().toLongLong());
    EXPECT_NE(mine.idempotencyKey, held.back().toLatin1());
}

TEST_F(JournalTest, ARecordIsNotReleasedByAnotherProcess) {
    const QString path = makeFile(QStringLiteral("a"));
    orx::testing::StateProcess other({kServer, QStringLiteral("hold"), path, QStringLiteral("7")});
    const qint64 row = other.readLine().section(u' ', 0, 0).toLongLong();
    ASSERT_GT(row, 0);
    EXPECT_FALSE(HalvaneUploadJournal::release(row).hasError());
    EXPECT_TRUE(unsettled(recordFor(path)).isEmpty());
}

TEST_F(JournalTest, AKilledProcessLeavesItsRecordToTheNext) {
    const QString path = makeFile(QStringLiteral("a"));
    orx::testing::StateProcess other({kServer, QStringLiteral("hold"), path, QStringLiteral("7")});
    const QStringList held = other.readLine().split(u' ');
    ASSERT_EQ(held.size(), 2);
    other.kill();
    const HalvaneUploadRecord wanted = recordFor(path);
    EXPECT_EQ(unsettled(wanted).size(), 1);
    const HalvaneUploadRecord mine = acquire(wanted);
    EXPECT_EQ(mine.rowId, held.front().toLongLong());
    EXPECT_EQ(mine.idempotencyKey, held.back().toLatin1());
}

TEST_F(JournalTest, OfSeveralProcessesOneGetsTheFreeRecord) {
    const QString path = makeFile(QStringLiteral("a"));
    const HalvaneUploadRecord wanted = recordFor(path);
    const HalvaneUploadRecord first = acquire(wanted);
    release(first);
    std::vector<std::unique_ptr<orx::testing::StateProcess>> processes;
    for (int i = 0; i < 4; ++i)
        processes.push_back(std::make_unique<orx::testing::StateProcess>(
            QStringList{kServer, QStringLiteral("hold"), path, QStringLiteral("7")}));
    QStringList keys;
    for (const auto& process : processes)
        keys.append(process->readLine().section(u' ', 1, 1));
    EXPECT_EQ(keys.count(QString::fromLatin1(first.idempotencyKey)), 1);
    EXPECT_EQ(QSet<QString>(keys.begin(), keys.end()).size(), 4);
}

TEST_F(JournalTest, AThousandRecordsFromTwoProcessesAreAllThere) {
    const QString path = makeFile(QStringLiteral("a"));
    orx::testing::StateProcess other({kServer, QStringLiteral("acquire"), path, QStringLiteral("500")});
    for (int folder = 1; folder <= 500; ++folder)
        acquire(recordFor(path, folder));
    // The other process lives until here, so that neither takes a record of the other's.
    ASSERT_EQ(other.finish(), 0);
    // What the other process held is free; what this one holds is not.
    for (int folder = 1; folder <= 500; ++folder)
        EXPECT_EQ(unsettled(recordFor(path, folder)).size(), 1) << folder;
}

TEST_F(JournalTest, DescribesTheFileOnTheDisk) {
    const QString path = makeFile(QStringLiteral("a"), "12345");
    ASSERT_TRUE(QFile::link(path, m_dir.filePath(QStringLiteral("link"))));
    const HalvaneUploadRecord record = recordFor(m_dir.filePath(QStringLiteral("link")));
    EXPECT_EQ(record.localPath, QFileInfo(path).canonicalFilePath());
    EXPECT_EQ(record.size, 5);
    EXPECT_GT(record.modifiedNs, 0);
    EXPECT_EQ(record.targetFileName, QStringLiteral("link"));
}

TEST_F(JournalTest, ForgetsWhatNoServerRemembers) {
    const HalvaneUploadRecord old = acquire(recordFor(makeFile(QStringLiteral("old"), "1")));
    const HalvaneUploadRecord held = acquire(recordFor(makeFile(QStringLiteral("held"), "2")));
    const HalvaneUploadRecord recent = acquire(recordFor(makeFile(QStringLiteral("recent"), "3")));
    release(old);
    release(recent);
    const auto age = [this](const HalvaneUploadRecord& record, const char* days) {
        SQLite::Database database(databasePath().toStdString(), SQLite::OPEN_READWRITE);
        SQLite::Statement update(database, "UPDATE uploads SET begun_at = strftime('%Y-%m-%dT%H:%M:%fZ', "
                                           "'now', ?) WHERE row_id = ?");
        update.bind(1, days);
        update.bind(2, int64_t(record.rowId));
        ASSERT_EQ(update.exec(), 1);
    };
    age(old, "-62 days");
    age(held, "-62 days");
    age(recent, "-58 days");
    EXPECT_EQ(unsettled(old).size(), 1);
    acquire(recordFor(makeFile(QStringLiteral("new"), "4")));
    EXPECT_EQ(unsettled(old).size(), 0);
    EXPECT_EQ(unsettled(recent).size(), 1);
    release(held);
    EXPECT_EQ(unsettled(held).size(), 1);
}

TEST_F(JournalTest, DescribesOnlyFilesThatCanBeRead) {
    const QString fifo = m_dir.filePath(QStringLiteral("fifo"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    for (const QString& path : {m_dir.filePath(QStringLiteral("missing")), m_dir.path(), fifo, QString()}) {
        const auto parameters = HalvaneFileUploadParameters::create(path, 7, ItemType::Folder, QString(),
                                                                    std::nullopt, {}, std::nullopt);
        ASSERT_TRUE(parameters);
        const auto record = HalvaneUploadJournal::describe(*parameters);
        ASSERT_TRUE(record.hasError()) << qPrintable(path);
        EXPECT_TRUE(record.error().is(ErrorCode::FileNotReadable)) << qPrintable(path);
        EXPECT_TRUE(record.errorMessage().contains(path));
    }
}
