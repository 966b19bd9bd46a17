#include "CacheUpkeepFixture.h"

#include <SQLiteCpp/Statement.h>
#include <SQLiteCpp/Transaction.h>

using namespace orx;

using CacheOfManyEntries = orx::testing::CacheUpkeepFixture;

TEST_F(CacheOfManyEntries, IsListedAndPruned) {
    constexpr int kEntries = 100'000;
    constexpr int kFolders = 100;
    {
        SQLite::Database database(this->database().toStdString(), SQLite::OPEN_READWRITE, 10'000);
        SQLite::Transaction transaction(database);
        SQLite::Statement row(database,
                              "INSERT INTO entries (sub_path, kind, bytes, files, modified_ns, sha256, "
                              "added_ms, used_ms) VALUES (?, 2, 1000, 1, 1, '', 1, ?)");
        for (int i = 0; i < kEntries; ++i) {
            row.bind(1, "many/" + std::to_string(i % kFolders) + "/" + std::to_string(i));
            row.bind(2, i);
            row.exec();
            row.reset();
        }
        transaction.commit();
    }
    for (int folder = 0; folder < kFolders; ++folder) {
        const QString directory = placeOf(QStringLiteral("many/%1").arg(folder));
        ASSERT_TRUE(QDir().mkpath(directory));
        for (int i = folder; i < kEntries; i += kFolders) {
            const QByteArray name = QFile::encodeName(directory + u'/' + QString::number(i));
            const int file = ::open(name.constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
            ASSERT_GE(file, 0);
            ASSERT_EQ(::ftruncate(file, 1000), 0);
            ::close(file);
        }
    }
    ASSERT_EQ(subPaths().size(), kEntries + 3);
    const auto report = cache.prune({1000 * 1000 + 300, std::nullopt});
    ASSERT_TRUE(report);
    EXPECT_EQ(report->removed.size(), kEntries - 1000);
    EXPECT_EQ(report->bytesLeft, 1000 * 1000 + 300);
    EXPECT_EQ(report->removed.first().subPath, u"many/0/0"_qs);
    EXPECT_EQ(subPaths().size(), 1000 + 3);
    EXPECT_FALSE(QFileInfo::exists(placeOf(u"many/98/98998"_qs)));
    EXPECT_TRUE(QFileInfo::exists(placeOf(u"many/99/99999"_qs)));
    EXPECT_TRUE(cache.contains(u"a"_qs));
}
