// What is kept on this machine: nothing moves twice, nothing damaged is handed out, and a cache that cannot
// be used stands in nobody's way.
#include "Client.h"

#include <FaultProxy.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>

#include <csignal>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

const std::string contentPath = ".*/content";

class Cache : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.start());
        ASSERT_TRUE(client.login(server.url()));
        client.mustRun({"mkdir", "/raw"});
        file = client.makeLargeFile("run.mzML", 100'000);
        server.clearRequests();
    }

    QJsonObject put(const QStringList& options = {}) {
        return client.mustRun(QStringList{"--json", "put", file, "--to", "/raw"} + options).object();
    }
    //! Gets /raw/run.mzML, which is to arrive; its JSON object.
    QJsonObject get(const QStringList& options = {}) {
        // What is there already would need no copy.
        QFile::remove(client.path("back"));
        const Outcome outcome = client.mustRun(QStringList{"--json", "get", "/raw/run.mzML", "--to",
                                                           client.path("back"), "--if-exists", "overwrite"} +
                                               options);
        EXPECT_TRUE(Client::contentOf(client.path("back")) == Client::contentOf(file));
        warnings = QString::fromUtf8(outcome.err);
        return outcome.object();
    }
    int contentsFetched() const { return server.countRequests("GET", "/content"); }
    QList<QJsonObject> entries() { return client.mustRun({"--json", "cache", "ls"}).objects(); }
    QString cachePath() {
        return client.mustRun({"--json", "cache", "path", "/raw/run.mzML"}).object()["path"].toString();
    }

    void loginThrough(const FaultProxy& proxy) {
        ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    }
    //! Lets another server take the place of the one behind the proxy. What is put there, another file, has
    //! the same number; its SHA-256.
    QString setUpAnew(RealServer& second, FaultProxy& proxy) {
        EXPECT_TRUE(second.start());
        proxy.setTarget("127.0.0.1", second.port());
        loginThrough(proxy);
        client.mustRun({"mkdir", "/raw"});
        file = client.makeLargeFile("run.mzML", 100'000, 2);
        return put({"--no-cache"})["sha256"].toString();
    }

    //! Changes the entry in a way of which its time does not tell.
    static void changeEntry(const QString& path, const std::function<void(QFile&)>& change) {
        const QByteArray name = QFile::encodeName(path);
        struct stat before {};
        ASSERT_EQ(::stat(name.constData(), &before), 0) << name.constData();
        QFile entry(path);
        ASSERT_TRUE(entry.open(QIODevice::ReadWrite));
        change(entry);
        entry.close();
        const timespec times[] = {before.st_atim, before.st_mtim};
        ASSERT_EQ(::utimensat(AT_FDCWD, name.constData(), times, 0), 0);
    }
    static void damageEntry(const QString& path) {
        changeEntry(path, [](QFile& entry) {
            ASSERT_TRUE(entry.seek(50'000));
            ASSERT_EQ(entry.write("damaged"), 7);
        });
    }

    RealServer server;
    Client client;
    QString file;
    QString warnings;
};

TEST_F(Cache, AGetAfterAPutMovesNoContent) {
    const QJsonObject uploaded = put();
    const QJsonObject fetched = get();
    EXPECT_EQ(contentsFetched(), 0);
    EXPECT_EQ(fetched["from_cache"], true);
    EXPECT_EQ(fetched["outcome"], "downloaded");
    EXPECT_EQ(fetched["sha256"], uploaded["sha256"]);
    EXPECT_EQ(fetched["size"], uploaded["size"]);
    EXPECT_EQ(QFileInfo(client.path("back")).lastModified(), QFileInfo(file).lastModified());
    EXPECT_EQ(warnings, "");
    ASSERT_EQ(entries().size(), 1);
    EXPECT_EQ(entries()[0]["sha256"], uploaded["sha256"]);
    EXPECT_EQ(entries()[0]["size"].toInteger(), 100'000);
    // The copy of version 1 is not taken for version 2.
    file = client.makeLargeFile("run.mzML", 100'000, 2);
    put({"--new-version", "--no-cache"});
    EXPECT_EQ(get()["from_cache"], false);
    EXPECT_EQ(contentsFetched(), 1);
}

TEST_F(Cache, AFileIsFetchedOnce) {
    put({"--no-cache"});
    EXPECT_TRUE(entries().isEmpty());
    EXPECT_EQ(get()["from_cache"], false);
    EXPECT_EQ(get()["from_cache"], true);
    EXPECT_EQ(contentsFetched(), 1);
    EXPECT_EQ(QFileInfo(client.path("back")).lastModified().toSecsSinceEpoch(),
              QFileInfo(file).lastModified().toSecsSinceEpoch());
    get({"--no-cache"});
    EXPECT_EQ(contentsFetched(), 2);
    EXPECT_EQ(entries().size(), 1);
}

TEST_F(Cache, GetWithoutTheCacheLeavesNothingInIt) {
    put({"--no-cache"});
    EXPECT_EQ(get({"--no-cache"})["from_cache"], false);
    EXPECT_TRUE(entries().isEmpty());
}

TEST_F(Cache, TheHistoryHoldsPathsOfTheUserOnly) {
    put({"--no-cache"});
    get();
    QByteArray history;
    for (const QString& name : QDir(client.configDir()).entryList({"*.sqlite*"}, QDir::Files))
        history += Client::contentOf(client.configDir() + '/' + name);
    EXPECT_TRUE(history.contains(client.path("back").toUtf8()));
    EXPECT_FALSE(history.contains("/cache/"));
}

TEST_F(Cache, WhatSomebodyPutBesideACopyIsNotGivenToUsers) {
    put();
    const QString path = cachePath();
    const QString planted = QFileInfo(path).path() + "/planted.mzML";
    ASSERT_TRUE(QFile::copy(file, planted));
    ASSERT_TRUE(QDir().mkpath(client.path("target")));
    const QList<QJsonObject> fetched =
        client.mustRun({"--json", "get", "/raw", "--to", client.path("target")}).objects();
    ASSERT_FALSE(fetched.isEmpty());
    EXPECT_EQ(fetched.first().value("from_cache"), true);
    EXPECT_EQ(contentsFetched(), 0);
    EXPECT_FALSE(QFileInfo::exists(planted));
    EXPECT_EQ(QDir(client.path("target/raw")).entryList(QDir::AllEntries | QDir::NoDotAndDotDot),
              QStringList{"run.mzML"});
    EXPECT_TRUE(Client::contentOf(client.path("target/raw/run.mzML")) == Client::contentOf(file));
}

TEST_F(Cache, WhatAnotherServerAtTheSameAddressHadIsNoCopy) {
    FaultProxy proxy("127.0.0.1", server.port());
    loginThrough(proxy);
    put();
    EXPECT_TRUE(QFileInfo::exists(cachePath()));
    RealServer second;
    setUpAnew(second, proxy);
    ASSERT_EQ(entries().size(), 1);
    for (const QString command : {"path", "pin"})
        EXPECT_EQ(client.run({"cache", command, "/raw/run.mzML"}).exitCode, 3);
    EXPECT_EQ(entries()[0]["pinned"], false);
    EXPECT_EQ(get()["from_cache"], false);
    ASSERT_EQ(entries().size(), 1);
    EXPECT_TRUE(Client::contentOf(cachePath()) == Client::contentOf(file));
}

TEST_F(Cache, WhatAnotherServerAtTheSameAddressHasLeavesAPinnedCopyAsItIsUntilItReplacesIt) {
    FaultProxy proxy("127.0.0.1", server.port());
    loginThrough(proxy);
    const QString sha256 = put()["sha256"].toString();
    client.mustRun({"cache", "pin", "/raw/run.mzML"});
    RealServer second;
    const QString secondSha256 = setUpAnew(second, proxy);
    proxy.replaceReply({"GET", contentPath, 0, -1}, 404, "text/plain", "gone");
    const Outcome failed = client.run({"get", "/raw/run.mzML", "--to", client.path("back")});
    EXPECT_NE(failed.exitCode, 0);
    EXPECT_THAT(failed.err.toStdString(), Not(HasSubstr("is not what the server has")));
    ASSERT_EQ(entries().size(), 1);
    EXPECT_EQ(entries()[0]["damaged"], false);
    EXPECT_EQ(client.mustRun({"--json", "cache", "verify"}).object()["damaged"].toArray().size(), 0);

    proxy.clearRules();
    proxy.setTarget("127.0.0.1", server.port());
    loginThrough(proxy);
    EXPECT_EQ(sha256Of(Client::contentOf(cachePath())), sha256);
    EXPECT_EQ(entries()[0]["pinned"], true);

    proxy.setTarget("127.0.0.1", second.port());
    loginThrough(proxy);
    EXPECT_EQ(get()["from_cache"], false);
    for (const QString& told : {sha256, secondSha256, QString("run.mzML")})
        EXPECT_THAT(warnings.toStdString(), HasSubstr(told.toStdString()));
    EXPECT_THAT(warnings.toStdString(), HasSubstr("pinned"));
    EXPECT_EQ(get()["from_cache"], true);
    EXPECT_EQ(warnings, "");
}

TEST_F(Cache, ATruncatedEntryIsFetchedAgain) {
    put();
    const QString path = cachePath();
    changeEntry(path, [](QFile& entry) { ASSERT_TRUE(entry.resize(5'000)); });
    EXPECT_EQ(client.run({"cache", "path", "/raw/run.mzML"}).exitCode, 3);
    EXPECT_EQ(get()["from_cache"], false);
    EXPECT_EQ(contentsFetched(), 1);
    EXPECT_EQ(get()["from_cache"], true);
}

TEST_F(Cache, WhatGoesUpIsTheFileWhateverBecameOfItsCopy) {
    put();
    const QString entry = cachePath();
    changeEntry(entry, [](QFile& copy) { ASSERT_TRUE(copy.resize(50'000)); });
    const QJsonObject again = put({"--new-version"});
    EXPECT_EQ(again["version"], 2);
    EXPECT_EQ(again["size"], 100'000);
    get({"--no-cache"}); // compares what the server has with the file
    EXPECT_EQ(contentsFetched(), 1);
}

TEST_F(Cache, OtherBytesOfTheSameSizeAndTimeAreNoticed) {
    put();
    damageEntry(cachePath());
    EXPECT_EQ(get()["from_cache"], false);
    EXPECT_THAT(warnings.toStdString(), HasSubstr("is not what the server has"));
    EXPECT_EQ(get()["from_cache"], true);
    EXPECT_EQ(warnings, "");
    EXPECT_EQ(contentsFetched(), 1);
}

TEST_F(Cache, ACopyThatWasFoundDamagedIsNotThereThoughItCannotBeFetchedAnew) {
    FaultProxy proxy("127.0.0.1", server.port());
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    put();
    damageEntry(cachePath());
    proxy.replaceReply({"GET", contentPath, 0, -1}, 404, "text/plain", "gone");
    const Outcome failed = client.run({"get", "/raw/run.mzML", "--to", client.path("back")});
    EXPECT_NE(failed.exitCode, 0);
    EXPECT_THAT(std::string(failed.err), HasSubstr("is not what the server has"));
    EXPECT_EQ(client.run({"cache", "path", "/raw/run.mzML"}).exitCode, 3);
    ASSERT_EQ(entries().size(), 1);
    EXPECT_EQ(entries()[0]["damaged"], true);
    EXPECT_THAT(client.mustRun({"cache", "ls"}).out.toStdString(), HasSubstr("damaged"));
    proxy.clearRules();
    EXPECT_EQ(get()["from_cache"], false);
    EXPECT_EQ(get()["from_cache"], true);
    EXPECT_EQ(entries()[0]["damaged"], false);
}

TEST_F(Cache, VerificationFindsAndRemovesWhatIsDamaged) {
    put();
    client.mustRun({"put", client.makeFile("whole.mzML", "whole"), "--to", "/raw"});
    EXPECT_EQ(client.mustRun({"--json", "cache", "verify"}).object()["damaged"].toArray().size(), 0);
    damageEntry(cachePath());
    const Outcome found = client.run({"--json", "cache", "verify"});
    EXPECT_EQ(found.exitCode, 3);
    const QJsonObject report = found.object();
    EXPECT_EQ(report["type"], "cache_verification");
    EXPECT_EQ(report["entries"], 2);
    ASSERT_EQ(report["damaged"].toArray().size(), 1);
    EXPECT_TRUE(report["damaged"][0]["sub_path"].toString().endsWith("/run.mzML"));
    EXPECT_FALSE(report["damaged"][0]["problem"].toString().isEmpty());
    EXPECT_EQ(entries().size(), 1);
    EXPECT_EQ(client.mustRun({"cache", "verify"}).out, "1 entries, 5 B: 0 damaged\n");
}

TEST_F(Cache, PruningKeepsWhatIsPinned) {
    put();
    client.mustRun({"put", client.makeFile("other.mzML", "other"), "--to", "/raw"});
    EXPECT_EQ(client.mustRun({"--json", "cache", "pin", "/raw/run.mzML"}).object()["pinned"], true);
    for (const QJsonObject& entry : entries())
        EXPECT_EQ(entry["pinned"].toBool(), entry["sub_path"].toString().endsWith("/run.mzML"));
    EXPECT_THAT(client.mustRun({"cache", "ls"}).out.toStdString(), HasSubstr("pinned"));

    EXPECT_EQ(client.mustRun({"--json", "cache", "prune"}).object()["removed"].toArray().size(), 0);
    const QJsonObject report = client.mustRun({"--json", "cache", "prune", "--max-size", "0"}).object();
    EXPECT_EQ(report["type"], "cache_pruning");
    ASSERT_EQ(report["removed"].toArray().size(), 1);
    EXPECT_TRUE(report["removed"][0].toString().endsWith("/other.mzML"));
    EXPECT_EQ(report["removed_size"], 5);
    EXPECT_EQ(report["size"].toInteger(), 100'000);
    EXPECT_EQ(get()["from_cache"], true);

    EXPECT_EQ(client.mustRun({"--json", "cache", "unpin", "/raw/run.mzML"}).object()["pinned"], false);
    EXPECT_EQ(client.mustRun({"cache", "prune", "--max-age", "0s"}).out,
              "removed 1 entries, 97.7 KiB; 0 B left\n");
    EXPECT_EQ(client.run({"cache", "pin", "/raw/run.mzML"}).exitCode, 3);
    EXPECT_TRUE(entries().isEmpty());
}

TEST_F(Cache, WhatInterruptedDownloadsTakeIsToldAndGoesWithEverything) {
    put();
    const QString path = cachePath();
    const QString staging = path.section("/content/", 0, 0) + "/state/staging/fill-" + QString(64, 'a');
    ASSERT_TRUE(QDir().mkpath(staging));
    QFile part(staging + "/part");
    ASSERT_TRUE(part.open(QIODevice::WriteOnly) && part.write(QByteArray(3000, 'x')) == 3000);
    part.close();
    EXPECT_THAT(client.mustRun({"cache", "ls"}).err.toStdString(), HasSubstr("interrupted:\n2.9 KiB"));
    const QList<QJsonObject> listed = entries();
    ASSERT_EQ(listed.size(), 2);
    EXPECT_EQ(listed[1]["type"], "cache_unfinished");
    EXPECT_EQ(listed[1]["size"], 3000);
    EXPECT_EQ(client.mustRun({"--json", "cache", "prune"}).object()["unfinished_size"], 3000);
    EXPECT_THAT(client.mustRun({"cache", "prune", "--max-size", "1"}).out.toStdString(),
                HasSubstr("2.9 KiB in unfinished downloads stayed"));
    EXPECT_TRUE(QFileInfo::exists(part.fileName()));
    const QJsonObject pruned = client.mustRun({"--json", "cache", "prune", "--max-size", "0"}).object();
    EXPECT_EQ(pruned["unfinished_size"], 0);
    EXPECT_EQ(pruned["leftover_size"], 3000);
    EXPECT_TRUE(entries().isEmpty());
}

TEST_F(Cache, WhatAnInterruptedGetBroughtIsAmongThat) {
    FaultProxy proxy("127.0.0.1", server.port());
    loginThrough(proxy);
    put({"--no-cache"});
    proxy.cutReplyBody({"GET", contentPath}, 40'000);
    proxy.replaceReply({"GET", contentPath, 0, -1}, 404, "text/plain", "gone");
    EXPECT_NE(client.run({"get", "/raw/run.mzML", "--to", client.path("back")}).exitCode, 0);
    ASSERT_EQ(entries().size(), 1);
    EXPECT_EQ(entries()[0]["type"], "cache_unfinished");
    const qint64 size = entries()[0]["size"].toInteger();
    EXPECT_GT(size, 0);
    EXPECT_EQ(client.mustRun({"--json", "cache", "prune"}).object()["unfinished_size"].toInteger(), size);
    const QJsonObject pruned = client.mustRun({"--json", "cache", "prune", "--max-size", "0"}).object();
    EXPECT_EQ(pruned["leftover_size"].toInteger(), size);
    EXPECT_TRUE(entries().isEmpty());
}

TEST_F(Cache, ADamagedCopyMayBeUnpinned) {
    put();
    const QString place = entries()[0]["sub_path"].toString();
    for (const QString& named : {QString("/raw/run.mzML"), place}) {
        client.mustRun({"cache", "pin", named});
        ASSERT_TRUE(QFile::setPermissions(cachePath(), QFile::ReadOwner | QFile::WriteOwner));
        ASSERT_TRUE(QFile::resize(cachePath(), QFileInfo(cachePath()).size() - 1));
        EXPECT_EQ(client.run({"cache", "pin", named}).exitCode, 3);
        EXPECT_EQ(client.mustRun({"--json", "cache", "unpin", named}).object()["pinned"], false);
        client.mustRun({"cache", "prune", "--max-size", "0"});
        EXPECT_EQ(client.run({"cache", "unpin", named}).exitCode, 3);
        get();
    }
}

TEST_F(Cache, ThePathOfACopyIsPrinted) {
    put({"--no-cache"});
    const Outcome absent = client.run({"--json", "cache", "path", "/raw/run.mzML"});
    EXPECT_EQ(absent.exitCode, 3);
    EXPECT_EQ(absent.object()["error"], "NotFound");
    EXPECT_THAT(absent.err.toStdString(), HasSubstr("halvane get"));
    const Outcome folder = client.run({"cache", "path", "/raw"});
    EXPECT_EQ(folder.exitCode, 3);
    EXPECT_THAT(folder.err.toStdString(), HasSubstr("each by itself"));
    get();
    const QString path = QString::fromUtf8(client.mustRun({"cache", "path", "file:1"}).out).trimmed();
    EXPECT_TRUE(Client::contentOf(path) == Client::contentOf(file));
    EXPECT_EQ(path, cachePath());
    EXPECT_EQ(client.run({"cache", "path", "file:4711"}).exitCode, 6);
}

TEST_F(Cache, LookingAfterTheCacheNeedsNoServer) {
    put();
    client.mustRun({"logout"});
    ASSERT_TRUE(server.stop());
    EXPECT_EQ(entries().size(), 1);
    EXPECT_EQ(client.mustRun({"--json", "cache", "verify"}).object()["entries"], 1);
    client.mustRun({"cache", "prune"});
}

TEST_F(Cache, APlaceThatIsListedCanBePinnedAndPrintedWithoutAServer) {
    put();
    const QString path = cachePath();
    client.mustRun({"logout"});
    ASSERT_TRUE(server.stop());
    const QString place = entries()[0]["sub_path"].toString();
    EXPECT_EQ(client.mustRun({"cache", "path", place}).out, path.toUtf8() + '\n');
    const QJsonObject pinned = client.mustRun({"--json", "cache", "pin", place}).object();
    EXPECT_EQ(pinned["pinned"], true);
    EXPECT_EQ(pinned["name"], "run.mzML");
    EXPECT_EQ(pinned["path"], path);
    EXPECT_TRUE(pinned["reference"].isNull());
    EXPECT_EQ(client.mustRun({"--json", "cache", "prune", "--max-size", "0"}).object()["size"], 100'000);
    EXPECT_EQ(client.mustRun({"cache", "unpin", place}).out, "unpinned " + place.toUtf8() + '\n');
    client.mustRun({"cache", "prune", "--max-size", "0"});
    const Outcome absent = client.run({"--json", "cache", "pin", place});
    EXPECT_EQ(absent.exitCode, 3);
    EXPECT_EQ(absent.object()["error"], "NotFound");
    EXPECT_EQ(client.run({"cache", "path", "a/../b"}).exitCode, 2);
}

TEST_F(Cache, PruningTellsWhatItCouldNotRemoveAndWhatItDid) {
    put();
    const QDir cacheDir(client.environment().value("HALVANE_CACHE_DIR"));
    // Deeper than the files that the program may have open.
    ASSERT_TRUE(cacheDir.mkpath("state/staging/add-1" + QString("/d").repeated(200)));
    const Outcome outcome =
        client.runWrapped({"prlimit", "--nofile=128"}, {"--json", "cache", "prune", "--max-size", "0"});
    EXPECT_EQ(outcome.exitCode, 4);
    EXPECT_THAT(std::string(outcome.err), HasSubstr("warning: "));
    const QJsonObject report = outcome.object();
    EXPECT_EQ(report["removed"].toArray().size(), 1);
    EXPECT_EQ(report["problems"].toArray().size(), 1);
    const QJsonObject second = client.mustRun({"--json", "cache", "prune"}).object();
    EXPECT_EQ(second["problems"].toArray().size(), 0);
    EXPECT_FALSE(cacheDir.exists("state/staging/add-1"));
}

TEST_F(Cache, ACacheThatCannotBeUsedStandsInNobodysWay) {
    client.setEnvironment("HALVANE_CACHE_DIR", client.makeFile("no directory", "") + "/cache");
    const Outcome uploaded = client.mustRun({"--json", "put", file, "--to", "/raw"});
    EXPECT_EQ(uploaded.object()["outcome"], "uploaded");
    EXPECT_THAT(uploaded.err.toStdString(), HasSubstr("warning: The file is on the server"));
    EXPECT_EQ(get()["from_cache"], false);
    EXPECT_THAT(warnings.toStdString(), HasSubstr("warning: The cache could not be used"));
    get({"--no-cache"});
    EXPECT_EQ(warnings, "");
    EXPECT_NE(client.run({"cache", "ls"}).exitCode, 0);
}

TEST_F(Cache, AFileLargerThanTheCacheComesDownWithoutIt) {
    client.setEnvironment("HALVANE_CACHE_MAX_SIZE", "10K");
    put();
    EXPECT_EQ(get()["from_cache"], false);
    EXPECT_THAT(warnings.toStdString(), HasSubstr("larger than the cache may be"));
    EXPECT_TRUE(entries().isEmpty());
}

TEST_F(Cache, TheLimitsOfTheEnvironmentHold) {
    put();
    client.setEnvironment("HALVANE_CACHE_MAX_SIZE", "150K");
    client.mustRun({"put", client.makeLargeFile("other.mzML", 100'000, 2), "--to", "/raw"});
    ASSERT_EQ(entries().size(), 1);
    EXPECT_TRUE(entries()[0]["sub_path"].toString().endsWith("/other.mzML"));
    client.setEnvironment("HALVANE_CACHE_MAX_AGE", "0s");
    client.mustRun({"cache", "prune"});
    EXPECT_TRUE(entries().isEmpty());

    server.clearRequests();
    client.setEnvironment("HALVANE_CACHE_MAX_AGE", "soon");
    const Outcome refused = client.run({"put", file, "--to", "/raw"});
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_THAT(refused.err.toStdString(),
                HasSubstr("HALVANE_CACHE_MAX_AGE cannot be used: \"soon\" is not an age"));
    EXPECT_TRUE(server.requests().isEmpty());
}

TEST_F(Cache, TwoGetsOfOneFileShareTheDownload) {
    put({"--no-cache"});
    FaultProxy proxy("127.0.0.1", server.port());
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    const auto hold = proxy.holdReply({"GET", contentPath});
    const auto first = client.start({"--json", "get", "file:1", "--to", client.path("first")});
    hold->waitUntilAnswered();
    const int asked = proxy.traffic("GET", ".*/files/1").replies;
    const auto second = client.start({"--json", "get", "file:1", "--to", client.path("second")});
    // What it asks before it turns to the cache.
    proxy.waitForTraffic("GET", ".*/files/1",
                         [asked](const auto& traffic) { return traffic.replies > asked; });
    hold->release();
    for (QProcess* process : {first.get(), second.get()}) {
        const Outcome outcome = Client::finish(*process);
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
        EXPECT_EQ(outcome.err, "");
    }
    EXPECT_EQ(proxy.traffic("GET", contentPath).requests, 1);
    EXPECT_TRUE(Client::contentOf(client.path("first")) == Client::contentOf(file));
    EXPECT_TRUE(Client::contentOf(client.path("second")) == Client::contentOf(file));
}

TEST_F(Cache, AGetThatWaitsForAnotherOneCanBeInterrupted) {
    put({"--no-cache"});
    FaultProxy proxy("127.0.0.1", server.port());
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    const auto hold = proxy.holdReply({"GET", contentPath});
    const auto first = client.start({"--json", "get", "file:1", "--to", client.path("first")});
    hold->waitUntilAnswered();
    const int asked = proxy.traffic("GET", ".*/files/1").replies;
    const auto second = client.start({"--json", "get", "file:1", "--to", client.path("second")});
    proxy.waitForTraffic("GET", ".*/files/1",
                         [asked](const auto& traffic) { return traffic.replies > asked; });
    ASSERT_EQ(::kill(pid_t(second->processId()), SIGINT), 0);
    EXPECT_EQ(Client::finish(*second).exitCode, 130);
    EXPECT_FALSE(QFile::exists(client.path("second")));
    hold->release();
    EXPECT_EQ(Client::finish(*first).exitCode, 0);
    EXPECT_TRUE(Client::contentOf(client.path("first")) == Client::contentOf(file));
}

TEST_F(Cache, ATargetThatCannotBeWrittenIsFoundBeforeAnythingIsFetched) {
    put({"--no-cache"});
    ASSERT_TRUE(QDir().mkpath(client.path("closed")));
    ASSERT_TRUE(QFile::setPermissions(client.path("closed"), QFile::ReadOwner | QFile::ExeOwner));
    const QStringList arguments{"--json", "get", "/raw/run.mzML", "--to", "closed"};
    // Root writes everywhere unless it gives that up.
    const Outcome outcome =
        ::geteuid() == 0
            ? client.runWrapped({"setpriv", "--bounding-set", "-dac_override,-dac_read_search"}, arguments)
            : client.run(arguments);
    EXPECT_EQ(outcome.exitCode, 4) << outcome.err.constData();
    EXPECT_EQ(contentsFetched(), 0);
    EXPECT_THAT(outcome.err.toStdString(), Not(HasSubstr("without it")));
}

} // namespace
} // namespace orx::testing
