#include "HalvaneHistory.h"
#include "HalvaneStateFixture.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>

#include <thread>
#include <vector>

#include <sys/stat.h>

using namespace orx;

namespace {

class HistoryTest : public orx::testing::HalvaneStateFixture {
protected:
    static std::optional<int> version(const QString& path, int fileId) {
        const auto result = HalvaneHistory().fileVersion(path, fileId);
        EXPECT_TRUE(result) << qPrintable(result.errorMessage());
        return result.valueOr(std::nullopt);
    }
    static void record(const QString& path, int fileId, int version) {
        const Error error = HalvaneHistory().setFileVersion(path, fileId, version);
        EXPECT_FALSE(error.hasError()) << qPrintable(error.errorMessage());
    }
};

} // namespace

TEST_F(HistoryTest, KnowsNothingAtFirst) {
    EXPECT_EQ(version(QStringLiteral("/data/a"), 12), std::nullopt);
}

TEST_F(HistoryTest, RemembersTheLastVersionOfEachPathAndFile) {
    const QString path = makeFile(QStringLiteral("a"));
    record(path, 12, 1);
    record(path, 12, 3);
    record(path, 13, 7);
    record(path, 14, 2);
    record(path, 14, 1); // an older version was fetched on purpose
    EXPECT_EQ(version(path, 12), 3);
    EXPECT_EQ(version(path, 13), 7);
    EXPECT_EQ(version(path, 14), 1);
    EXPECT_EQ(version(makeFile(QStringLiteral("b")), 12), std::nullopt);
}

TEST_F(HistoryTest, KeepsServersApart) {
    const QString path = makeFile(QStringLiteral("a"));
    record(path, 12, 3);
    useServer(QStringLiteral("https://other.example.org"));
    EXPECT_EQ(version(path, 12), std::nullopt);
    useServer(QStringLiteral("https://LAB.example.org:443/"));
    EXPECT_EQ(version(path, 12), 3);
}

TEST_F(HistoryTest, KnowsAFileByAllItsPaths) {
    const QString path = makeFile(QStringLiteral("a"));
    ASSERT_TRUE(QFile::link(m_dir.path(), m_dir.filePath(QStringLiteral("link"))));
    record(m_dir.filePath(QStringLiteral("link/./a")), 12, 3);
    EXPECT_EQ(version(path, 12), 3);
    EXPECT_EQ(version(QDir::current().relativeFilePath(path), 12), 3);
}

TEST_F(HistoryTest, RemembersPathsWithoutAFileAndAnyName) {
    const QString odd = QString::fromUtf8("/no/such/'; DROP TABLE history; \xf0\x9f\xa7\xaa");
    record(odd, 12, 3);
    EXPECT_EQ(version(odd, 12), 3);
    EXPECT_EQ(version(QStringLiteral("/no/such/../such/") + odd.mid(9), 12), 3);
}

TEST_F(HistoryTest, RefusesWhatIsNoVersionOfAFile) {
    EXPECT_TRUE(HalvaneHistory().setFileVersion(QString(), 1, 1).is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(HalvaneHistory().setFileVersion(QStringLiteral("/a"), 0, 1).is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(HalvaneHistory().setFileVersion(QStringLiteral("/a"), 1, 0).is(ErrorCode::InvalidArgument));
    EXPECT_EQ(HalvaneHistory().setFileVersion(QStringLiteral("/%1%2%3"), 7, 0).errorMessage(),
              QStringLiteral("Version 0 of the file with the id 7 cannot be recorded for \"/%1%2%3\"."));
}

TEST_F(HistoryTest, LeavesOutTemporaryDirectoriesOfThisProcess) {
    ASSERT_TRUE(QDir(m_dir.path()).mkdir(QStringLiteral("tmp")));
    const QString tmp = m_dir.filePath(QStringLiteral("tmp"));
    const QString inside = makeFile(QStringLiteral("tmp/packed"));
    const QString beside = makeFile(QStringLiteral("tmp2"));
    HalvaneHistory::registerTemporaryDir(tmp);
    record(inside, 12, 3);
    record(beside, 12, 3);
    EXPECT_EQ(version(inside, 12), std::nullopt);
    EXPECT_EQ(version(beside, 12), 3);

    HalvaneHistory::unregisterTemporaryDir(tmp);
    record(inside, 12, 3);
    EXPECT_EQ(version(inside, 12), 3);
}

TEST_F(HistoryTest, FollowsTheConfigurationDirectory) {
    record(QStringLiteral("/a"), 12, 3);
    qputenv("HALVANE_CONFIG_DIR", QFile::encodeName(m_dir.filePath(QStringLiteral("second"))));
    EXPECT_EQ(version(QStringLiteral("/a"), 12), std::nullopt);
    qputenv("HALVANE_CONFIG_DIR", QFile::encodeName(configDir()));
    EXPECT_EQ(version(QStringLiteral("/a"), 12), 3);
}

TEST_F(HistoryTest, IsTheOwnersAlone) {
    record(QStringLiteral("/a"), 12, 3);
    for (const QString& path : {configDir(), databasePath(), databasePath() + QStringLiteral("-wal")}) {
        struct stat status {};
        ASSERT_EQ(::stat(QFile::encodeName(path).constData(), &status), 0) << qPrintable(path);
        EXPECT_EQ(status.st_mode & 077, 0u) << qPrintable(path);
    }
}

TEST_F(HistoryTest, IsSharedByProcesses) {
    const QString path = makeFile(QStringLiteral("a"));
    const QString server = QStringLiteral("https://lab.example.org");
    std::vector<std::unique_ptr<orx::testing::StateProcess>> processes;
    for (int i = 0; i < 3; ++i)
        processes.push_back(std::make_unique<orx::testing::StateProcess>(
            QStringList{server, QStringLiteral("record"), path + QString::number(i), QStringLiteral("100")}));
    for (int id = 1; id <= 100; ++id)
        record(path, id, 2);
    for (const auto& process : processes)
        EXPECT_EQ(process->finish(), 0);
    for (int id = 1; id <= 100; ++id) {
        EXPECT_EQ(version(path, id), 2);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(version(path + QString::number(i), id), 1);
    }
}

TEST_F(HistoryTest, IsSharedByThreads) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int id = 1; id <= 50; ++id)
                record(QStringLiteral("/t%1").arg(t), id, id);
        });
    for (std::thread& thread : threads)
        thread.join();
    for (int t = 0; t < 4; ++t)
        for (int id = 1; id <= 50; ++id)
            EXPECT_EQ(version(QStringLiteral("/t%1").arg(t), id), id);
}
