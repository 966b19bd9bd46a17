// A client that is killed while it copies out of its cache: the target holds what was there, or the whole new
// content, and the next run completes it without fetching anything again.
#include "CacheDownloads.h"

#include <HalvaneConnection.h>
#include <VonkPacker.h>

#include <QProcess>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace orx::testing {
namespace {

struct Place {
    const char* name;
    //! Files that have come by then.
    int came;
};

class KilledCopy : public CacheDownloads {
protected:
    static constexpr int fileCount = 4;

    static QByteArray contentOf(int number) { return QByteArray(5'000 + number, char('a' + number)); }
    QString nameOf(int number) const { return text("run %1").arg(number); }
    void SetUp() override { raw = makeFolder(text("raw")); }
    void makeFiles() {
        for (int i = 0; i < fileCount; ++i)
            makeFile(nameOf(i), contentOf(i), raw);
    }
    //! A packed directory of the files of that number.
    void makeAcquisition() {
        const QTemporaryDir dir;
        ASSERT_TRUE(QDir(dir.path()).mkpath(text("run.d/data")));
        for (int i = 0; i < fileCount; ++i) {
            QFile file(dir.filePath(acquiredName(i)));
            ASSERT_TRUE(file.open(QIODevice::WriteOnly));
            file.write(contentOf(i));
        }
        vonk::PackInput input;
        input.path = dir.filePath(text("run.d"));
        const auto packed = vonk::VonkPacker::pack(input, dir.filePath(text("run.d.vonk")));
        ASSERT_TRUE(packed) << qPrintable(packed.errorMessage());
        QFile file(dir.filePath(text("run.d.vonk")));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        makeFile(text("run.d.vonk"), file.readAll(), raw);
    }
    static QString acquiredName(int number) {
        return text(number % 2 == 0 ? "run.d/%1" : "run.d/data/%1").arg(number);
    }
    void putOldAcquisition() const {
        ASSERT_TRUE(QDir(at(text("run.d"))).removeRecursively());
        for (int i = 0; i < fileCount; ++i)
            put(acquiredName(i), "old " + QByteArray::number(i));
        put(text("run.d/data/notes"), "mine");
    }
    //! What is being made, or was left half-made.
    int hidden() const {
        return int(QDir(at(QString()))
                       .entryList({text(".*")}, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot)
                       .size());
    }
    //! A person may.
    void removeHidden() const {
        const QDir dir(at(QString()));
        for (const QFileInfo& left :
             dir.entryInfoList({text(".*.part")}, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot)) {
            ASSERT_TRUE(left.isDir() ? QDir(left.filePath()).removeRecursively()
                                     : QFile::remove(left.filePath()));
        }
    }
    //! Whether the file system of the target knows files without a name.
    bool knowsUnnamed() const {
        const QByteArray directory = QFile::encodeName(at(QString()));
        const int file = ::open(directory.constData(), O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600);
        if (file >= 0)
            ::close(file);
        return file >= 0;
    }
    //! What shows in the target, sorted.
    QStringList shown() const {
        QStringList entries = tree();
        entries.removeIf([](const QString& entry) { return entry.startsWith(u'.'); });
        return entries;
    }
    void putOld() const {
        for (int i = 0; i < fileCount; ++i)
            put(nameOf(i), "old " + QByteArray::number(i));
    }
    //! A client of its own process.
    void runAnother(QProcess& process, const QString& place) const {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(text("HALVANE_TOKEN"), QString::fromLatin1(HalvaneConnection::instance().token()));
        process.setProcessEnvironment(environment);
        process.setProcessChannelMode(QProcess::ForwardedChannels);
        process.start(text(CACHE_DOWNLOADER),
                      {real()->url().toString(), QString::fromLatin1(RealServer::AdminName),
                       QString::number(raw), cache().rootDir(), QDir(at(QString())).canonicalPath(), place});
        ASSERT_TRUE(process.waitForFinished(-1));
    }
    //! How many files have come; every other one must be the old one, and nothing else have a name that
    //! shows.
    int filesThatCame() const {
        int came = 0;
        for (int i = 0; i < fileCount; ++i) {
            QFile file(at(nameOf(i)));
            EXPECT_TRUE(file.open(QIODevice::ReadOnly));
            const QByteArray content = file.readAll();
            if (content == contentOf(i))
                ++came;
            else
                EXPECT_EQ(content, "old " + QByteArray::number(i));
        }
        EXPECT_EQ(QDir(at(QString())).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).size(), fileCount);
        return came;
    }

    int raw = -1;
};
INSTANTIATE_TEST_SUITE_P(Real, KilledCopy, ::testing::Values(Backend::Real), backendName);

TEST_P(KilledCopy, LeavesOldOrWholeContentAndTheNextRunFetchesNothing) {
    makeFiles();
    QProcess whole;
    runAnother(whole, text("nowhere"));
    ASSERT_EQ(whole.exitCode(), 0) << "so that everything is in the cache";
    ASSERT_EQ(cache().entries()->size(), fileCount);
    QList<Place> places{{"copy", 1}, {"flush", 1}, {"rename", 1}, {"directory", fileCount}};
    if (knowsUnnamed())
        places << Place{"link", 1};
    for (const Place& place : places) {
        SCOPED_TRACE(place.name);
        putOld();
        QProcess killed;
        runAnother(killed, text(place.name));
        EXPECT_EQ(killed.exitStatus(), QProcess::CrashExit);
        EXPECT_EQ(killed.exitCode(), SIGKILL);
        EXPECT_EQ(filesThatCame(), place.came);
        // What is to be replaced is so by a rename, before which the new one has a hidden name.
        const int left = hidden();
        EXPECT_LE(left, knowsUnnamed() && text(place.name) != text("rename") ? 0 : 1);
        forgetCalls();
        QProcess next;
        runAnother(next, text("nowhere"));
        EXPECT_EQ(next.exitCode(), 0);
        EXPECT_EQ(filesThatCame(), fileCount);
        EXPECT_EQ(hidden(), left) << "nothing is removed by its name";
        EXPECT_EQ(contentCalls(), 0);
        removeHidden();
    }
}

TEST_P(KilledCopy, LeavesTheOldAcquisitionOrTheWholeNewOneAndTheNextRunFetchesNothing) {
    makeAcquisition();
    QProcess whole;
    putOldAcquisition();
    const QStringList old = shown();
    runAnother(whole, text("nowhere"));
    ASSERT_EQ(whole.exitCode(), 0);
    const QStringList complete = shown();
    ASSERT_EQ(complete.size(), old.size());
    ASSERT_TRUE(complete.contains(text("run.d/data/notes=mine")));
    for (const Place& place : {Place{"copy", false}, Place{"flush", false}, Place{"exchange", false},
                               Place{"exchanged", true}, Place{"remove", true}, Place{"directory", true}}) {
        SCOPED_TRACE(place.name);
        putOldAcquisition();
        ASSERT_EQ(shown(), old);
        QProcess killed;
        runAnother(killed, text(place.name));
        EXPECT_EQ(killed.exitStatus(), QProcess::CrashExit);
        EXPECT_EQ(killed.exitCode(), SIGKILL);
        EXPECT_EQ(shown(), place.came ? complete : old);
        const int left = hidden();
        EXPECT_LE(left, 1);
        forgetCalls();
        QProcess next;
        runAnother(next, text("nowhere"));
        EXPECT_EQ(next.exitCode(), 0);
        EXPECT_EQ(shown(), complete);
        EXPECT_EQ(hidden(), left) << "it may hold what somebody wrote just then";
        EXPECT_EQ(contentCalls(), 0);
        removeHidden();
    }
}

TEST_P(KilledCopy, FilesThatAreCalledLikeWhatItLeavesComeAndStay) {
    makeFile(nameOf(0), contentOf(0), raw);
    makeFile(text(".run 0.orx-copy.part"), "a measurement, too", raw);
    makeFile(text(".run 0.1a2b3c.part"), "and this one", raw);
    put(text(".run 0.mine.part"), "a user's");
    for (int run = 0; run < 2; ++run) {
        QProcess process;
        runAnother(process, text("nowhere"));
        EXPECT_EQ(process.exitCode(), 0);
        EXPECT_EQ(tree(),
                  (QStringList{text(".run 0.1a2b3c.part=and this one"), text(".run 0.mine.part=a user's"),
                               text(".run 0.orx-copy.part=a measurement, too"),
                               text("run 0=") + QString::fromLatin1(contentOf(0))}));
    }
}

} // namespace
} // namespace orx::testing
