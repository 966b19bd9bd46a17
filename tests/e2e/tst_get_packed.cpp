// Packed acquisitions come down as what they hold, are recognised when they are there already, and come as
// the packed files that they are when that is asked for.
#include "Client.h"
#include "SmallWriter.h"
#include "StoppedRun.h"

#include <FaultProxy.h>
#include <VonkPacker.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orx::testing {
namespace {

using ::testing::HasSubstr;

class GetPacked : public ::testing::Test {
protected:
    // /packed/run.d.vonk holds the directory run.d with acqu, data/fid (larger than what is read of a packed
    // file to learn what it holds) and the empty directory data/empty.
    void SetUp() override {
        ASSERT_TRUE(server.start());
        ASSERT_TRUE(client.login(server.url()));
        putRun("parameters");
        server.clearRequests();
    }
    void putRun(const QByteArray& parameters) {
        client.mustRun({"mkdir", "/packed"});
        ASSERT_TRUE(QDir().mkpath(client.path("source/run.d/data/empty")));
        client.makeFile("source/run.d/acqu", parameters);
        client.makeLargeFile("source/run.d/data/fid", 1'000'000);
        vonk::PackInput input;
        input.path = client.path("source/run.d");
        put(pack(input, "run.d.vonk"), "/packed");
        fid = Client::contentOf(client.path("source/run.d/data/fid"));
        forget("source");
    }
    QString pack(const vonk::PackInput& input, const QString& name) const {
        const QString target = client.path(name);
        const auto metadata = vonk::VonkPacker::pack(input, target);
        EXPECT_TRUE(metadata) << qPrintable(metadata.error().errorMessage());
        return target;
    }
    //! A packed file of the files named, each with its name and \a what in it.
    QString packFiles(const QString& name, const QStringList& files, const QByteArray& what) const {
        vonk::PackInput input;
        for (const QString& file : files)
            input.companions << client.makeFile(file, file.toUtf8() + " of " + what);
        input.path = input.companions.takeFirst();
        const QString packed = pack(input, name);
        for (const QString& file : files)
            forget(file);
        return packed;
    }
    QJsonObject put(const QString& file, const QString& folder) const {
        const QJsonObject uploaded =
            client.mustRun({"--json", "put", "--no-cache", file, "--to", folder}).object();
        forget(QFileInfo(file).fileName());
        return uploaded;
    }
    void forget(const QString& name) const {
        const QFileInfo info(client.path(name));
        ASSERT_TRUE(info.isDir() ? QDir(info.filePath()).removeRecursively()
                                 : QFile::remove(info.filePath()));
    }
    Outcome get(const QStringList& arguments) const {
        return client.run(QStringList{"--json", "get"} + arguments);
    }
    Outcome getRun(const QStringList& more = {}) const {
        return get(QStringList{"/packed/run.d.vonk", "--to", "out"} + more);
    }
    //! Other bytes of the same size and time.
    void damageCopy() const {
        const QString cached =
            client.mustRun({"--json", "cache", "path", "/packed/run.d.vonk"}).object()["path"].toString();
        const QByteArray name = QFile::encodeName(cached + "/content/run.d/acqu");
        struct stat before {};
        ASSERT_EQ(::stat(name.constData(), &before), 0) << name.constData();
        QFile acqu(QFile::decodeName(name));
        ASSERT_TRUE(acqu.open(QIODevice::ReadWrite) && acqu.write("PARAMETERS") == 10);
        acqu.close();
        const timespec times[] = {before.st_atim, before.st_mtim};
        ASSERT_EQ(::utimensat(AT_FDCWD, name.constData(), times, 0), 0);
    }
    void makeOut() const { ASSERT_TRUE(QDir().mkpath(client.path("out"))); }
    QByteArray local(const QString& path) const { return Client::contentOf(client.path(path)); }
    void expectRunAt(const QString& path) const {
        EXPECT_EQ(client.filesIn(path), (QStringList{"acqu", "data"}));
        EXPECT_EQ(client.filesIn(path + "/data"), (QStringList{"empty", "fid"}));
        EXPECT_EQ(local(path + "/acqu"), "parameters");
        EXPECT_TRUE(local(path + "/data/fid") == fid);
    }
    QString stagingDir() const { return QString("out/.run.d.vonk-unpacked.halvane-part-%1-1").arg(runId()); }
    int runId() const {
        return client.mustRun({"--json", "info", "/packed/run.d.vonk"}).object()["id"].toInt();
    }
    //! Only what is read to learn what the packed file holds; the log may be behind the client.
    void expectNothingFetched() {
        EXPECT_TRUE(waitUntil([&] { return server.countRequests("GET", "/content") >= 2; }));
        qint64 bytes = 0;
        for (const RealServer::Request& request : server.requests())
            bytes += request.path.endsWith("/content") ? request.bytesOut : 0;
        EXPECT_LT(bytes, 300'000);
    }

    RealServer server;
    Client client;
    QByteArray fid;
};

// Whatever comes first in it.
TEST_F(GetPacked, IsKnownByItsMainFileAndNotByACompanion) {
    makeOut();
    put(packFiles("tissue.imzML.vonk", {"tissue.imzML", "tissue.ibd"}, "it"), "/packed");
    const QString main = QFileInfo(client.path("out")).canonicalFilePath() + "/tissue.imzML";
    ASSERT_TRUE(QDir().mkpath(client.path("told")));
    for (const char* const outcome : {"downloaded", "unchanged"}) {
        const Outcome got = get({"/packed/tissue.imzML.vonk", "--to", "out"});
        EXPECT_EQ(got.object()["path"].toString(), main) << got.err.constData();
        EXPECT_EQ(got.object()["outcome"], outcome);
        EXPECT_EQ(client.filesIn("out"), (QStringList{"tissue.ibd", "tissue.imzML"}));
        const Outcome told = client.run({"get", "/packed/tissue.imzML.vonk", "--to", "told"});
        EXPECT_THAT(told.out.toStdString(), HasSubstr("told/tissue.imzML"));
        EXPECT_THAT(told.out.toStdString(), ::testing::Not(HasSubstr(".ibd")));
    }
}

TEST_F(GetPacked, WhatIsThereAlreadyIsUnchangedWithTheCacheAndWithout) {
    makeOut();
    const Outcome first = getRun();
    ASSERT_EQ(first.exitCode, 0) << first.err.constData();
    EXPECT_EQ(first.object()["outcome"], "downloaded");
    EXPECT_EQ(first.object()["path"].toString(), QFileInfo(client.path("out/run.d")).canonicalFilePath());
    EXPECT_EQ(client.filesIn("out"), QStringList{"run.d"});
    expectRunAt("out/run.d");

    for (const QStringList& options : {QStringList{}, QStringList{"--no-cache"}}) {
        server.clearRequests();
        const Outcome again = getRun(options);
        EXPECT_EQ(again.exitCode, 0) << again.err.constData();
        EXPECT_EQ(again.object()["outcome"], "unchanged");
        expectNothingFetched();
    }
    // Neither does a copy in the cache have to be there for that.
    client.mustRun({"cache", "prune", "--max-size", "0"});
    server.clearRequests();
    EXPECT_EQ(getRun().object()["outcome"], "unchanged");
    expectNothingFetched();
    // What else somebody has put there is no matter.
    client.makeFile("out/run.d/notes.txt", "mine");
    EXPECT_EQ(getRun().object()["outcome"], "unchanged");
    EXPECT_EQ(local("out/run.d/notes.txt"), "mine");
}

TEST_F(GetPacked, ThatOfAnotherServerAtTheSameAddressIsNoCopy) {
    FaultProxy proxy("127.0.0.1", server.port());
    const QUrl address(QString::fromStdString(proxy.url()));
    ASSERT_TRUE(client.login(address));
    const QStringList pathOfCopy{"cache", "path", "/packed/run.d.vonk"};
    makeOut();
    ASSERT_EQ(getRun().exitCode, 0);
    const QByteArray copy = client.mustRun(pathOfCopy).out;
    // What is put there has the same number, names and sizes.
    RealServer second;
    ASSERT_TRUE(second.start());
    proxy.setTarget("127.0.0.1", second.port());
    ASSERT_TRUE(client.login(address));
    putRun("PARAMETERS");
    for (const QString command : {"path", "pin"})
        EXPECT_EQ(client.run({"cache", command, "/packed/run.d.vonk"}).exitCode, 3);
    const QJsonObject entry = client.mustRun({"--json", "cache", "ls"}).object();
    EXPECT_EQ(entry["pinned"], false);
    EXPECT_EQ(entry["damaged"], false);
    const Outcome fetched = getRun({"--if-exists", "overwrite"});
    EXPECT_EQ(fetched.exitCode, 0) << fetched.err.constData();
    EXPECT_EQ(fetched.object()["from_cache"], false);
    EXPECT_EQ(local("out/run.d/acqu"), "PARAMETERS");
    EXPECT_EQ(client.mustRun(pathOfCopy).out, copy);
    EXPECT_EQ(Client::contentOf(QString::fromUtf8(copy).trimmed() + "/content/run.d/acqu"), "PARAMETERS");
}

TEST_F(GetPacked, ThatOfAnotherServerLeavesAPinnedCopyAsItIsUntilItReplacesIt) {
    FaultProxy proxy("127.0.0.1", server.port());
    const auto logInAt = [&](const RealServer& now) {
        proxy.setTarget("127.0.0.1", now.port());
        ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    };
    const QStringList pathOfCopy{"cache", "path", "/packed/run.d.vonk"};
    const auto entry = [&] { return client.mustRun({"--json", "cache", "ls"}).object(); };
    logInAt(server);
    makeOut();
    ASSERT_EQ(getRun().exitCode, 0);
    client.mustRun({"cache", "pin", "/packed/run.d.vonk"});
    RealServer second;
    ASSERT_TRUE(second.start());
    logInAt(second);
    putRun("PARAMETERS");
    // The first two tell what the packed file holds.
    proxy.replaceReply({"GET", ".*/content", 2, -1}, 404, "text/plain", "gone");
    EXPECT_NE(getRun({"--if-exists", "overwrite"}).exitCode, 0);
    EXPECT_EQ(local("out/run.d/acqu"), "parameters");
    proxy.clearRules();

    logInAt(server);
    const QString copy = QString::fromUtf8(client.mustRun(pathOfCopy).out).trimmed();
    EXPECT_EQ(Client::contentOf(copy + "/content/run.d/acqu"), "parameters");
    EXPECT_EQ(entry()["pinned"], true);
    EXPECT_EQ(entry()["damaged"], false);

    logInAt(second);
    const Outcome replaced = getRun({"--if-exists", "overwrite"});
    EXPECT_EQ(replaced.exitCode, 0) << replaced.err.constData();
    EXPECT_THAT(replaced.err.toStdString(), HasSubstr("is pinned, and what this server has"));
    EXPECT_EQ(local("out/run.d/acqu"), "PARAMETERS");
    EXPECT_EQ(Client::contentOf(copy + "/content/run.d/acqu"), "PARAMETERS");
    EXPECT_EQ(entry()["pinned"], true);
    EXPECT_EQ(client.mustRun(pathOfCopy).exitCode, 0);
}

TEST_F(GetPacked, InAFolderItIsUnchangedToo) {
    ASSERT_EQ(get({"/packed", "--to", "out"}).exitCode, 0);
    expectRunAt("out/packed/run.d");
    server.clearRequests();
    const Outcome again = get({"/packed", "--to", "out"});
    EXPECT_EQ(again.exitCode, 0);
    ASSERT_EQ(again.objects().size(), 2);
    EXPECT_EQ(again.objects()[0]["outcome"], "unchanged");
    EXPECT_EQ(again.objects()[1]["unchanged"], 1);
    expectNothingFetched();
}

TEST_F(GetPacked, WithoutTheCacheItIsUnpackedTooAndLeavesNothingElse) {
    makeOut();
    const Outcome outcome = getRun({"--no-cache"});
    ASSERT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_EQ(client.filesIn("out"), QStringList{"run.d"});
    expectRunAt("out/run.d");
    EXPECT_EQ(client.mustRun({"--json", "cache", "ls"}).objects().size(), 0);
}

// Every way in which what is there can be something else.
TEST_F(GetPacked, WhatDiffersIsAClashAndStays) {
    makeOut();
    ASSERT_EQ(getRun().exitCode, 0);
    const auto expectRefused = [this](const char* what) {
        const Outcome outcome = getRun();
        EXPECT_EQ(outcome.exitCode, 4) << what;
        EXPECT_EQ(outcome.object()["error"], "AlreadyExists") << what;
        EXPECT_THAT(outcome.object()["message"].toString().toStdString(), HasSubstr("out/run.d\" exists"));
    };
    // The same size.
    client.makeFile("out/run.d/acqu", "PARAMETERS");
    server.clearRequests();
    expectRefused("another content");
    expectNothingFetched();
    EXPECT_EQ(local("out/run.d/acqu"), "PARAMETERS");
    forget("out/run.d/acqu");
    expectRefused("a missing file");
    EXPECT_FALSE(QFileInfo::exists(client.path("out/run.d/acqu")));
    client.makeFile("elsewhere", "parameters");
    ASSERT_TRUE(QFile::link(client.path("elsewhere"), client.path("out/run.d/acqu")));
    expectRefused("a link to the content");
    forget("out/run.d/acqu");
    client.makeFile("out/run.d/acqu", "parameters");
    EXPECT_EQ(getRun().object()["outcome"], "unchanged");
    forget("out/run.d/data/empty");
    expectRefused("a missing directory");
    forget("out/run.d");
    client.makeFile("out/run.d", "a file");
    expectRefused("a file");
    EXPECT_EQ(local("out/run.d"), "a file");
}

TEST_F(GetPacked, TheOptionDecidesAboutClashes) {
    for (const QStringList& cache : {QStringList{}, QStringList{"--no-cache"}}) {
        ASSERT_TRUE(QDir().mkpath(client.path("out/run.d")));
        client.makeFile("out/run.d/acqu", "edited");
        client.makeFile("out/run.d/notes.txt", "mine");
        const auto ran = [&](const QString& what) {
            return getRun(cache + QStringList{"--if-exists", what});
        };
        EXPECT_EQ(ran("fail").exitCode, 4);
        EXPECT_EQ(ran("skip").object()["outcome"], "skipped");
        EXPECT_EQ(local("out/run.d/acqu"), "edited");

        EXPECT_EQ(ran("rename").object()["outcome"], "downloaded");
        expectRunAt("out/run (2).d");
        EXPECT_EQ(local("out/run.d/acqu"), "edited");
        // Once more makes no third one.
        EXPECT_EQ(ran("rename").object()["outcome"], "unchanged");
        EXPECT_EQ(client.filesIn("out"), (QStringList{"run (2).d", "run.d"}));

        EXPECT_EQ(ran("overwrite").object()["outcome"], "downloaded");
        EXPECT_EQ(local("out/run.d/acqu"), "parameters");
        EXPECT_TRUE(local("out/run.d/data/fid") == fid);
        EXPECT_EQ(local("out/run.d/notes.txt"), "mine");
        forget("out");
    }
}

// The whole of it is made beside the old one first, which takes long enough to be caught.
TEST_F(GetPacked, AKilledRunThatOverwritesLeavesTheOldDirectoryAndTheNextOneReplacesIt) {
    ASSERT_TRUE(QDir().mkpath(client.path("source/run.d")));
    client.makeFile("source/run.d/acqu", "parameters");
    client.makeLargeFile("source/run.d/data", 48'000'000);
    vonk::PackInput input;
    input.path = client.path("source/run.d");
    put(pack(input, "large.vonk"), "/packed");
    const QByteArray data = Client::contentOf(client.path("source/run.d/data"));
    forget("source");
    const QStringList overwriting{"get", "/packed/large.vonk", "--to", "out", "--if-exists", "overwrite"};
    const auto putOld = [this] {
        QDir(client.path("out")).removeRecursively();
        ASSERT_TRUE(QDir().mkpath(client.path("out/run.d")));
        client.makeFile("out/run.d/acqu", "edited");
        client.makeFile("out/run.d/notes.txt", "mine");
    };
    putOld();
    client.mustRun(overwriting); // into the cache
    putOld();
    StoppedRun run(client, overwriting, client.path("out"), putOld);
    ASSERT_TRUE(run.isStopped());
    EXPECT_FALSE(run.goOnWith(SIGKILL).ended);
    EXPECT_EQ(client.filesIn("out/run.d"), (QStringList{"acqu", "notes.txt"}));
    EXPECT_EQ(local("out/run.d/acqu"), "edited");
    const QStringList left = halfMadeIn(client.path("out"));
    ASSERT_EQ(left.size(), 1);
    EXPECT_TRUE(left.first().startsWith(".run.d."));
    client.makeFile("out/.run.d.orx-copy.part", "a user's");
    client.mustRun(overwriting);
    EXPECT_EQ(local("out/.run.d.orx-copy.part"), "a user's");
    EXPECT_EQ(halfMadeIn(client.path("out")).size(), 2) << "nothing is removed by its name";
    EXPECT_EQ(client.filesIn("out/run.d"), (QStringList{"acqu", "data", "notes.txt"}));
    EXPECT_EQ(local("out/run.d/acqu"), "parameters");
    EXPECT_TRUE(local("out/run.d/data") == data);
    EXPECT_EQ(local("out/run.d/notes.txt"), "mine");
    EXPECT_EQ(client.mustRun(QStringList{"--json"} + overwriting).object()["outcome"], "unchanged");
    EXPECT_EQ(halfMadeIn(client.path("out")).size(), 2);
}

TEST_F(GetPacked, AFileInTheWayOfADirectoryIsNotOverwritten) {
    makeOut();
    client.makeFile("out/run.d", "a file");
    const Outcome outcome = getRun({"--if-exists", "overwrite"});
    EXPECT_EQ(outcome.exitCode, 4);
    EXPECT_THAT(outcome.object()["message"].toString().toStdString(), HasSubstr("is no directory"));
    EXPECT_EQ(local("out/run.d"), "a file");
}

TEST_F(GetPacked, AnotherNameIsGivenToWhatItHoldsWhenThatIsOneThing) {
    makeOut();
    EXPECT_EQ(getRun({"--as", "march.d"}).exitCode, 0);
    expectRunAt("out/march.d");
    EXPECT_EQ(getRun({"--as", "march.d"}).object()["outcome"], "unchanged");
    put(packFiles("pair.vonk", {"spectra.bin", "method.txt"}, "one"), "/packed");
    const Outcome several = get({"/packed/pair.vonk", "--to", "out", "--as", "x"});
    EXPECT_EQ(several.exitCode, 2);
    EXPECT_THAT(several.object()["message"].toString().toStdString(), HasSubstr("holds 2 files"));
    EXPECT_EQ(client.filesIn("out"), QStringList{"march.d"});
}

// A packed file's own name is nothing that a person looks for.
TEST_F(GetPacked, ASingleFileHasItsOwnNameAgain) {
    put(packFiles("run1.raw.vonk", {"run1.raw"}, "one"), "/packed");
    ASSERT_EQ(get({"/packed/run1.raw.vonk", "--to", "out/"}).exitCode, 4);
    makeOut();
    for (const QString outcome : {"downloaded", "unchanged"})
        EXPECT_EQ(get({"/packed/run1.raw.vonk", "--to", "out"}).object()["outcome"], outcome);
    EXPECT_EQ(client.filesIn("out"), QStringList{"run1.raw"});
    EXPECT_EQ(local("out/run1.raw"), "run1.raw of one");
    EXPECT_EQ(get({"/packed/run1.raw.vonk", "--to", "out/new.raw"}).exitCode, 0);
    EXPECT_EQ(local("out/new.raw"), "run1.raw of one");
}

// An interrupted run may have left some of it.
TEST_F(GetPacked, OnlyWhatIsMissingOfSeveralEntriesIsWritten) {
    put(packFiles("pair.vonk", {"spectra.bin", "method.txt"}, "one"), "/packed");
    makeOut();
    client.makeFile("out/method.txt", "method.txt of one");
    const Outcome outcome = get({"/packed/pair.vonk", "--to", "out"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_EQ(outcome.object()["outcome"], "downloaded");
    EXPECT_EQ(client.filesIn("out"), (QStringList{"method.txt", "spectra.bin"}));
    EXPECT_EQ(local("out/spectra.bin"), "spectra.bin of one");
}

// A directory that comes to the place of the second of them has the same effect as a kill before it.
TEST_F(GetPacked, WhatWasPlacedByHalfIsCompletedWithoutBeingFetchedAgain) {
    FaultProxy proxy("127.0.0.1", server.port());
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    put(packFiles("pair.vonk", {"first.txt", "second.txt"}, "one"), "/packed");
    makeOut();
    client.makeFile("out/first.txt", "old");
    const QStringList overwriting{"--json", "get",        "/packed/pair.vonk", "--to",
                                  "out",    "--no-cache", "--if-exists",       "overwrite"};
    // The first is asked for the end of the packed file.
    const auto held = proxy.holdReply({"GET", ".*/content", 1});
    const auto process = client.start(overwriting);
    held->waitUntilAnswered();
    ASSERT_TRUE(QDir().mkdir(client.path("out/second.txt")));
    held->release();
    EXPECT_EQ(Client::finish(*process).exitCode, 4);
    EXPECT_EQ(local("out/first.txt"), "first.txt of one");
    ASSERT_TRUE(QDir(client.path("out")).rmdir("second.txt"));

    proxy.replaceReply({"GET", ".*/content", 1, -1}, 503, "text/plain", "nothing more");
    const int before = proxy.traffic("GET", ".*/content").requests;
    EXPECT_EQ(client.mustRun(overwriting).object()["outcome"], "downloaded");
    EXPECT_EQ(proxy.traffic("GET", ".*/content").requests - before, 1) << "its end";
    EXPECT_EQ(client.filesIn("out"), (QStringList{"first.txt", "second.txt"}));
    EXPECT_EQ(local("out/first.txt"), "first.txt of one");
    EXPECT_EQ(local("out/second.txt"), "second.txt of one");
}

// A run that overwrote leaves links of the target's files when it is killed before it removes what it
// unpacked.
TEST_F(GetPacked, WhatAKilledRunLeftUnpackedIsNotWrittenThoughTheTargetsFilesAreTheSame) {
    makeOut();
    ASSERT_EQ(getRun({"--no-cache"}).exitCode, 0);
    const auto leaveLinks = [&] {
        const QString content = stagingDir() + "/run.d.vonk/content/run.d";
        ASSERT_TRUE(QDir().mkpath(client.path(content + "/data/empty")));
        for (const QString name : {"/acqu", "/data/fid"})
            ASSERT_EQ(::link(QFile::encodeName(client.path("out/run.d" + name)).constData(),
                             QFile::encodeName(client.path(content + name)).constData()),
                      0);
    };
    leaveLinks();
    EXPECT_EQ(getRun({"--no-cache"}).object()["outcome"], "unchanged");
    EXPECT_EQ(client.filesIn("out"), QStringList{"run.d"});

    leaveLinks();
    QFile acqu(client.path("out/run.d/acqu"));
    ASSERT_TRUE(acqu.open(QIODevice::ReadWrite) && acqu.write("PARAMETERS") == 10);
    acqu.close();
    ASSERT_TRUE(QFile::rename(client.path("out/run.d/acqu"), client.path("out/mine")));
    EXPECT_EQ(getRun({"--no-cache", "--if-exists", "overwrite"}).object()["outcome"], "downloaded");
    EXPECT_EQ(client.filesIn("out"), (QStringList{"mine", "run.d"}));
    EXPECT_EQ(local("out/mine"), "PARAMETERS");
    expectRunAt("out/run.d");
}

// It is held when the reply with the content is: what it has unpacked lies there without any other lock, too.
TEST_F(GetPacked, WhatARunWithoutTheCacheWorksInIsNotRemovedByAnotherRun) {
    FaultProxy proxy("127.0.0.1", server.port());
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    makeOut();
    // Behind what is read to learn what the packed file holds.
    const auto held = proxy.holdReply({"GET", ".*/content", 2});
    const auto process = client.start({"--json", "get", "/packed/run.d.vonk", "--to", "out", "--no-cache"});
    held->waitUntilAnswered();
    const QStringList arrived = client.filesIn(stagingDir());
    EXPECT_GE(arrived.size(), 2) << "its lock, and what comes";

    const Outcome busy = getRun({"--no-cache"});
    EXPECT_NE(busy.exitCode, 0);
    EXPECT_EQ(busy.object()["error"], "Busy");
    EXPECT_THAT(busy.object()["message"].toString().toStdString(), HasSubstr("is being downloaded already"));
    EXPECT_EQ(getRun().object()["outcome"], "downloaded");
    for (const QStringList& cache : {QStringList{}, QStringList{"--no-cache"}}) {
        EXPECT_EQ(getRun(cache).object()["outcome"], "unchanged");
        EXPECT_EQ(client.filesIn(stagingDir()), arrived);
    }
    held->release();
    const Outcome outcome = Client::finish(*process);
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_EQ(outcome.object()["outcome"], "unchanged");
    EXPECT_EQ(client.filesIn("out"), QStringList{"run.d"});
    expectRunAt("out/run.d");
}

TEST_F(GetPacked, WhatAnEarlierRunLeftIsRemovedByRunsWithoutTheCacheOnly) {
    makeOut();
    ASSERT_EQ(getRun().exitCode, 0);
    ASSERT_TRUE(QDir().mkpath(client.path(stagingDir() + "/run.d.vonk/content")));
    EXPECT_EQ(getRun().object()["outcome"], "unchanged");
    EXPECT_TRUE(QFileInfo(client.path(stagingDir())).isDir());
    EXPECT_EQ(getRun({"--no-cache"}).object()["outcome"], "unchanged");
    EXPECT_EQ(client.filesIn("out"), QStringList{"run.d"});
}

TEST_F(GetPacked, WhatCannotBeRemovedOfAnEarlierRunIsAWarning) {
    makeOut();
    ASSERT_EQ(getRun().exitCode, 0);
    ASSERT_TRUE(QFile::link(client.path("elsewhere"), client.path(stagingDir())));
    const Outcome outcome = getRun({"--no-cache"});
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.object()["outcome"], "unchanged");
    EXPECT_THAT(outcome.err.toStdString(), HasSubstr("could not be removed"));
    EXPECT_THAT(outcome.err.toStdString(), HasSubstr(stagingDir().toStdString()));
}

// Writers sort them, and readers do not ask for it; an upgrade keeps the order.
TEST_F(GetPacked, EntriesInAnyOrderComeDown) {
    for (const int version : {1, 2}) {
        vonk::SmallWriter writer(version);
        for (const char* const name : {"a/x", "b", "a/y"})
            writer.addFile(QString("content/") + name, QByteArray(name) + " of version");
        writer.finish();
        const QString name = QString("mixed%1.vonk").arg(version);
        put(client.makeFile(name, writer.bytes()), "/packed");
        for (const QStringList& cache : {QStringList{"--no-cache"}, QStringList{}}) {
            makeOut();
            const Outcome outcome = get(cache + QStringList{"/packed/" + name, "--to", "out"});
            EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
            EXPECT_EQ(client.filesIn("out"), (QStringList{"a", "b"}));
            EXPECT_EQ(client.filesIn("out/a"), (QStringList{"x", "y"}));
            EXPECT_EQ(local("out/a/y"), "a/y of version");
            forget("out");
        }
        client.mustRun({"unpack", client.makeFile(name, writer.bytes()), "--to", client.path("out")});
        EXPECT_EQ(client.filesIn("out/a"), (QStringList{"x", "y"}));
        forget("out");
    }
}

TEST_F(GetPacked, TwinsOfAFolderKeepTheirContentsApart) {
    client.mustRun({"mkdir", "/twins"});
    const int first = put(packFiles("run.raw.vonk", {"run.raw"}, "one"), "/twins")["id"].toInt();
    const int second = put(packFiles("run.raw.vonk", {"run.raw"}, "two"), "/twins")["id"].toInt();
    ASSERT_LT(first, second);
    for (const int unchanged : {0, 2}) {
        const Outcome outcome = get({"/twins", "--to", "out"});
        EXPECT_EQ(outcome.exitCode, 0) << outcome.out.constData();
        EXPECT_EQ(outcome.objects().last()["unchanged"], unchanged);
        EXPECT_EQ(client.filesIn("out/twins"),
                  (QStringList{QString("run (file %1).raw").arg(second), "run.raw"}));
        EXPECT_EQ(local("out/twins/run.raw"), "run.raw of one");
        EXPECT_EQ(local(QString("out/twins/run (file %1).raw").arg(second)), "run.raw of two");
    }
}

// Both unpack to run.raw; which of them comes first depends on timing, and the other one fails either way.
TEST_F(GetPacked, AnEntryOfTheSameRunIsNotOverwrittenByAPolicy) {
    client.mustRun({"mkdir", "/alike"});
    for (const QByteArray what : {"one", "two"})
        put(packFiles("run-" + what + ".vonk", {"run.raw"}, what), "/alike");
    for (const QStringList& cache : {QStringList{}, QStringList{"--no-cache"}}) {
        ASSERT_TRUE(QDir().mkpath(client.path("out/alike")));
        client.makeFile("out/alike/run.raw", "old");
        const Outcome outcome = get(cache + QStringList{"/alike", "--to", "out", "--if-exists", "overwrite"});
        EXPECT_EQ(outcome.exitCode, 14);
        QStringList told;
        for (const QJsonObject& object : outcome.objects())
            if (object["type"] == "failure")
                told << object["message"].toString();
        ASSERT_EQ(told.size(), 1);
        EXPECT_THAT(told[0].toStdString(), HasSubstr("of this same download"));
        EXPECT_THAT(local("out/alike/run.raw").toStdString(), ::testing::StartsWith("run.raw of "));
        forget("out");
    }
}

TEST_F(GetPacked, ADamagedCopyInTheCacheIsFetchedAnew) {
    makeOut();
    ASSERT_EQ(getRun().exitCode, 0);
    damageCopy();
    forget("out/run.d");
    const Outcome outcome = getRun();
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_THAT(outcome.err.toStdString(), HasSubstr("is not what the server has; it is fetched anew"));
    EXPECT_EQ(outcome.object()["from_cache"], false);
    expectRunAt("out/run.d");
    forget("out/run.d");
    EXPECT_EQ(getRun().object()["from_cache"], true);
    expectRunAt("out/run.d");
}

TEST_F(GetPacked, ACopyThatWasFoundDamagedIsNotThereThoughItCannotBeFetchedAnew) {
    FaultProxy proxy("127.0.0.1", server.port());
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    makeOut();
    ASSERT_EQ(getRun().exitCode, 0);
    damageCopy();
    forget("out/run.d");
    // Behind what is read to learn what the packed file holds.
    proxy.corruptReplyBody({"GET", ".*/content", 0, -1}, 500'000);
    const Outcome failed = getRun();
    EXPECT_NE(failed.exitCode, 0);
    EXPECT_THAT(failed.err.toStdString(), HasSubstr("is not what the server has; it is fetched anew"));
    EXPECT_EQ(client.run({"cache", "path", "/packed/run.d.vonk"}).exitCode, 3);
    proxy.clearRules();
    EXPECT_EQ(getRun().object()["from_cache"], false);
    expectRunAt("out/run.d");
}

TEST_F(GetPacked, AsThePackedFileItIsOneFileUnderTheSameRules) {
    makeOut();
    const QJsonObject listed = client.mustRun({"--json", "ls", "/packed/run.d.vonk"}).object();
    const QStringList packed{"--packed"};
    const Outcome outcome = getRun(packed);
    ASSERT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_EQ(outcome.object()["outcome"], "downloaded");
    EXPECT_EQ(outcome.object()["path"].toString(),
              QFileInfo(client.path("out/run.d.vonk")).canonicalFilePath());
    EXPECT_EQ(client.filesIn("out"), QStringList{"run.d.vonk"});
    EXPECT_EQ(sha256Of(local("out/run.d.vonk")), listed["sha256"]);
    EXPECT_EQ(getRun(packed).object()["outcome"], "unchanged");

    client.makeFile("out/run.d.vonk", "another");
    EXPECT_EQ(getRun(packed).exitCode, 4);
    EXPECT_EQ(getRun(packed + QStringList{"--if-exists", "skip"}).object()["outcome"], "skipped");
    EXPECT_EQ(getRun(packed + QStringList{"--if-exists", "rename"}).object()["outcome"], "downloaded");
    EXPECT_EQ(sha256Of(local("out/run.d (2).vonk")), listed["sha256"]);
    EXPECT_EQ(local("out/run.d.vonk"), "another");
    EXPECT_EQ(getRun(packed + QStringList{"--if-exists", "overwrite"}).object()["outcome"], "downloaded");
    EXPECT_EQ(sha256Of(local("out/run.d.vonk")), listed["sha256"]);
    EXPECT_EQ(getRun(packed + QStringList{"--as", "x.vonk"}).exitCode, 0);
    EXPECT_EQ(sha256Of(local("out/x.vonk")), listed["sha256"]);

    // Other files come as ever, and folders too.
    client.mustRun({"put", client.makeFile("a.txt", "content"), "--to", "/packed"});
    EXPECT_EQ(get({"--packed", "/packed", "--to", "all"}).exitCode, 0);
    EXPECT_EQ(client.filesIn("all/packed"), (QStringList{"a.txt", "run.d.vonk"}));
    EXPECT_EQ(sha256Of(local("all/packed/run.d.vonk")), listed["sha256"]);
}

TEST_F(GetPacked, AnInspectionReadsItWhereItIs) {
    const Outcome outcome = client.run({"--json", "inspect", "/packed/run.d.vonk"});
    ASSERT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    expectNothingFetched();
    const QJsonObject run = outcome.object();
    EXPECT_EQ(run["type"], "packed_acquisition");
    EXPECT_TRUE(run["path"].isNull());
    EXPECT_EQ(run["reference"], "file:1@1");
    EXPECT_EQ(run["name"], "run.d");
    EXPECT_EQ(run["files"], 2);
    EXPECT_EQ(run["content_size"].toInteger(), 1'000'000 + 10);
    EXPECT_GT(run["size"].toInteger(), 1'000'000);
    EXPECT_EQ(client.run({"--json", "inspect", "file:1"}).object(), run);
    const QByteArray shown = client.mustRun({"inspect", "-l", "/packed/run.d.vonk"}).out;
    EXPECT_THAT(shown.toStdString(), HasSubstr("file:1@1"));
    EXPECT_THAT(shown.toStdString(), HasSubstr("data/fid"));
    EXPECT_EQ(client.filesIn(), QStringList()) << "nothing is left here";
}

TEST_F(GetPacked, AnInspectionOnTheServerTellsTheRunAndDrawsIt) {
    const auto packed = client.path("tiny.mzML.vonk");
    client.mustRun({"pack", ORX_TEST_DATA_DIR "/tiny.mzML", "-o", packed});
    const QJsonObject here = client.mustRun({"--json", "inspect", packed}).object();
    put(packed, "/packed");
    const QJsonObject there =
        client.mustRun({"--json", "inspect", "/packed/tiny.mzML.vonk", "--plot", "run.svg"}).object();
    EXPECT_FALSE(here["run_summary"].toObject().isEmpty());
    for (const QString key : {"run_summary", "entries", "size", "source_kind", "format_version"})
        EXPECT_EQ(there[key], here[key]) << key.toStdString();
    EXPECT_TRUE(local("run.svg").contains("<svg"));
}

TEST_F(GetPacked, WhatIsHereIsInspectedBeforeWhatIsOnTheServer) {
    client.makeFile("run.d.vonk", "no packed file");
    const Outcome outcome = client.run({"inspect", client.path("run.d.vonk")});
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_THAT(outcome.err.toStdString(), HasSubstr("run.d.vonk"));
    EXPECT_TRUE(server.requests().isEmpty()) << "nobody was asked";
}

TEST_F(GetPacked, WhatCannotBeInspectedIsNamed) {
    const auto expectFailure = [&](const QString& what, int exitCode, const char* message) {
        const Outcome outcome = client.run({"inspect", what});
        EXPECT_EQ(outcome.exitCode, exitCode) << what.toStdString() << outcome.err.constData();
        EXPECT_THAT(outcome.err.toStdString(), HasSubstr(message));
    };
    client.mustRun({"put", "--no-cache", client.makeFile("notes.txt", "no packed file"), "--to", "/packed"});
    expectFailure("/packed/notes.txt", 3, "notes.txt");
    expectFailure("/packed/none.vonk", 3, "exists neither here nor on the server");
    expectFailure("file:999", 6, "999");
    expectFailure("/packed", 2, "folder");
    client.mustRun({"logout"});
    expectFailure("/packed/run.d.vonk", 3, "does not exist");
    expectFailure("file:1", 5, "Nobody is logged in");
}

TEST_F(GetPacked, WhatCannotBeUnpackedComesAsTheFileThatItIs) {
    client.mustRun({"mkdir", "/odd"});
    makeOut();
    // The client would not put it as an acquisition.
    client.mustRun({"put", "--no-cache", client.makeFile("source", "no acquisition"), "--to", "/odd", "--as",
                    "odd.vonk"});
    client.mustRun(
        {"put", "--no-cache", client.makeFile("source", ""), "--to", "/odd", "--as", "empty.vonk"});
    for (const QStringList& cache : {QStringList{}, QStringList{"--no-cache"}}) {
        const Outcome outcome = get(cache + QStringList{"/odd", "--to", "out"});
        EXPECT_EQ(outcome.exitCode, 0) << outcome.out.constData();
        EXPECT_THAT(outcome.err.toStdString(), HasSubstr("cannot be unpacked"));
        EXPECT_EQ(client.filesIn("out/odd"), (QStringList{"empty.vonk", "odd.vonk"}));
        EXPECT_EQ(local("out/odd/odd.vonk"), "no acquisition");
        const Outcome again = get(cache + QStringList{"/odd", "--to", "out"});
        EXPECT_EQ(again.objects().last()["unchanged"], 2);
        forget("out/odd");
    }
}

} // namespace
} // namespace orx::testing
