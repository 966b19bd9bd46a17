// Folders and several things at a time come down: whole, beside what is there already, and again only as far
// as they are missing.
#include "Client.h"

#include <LoopbackServer.h>
#include <ScriptedHalvaneService.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QUrl>

#include <mutex>

namespace orx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class GetTrees : public ::testing::Test {
protected:
    // /raw/2026 holds a.mzML and b.mzML, /raw/2026/sub holds c.mzML, /raw/2026/empty nothing.
    void SetUp() override {
        ASSERT_TRUE(server.start());
        ASSERT_TRUE(client.login(server.url()));
        client.mustRun({"mkdir", "-p", "/raw/2026/sub"});
        client.mustRun({"mkdir", "/raw/2026/empty"});
        put("a.mzML", "content of a", "/raw/2026");
        put("b.mzML", "content of b", "/raw/2026");
        put("c.mzML", "content of c", "/raw/2026/sub");
        server.clearRequests();
    }

    //! Into no cache; the JSON object of the file.
    QJsonObject put(const QString& name, const QByteArray& content, const QString& folder,
                    const QStringList& options = {}) {
        const QString file = client.makeFile("source of " + name, content);
        QFile local(file);
        EXPECT_TRUE(local.open(QIODevice::ReadWrite));
        EXPECT_TRUE(local.setFileTime(sourceTime, QFileDevice::FileModificationTime));
        local.close();
        const QJsonObject uploaded =
            client
                .mustRun(QStringList{"--json", "put", "--no-cache", file, "--to", folder, "--as", name} +
                         options)
                .object();
        EXPECT_TRUE(QFile::remove(file));
        return uploaded;
    }
    void writeLocal(const QString& path, const QByteArray& content) {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(client.path(path)).path()));
        client.makeFile(path, content);
    }
    QByteArray local(const QString& path) const { return Client::contentOf(client.path(path)); }
    //! The log may be behind the client.
    void expectContentsFetched(int count) const {
        EXPECT_TRUE(waitUntil([&] { return server.countRequests("GET", "/content") >= count; }));
        EXPECT_EQ(server.countRequests("GET", "/content"), count);
    }
    Outcome get(const QStringList& arguments) { return client.run(QStringList{"--json", "get"} + arguments); }
    //! The objects of one type.
    static QList<QJsonObject> ofType(const Outcome& outcome, const QString& type) {
        QList<QJsonObject> found = outcome.objects();
        found.removeIf([&](const QJsonObject& object) { return object["type"] != type; });
        return found;
    }
    //! The outcomes of files by their path in \a directory.
    QMap<QString, QString> outcomes(const Outcome& outcome, const QString& directory) const {
        QMap<QString, QString> found;
        for (const QJsonObject& file : ofType(outcome, "file"))
            found.insert(
                QDir(QDir(client.path(directory)).canonicalPath()).relativeFilePath(file["path"].toString()),
                file["outcome"].toString());
        return found;
    }

    const QDateTime sourceTime = QDateTime::fromSecsSinceEpoch(1'700'000'000);
    RealServer server;
    Client client;
};

TEST_F(GetTrees, AFolderComesDownWithEverythingInIt) {
    const Outcome outcome = get({"/raw/2026", "--to", "out"});
    ASSERT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(client.filesIn("out"), QStringList{"2026"});
    EXPECT_EQ(client.filesIn("out/2026"), (QStringList{"a.mzML", "b.mzML", "empty", "sub"}));
    EXPECT_EQ(client.filesIn("out/2026/empty"), QStringList());
    EXPECT_EQ(local("out/2026/a.mzML"), "content of a");
    EXPECT_EQ(local("out/2026/b.mzML"), "content of b");
    EXPECT_EQ(local("out/2026/sub/c.mzML"), "content of c");
    for (const QString name : {"a.mzML", "b.mzML", "sub/c.mzML"})
        EXPECT_EQ(QFileInfo(client.path("out/2026/" + name)).lastModified(), sourceTime) << qPrintable(name);

    EXPECT_EQ(outcomes(outcome, "out/2026"),
              (QMap<QString, QString>{
                  {"a.mzML", "downloaded"}, {"b.mzML", "downloaded"}, {"sub/c.mzML", "downloaded"}}));
    const QList<QJsonObject> folders = ofType(outcome, "folder");
    ASSERT_EQ(folders.size(), 1);
    EXPECT_EQ(folders[0]["path"].toString(), QFileInfo(client.path("out/2026")).canonicalFilePath());
    EXPECT_EQ(folders[0]["outcome"], "downloaded");
    EXPECT_EQ(folders[0]["files"], 3);
    EXPECT_EQ(folders[0]["downloaded"], 3);
    EXPECT_EQ(folders[0]["failed"], 0);
    expectContentsFetched(3);
}

// Of what is found in a folder everything is told that is told of a file that was asked for itself.
TEST_F(GetTrees, TheFilesOfAFolderAreToldAsTheyAreByThemselves) {
    put("d.mzML", "content of d", "/raw/2026/sub", {"--alias", "reference run"});
    QMap<QString, QJsonObject> told;
    for (const QJsonObject& file : ofType(get({"/raw/2026/sub", "--to", "out"}), "file"))
        told.insert(file["name"].toString(), file);
    ASSERT_EQ(told.keys(), (QStringList{"c.mzML", "d.mzML"}));
    EXPECT_EQ(told["d.mzML"]["alias"], "reference run");
    EXPECT_EQ(told["c.mzML"]["alias"], "");
    for (const QString& name : told.keys()) {
        QJsonObject alone = get({"/raw/2026/sub/" + name, "--to", "out/sub"}).object();
        EXPECT_TRUE(alone["modified_at"].isString());
        alone["outcome"] = "downloaded";
        alone["from_cache"] = false;
        EXPECT_EQ(told[name], alone) << qPrintable(name);
    }
}

// What was written is known as the version that this machine has there; what was not is not.
TEST_F(GetTrees, TheVersionsThatCameAreRecorded) {
    writeLocal("out/2026/b.mzML", "another b");
    ASSERT_EQ(get({"/raw/2026", "--to", "out", "--if-exists", "skip"}).exitCode, 0);
    put("a.mzML", "second content of a", "/raw/2026", {"--new-version"});
    put("b.mzML", "second content of b", "/raw/2026", {"--new-version"});
    const auto putChecked = [this](const QString& name) {
        return client.run(
            {"--json", "put", "out/2026/" + name, "--to", "/raw/2026", "--new-version", "--check-version"});
    };
    client.makeFile("out/2026/a.mzML", "edited a");
    const Outcome conflict = putChecked("a.mzML");
    EXPECT_EQ(conflict.exitCode, 8);
    EXPECT_THAT(conflict.object()["message"].toString().toStdString(), HasSubstr("last had version 1"));
    EXPECT_EQ(putChecked("b.mzML").exitCode, 0);
}

// Nothing is written then, so that nothing goes back either.
TEST_F(GetTrees, AnOlderVersionOfTheSameContentIsNotRecordedForAFileThatIsUnchanged) {
    put("a.mzML", "another content of a", "/raw/2026", {"--new-version"});
    put("a.mzML", "content of a", "/raw/2026", {"--new-version"});
    ASSERT_TRUE(QDir().mkpath(client.path("out")));
    ASSERT_EQ(get({"/raw/2026/a.mzML", "--to", "out"}).exitCode, 0);
    const Outcome unchanged = get({"file:1@1", "--to", "out"});
    EXPECT_EQ(unchanged.object()["outcome"], "unchanged");
    client.makeFile("out/a.mzML", "edited a");
    EXPECT_EQ(
        client.run({"put", "out/a.mzML", "--to", "/raw/2026", "--new-version", "--check-version"}).exitCode,
        0);
}

TEST_F(GetTrees, ASecondRunFetchesOnlyWhatIsMissing) {
    const QStringList arguments{"/raw/2026", "--to", "out", "--no-cache"};
    ASSERT_EQ(get(arguments).exitCode, 0);
    expectContentsFetched(3);
    ASSERT_TRUE(QFile::remove(client.path("out/2026/sub/c.mzML")));
    server.clearRequests();

    const Outcome second = get(arguments);
    ASSERT_EQ(second.exitCode, 0) << second.err.constData();
    EXPECT_EQ(outcomes(second, "out/2026"),
              (QMap<QString, QString>{
                  {"a.mzML", "unchanged"}, {"b.mzML", "unchanged"}, {"sub/c.mzML", "downloaded"}}));
    expectContentsFetched(1);
    EXPECT_EQ(local("out/2026/sub/c.mzML"), "content of c");
}

// The same size and time are not the same content.
TEST_F(GetTrees, AFileOfAnotherContentIsNotTakenForTheSame) {
    ASSERT_EQ(get({"/raw/2026", "--to", "out"}).exitCode, 0);
    client.makeFile("out/2026/a.mzML", "another of a");
    QFile changed(client.path("out/2026/a.mzML"));
    ASSERT_TRUE(changed.open(QIODevice::ReadWrite));
    ASSERT_TRUE(changed.setFileTime(sourceTime, QFileDevice::FileModificationTime));
    changed.close();
    ASSERT_EQ(QFileInfo(changed).size(), qint64(strlen("content of a")));

    const Outcome refused = get({"/raw/2026", "--to", "out"});
    EXPECT_EQ(refused.exitCode, 14);
    EXPECT_EQ(local("out/2026/a.mzML"), "another of a");
}

TEST_F(GetTrees, WithoutATerminalAClashFailsSayingWhichOptionToGive) {
    writeLocal("out/2026/a.mzML", "local work");
    const Outcome outcome = get({"/raw/2026", "--to", "out"});
    EXPECT_EQ(outcome.exitCode, 14);
    const QList<QJsonObject> failures = ofType(outcome, "failure");
    ASSERT_EQ(failures.size(), 1);
    EXPECT_EQ(failures[0]["error"], "AlreadyExists");
    EXPECT_EQ(failures[0]["exit_code"], 4);
    EXPECT_EQ(failures[0]["source"], "/raw/2026");
    EXPECT_EQ(failures[0]["path"].toString(), QFileInfo(client.path("out/2026/a.mzML")).canonicalFilePath());
    EXPECT_THAT(failures[0]["message"].toString().toStdString(), HasSubstr("--if-exists overwrite"));
    EXPECT_EQ(outcome.objects().last()["error"], "PartlyFailed");
    EXPECT_EQ(outcome.objects().last()["exit_code"], 14);
    EXPECT_EQ(local("out/2026/a.mzML"), "local work");
    EXPECT_EQ(local("out/2026/b.mzML"), "content of b");
    // What cannot be put there is not fetched.
    expectContentsFetched(2);
}

TEST_F(GetTrees, TheOptionDecidesAboutClashes) {
    writeLocal("out/2026/a.mzML", "local work");
    const auto ran = [this](const QString& what) {
        return get({"/raw/2026", "--to", "out", "--if-exists", what});
    };
    const Outcome skipped = ran("skip");
    EXPECT_EQ(skipped.exitCode, 0);
    EXPECT_EQ(outcomes(skipped, "out/2026")["a.mzML"], "skipped");
    EXPECT_EQ(local("out/2026/a.mzML"), "local work");

    const Outcome renamed = ran("rename");
    EXPECT_EQ(renamed.exitCode, 0);
    EXPECT_EQ(outcomes(renamed, "out/2026")["a (2).mzML"], "downloaded");
    EXPECT_EQ(local("out/2026/a (2).mzML"), "content of a");
    EXPECT_EQ(local("out/2026/a.mzML"), "local work");
    // Once more makes no third one.
    EXPECT_EQ(outcomes(ran("rename"), "out/2026")["a (2).mzML"], "unchanged");
    EXPECT_EQ(client.filesIn("out/2026").size(), 5);

    EXPECT_EQ(ran("fail").exitCode, 14);
    EXPECT_EQ(local("out/2026/a.mzML"), "local work");
    EXPECT_EQ(outcomes(ran("overwrite"), "out/2026")["a.mzML"], "downloaded");
    EXPECT_EQ(local("out/2026/a.mzML"), "content of a");
}

TEST_F(GetTrees, OneFailureHidesNoOtherAndARunWithoutItsReasonCompletes) {
    ASSERT_TRUE(QDir().mkpath(client.path("out/2026/a.mzML/in the way")));
    writeLocal("out/2026/sub", "in the way too");
    const QStringList arguments{"/raw/2026", "--to", "out", "--no-cache"};
    const Outcome first = client.run(QStringList{"get"} + arguments);
    EXPECT_EQ(first.exitCode, 14);
    const std::string said = first.err.toStdString();
    EXPECT_THAT(said, HasSubstr("not downloaded:"));
    EXPECT_THAT(said, HasSubstr("out/2026/a.mzML"));
    EXPECT_THAT(said, HasSubstr("is a directory"));
    EXPECT_THAT(said, HasSubstr("out/2026/sub"));
    EXPECT_THAT(said, HasSubstr("is in the way"));
    EXPECT_THAT(said, HasSubstr("run the same command again"));
    EXPECT_EQ(local("out/2026/b.mzML"), "content of b");

    ASSERT_TRUE(QDir(client.path("out/2026/a.mzML")).removeRecursively());
    ASSERT_TRUE(QFile::remove(client.path("out/2026/sub")));
    server.clearRequests();
    const Outcome second = get(arguments);
    EXPECT_EQ(second.exitCode, 0) << second.err.constData();
    expectContentsFetched(2);
    EXPECT_EQ(local("out/2026/a.mzML"), "content of a");
    EXPECT_EQ(local("out/2026/sub/c.mzML"), "content of c");
}

TEST_F(GetTrees, SeveralThingsComeByOneCommand) {
    const Outcome outcome =
        get({"/raw/2026/a.mzML", "/raw/nowhere", "/raw/2026/sub", "file:2", "--to", "out"});
    EXPECT_EQ(outcome.exitCode, 14);
    EXPECT_EQ(client.filesIn("out"), (QStringList{"a.mzML", "b.mzML", "sub"}));
    EXPECT_EQ(local("out/sub/c.mzML"), "content of c");
    const QList<QJsonObject> failures = ofType(outcome, "failure");
    ASSERT_EQ(failures.size(), 1);
    EXPECT_EQ(failures[0]["path"], "/raw/nowhere");
    EXPECT_EQ(failures[0]["error"], "NotFound");
    EXPECT_EQ(failures[0]["exit_code"], 6);
}

// When nothing came at all the code is that of the first reason.
TEST_F(GetTrees, WhenNothingCameTheExitCodeTellsWhy) {
    const Outcome outcome = get({"/nowhere", "/raw/nowhere", "--to", "out"});
    EXPECT_EQ(outcome.exitCode, 6);
    EXPECT_EQ(ofType(outcome, "failure").size(), 2);
    EXPECT_FALSE(QFileInfo::exists(client.path("out")));
}

// A folder without files is something, too.
TEST_F(GetTrees, AnEmptyFolderThatCameIsNotNothing) {
    const Outcome outcome = get({"/raw/2026/empty", "/nowhere", "--to", "out"});
    EXPECT_EQ(outcome.exitCode, 14);
    EXPECT_EQ(outcome.objects().last()["error"], "PartlyFailed");
    EXPECT_EQ(client.filesIn("out"), QStringList{"empty"});
}

TEST_F(GetTrees, FoldersOfOneNameAreNeverMerged) {
    client.mustRun({"mkdir", "-p", "/old/2026"});
    put("a.mzML", "old content", "/old/2026");
    const Outcome outcome = get({"/raw/2026", "/old/2026", "--to", "out"});
    EXPECT_EQ(outcome.exitCode, 14);
    const QList<QJsonObject> failures = ofType(outcome, "failure");
    ASSERT_EQ(failures.size(), 1);
    EXPECT_EQ(failures[0]["source"], "/old/2026");
    EXPECT_THAT(failures[0]["message"].toString().toStdString(), HasSubstr("nothing is merged"));
    EXPECT_EQ(local("out/2026/a.mzML"), "content of a");
    // The same one twice is one.
    EXPECT_EQ(get({"/raw/2026", "folder:3", "--to", "twice"}).exitCode, 0);
}

TEST_F(GetTrees, AFileOfTheSameRunIsNotOverwrittenByAPolicy) {
    client.mustRun({"mkdir", "/old"});
    put("a.mzML", "old content", "/old");
    const Outcome outcome =
        get({"/raw/2026/a.mzML", "/old/a.mzML", "--to", "out", "--if-exists", "overwrite"});
    EXPECT_EQ(outcome.exitCode, 14);
    ASSERT_EQ(ofType(outcome, "failure").size(), 1);
    EXPECT_THAT(ofType(outcome, "failure")[0]["message"].toString().toStdString(),
                HasSubstr("is file:1@1 of this same download"));
    EXPECT_EQ(local("out/a.mzML"), "content of a");
    EXPECT_EQ(get({"/raw/2026/a.mzML", "/old/a.mzML", "--to", "both", "--if-exists", "rename"}).exitCode, 0);
    EXPECT_EQ(local("both/a.mzML"), "content of a");
    EXPECT_EQ(local("both/a (2).mzML"), "old content");
}

TEST_F(GetTrees, AnotherNameIsGivenWithAs) {
    ASSERT_EQ(get({"/raw/2026", "--to", "out", "--as", "march"}).exitCode, 0);
    EXPECT_EQ(local("out/march/sub/c.mzML"), "content of c");
    ASSERT_EQ(get({"/raw/2026/a.mzML", "--to", "out", "--as", "first.mzML"}).exitCode, 0);
    EXPECT_EQ(local("out/first.mzML"), "content of a");
    EXPECT_EQ(client.filesIn("out"), (QStringList{"first.mzML", "march"}));
    for (const QString name : {"", "..", "a/b", "/etc/x"})
        EXPECT_EQ(get({"/raw/2026", "--to", "out", "--as", name}).exitCode, 2) << qPrintable(name);
    EXPECT_EQ(get({"file:1", "file:2", "--to", "out", "--as", "both"}).exitCode, 2);
}

TEST_F(GetTrees, TheRootComesAsItsContent) {
    ASSERT_EQ(get({"/", "--to", "out"}).exitCode, 0);
    EXPECT_EQ(client.filesIn("out"), QStringList{"raw"});
    EXPECT_EQ(local("out/raw/2026/sub/c.mzML"), "content of c");
    ASSERT_EQ(get({"/", "--to", "out", "--as", "all"}).exitCode, 0);
    EXPECT_EQ(local("out/all/raw/2026/a.mzML"), "content of a");
}

TEST_F(GetTrees, ATargetDirectoryIsMadeButNotThoseAboveIt) {
    client.makeFile("a file", "in the way");
    EXPECT_EQ(get({"/raw/2026", "--to", "no/such"}).exitCode, 4);
    EXPECT_EQ(get({"/raw/2026", "--to", "a file"}).exitCode, 4);
    EXPECT_EQ(get({"file:1", "file:2", "--to", "a file"}).exitCode, 4);
    EXPECT_EQ(get({"file:1", "--to", "no directory/"}).exitCode, 4);
    expectContentsFetched(0);
    EXPECT_EQ(client.filesIn(), QStringList{"a file"});
    EXPECT_EQ(get({"/raw/2026/sub", "--to", "made/"}).exitCode, 0);
    EXPECT_EQ(local("made/sub/c.mzML"), "content of c");
}

//! A server of words, whose names no honest one would give.
class DangerousNames : public ::testing::Test {
protected:
    DangerousNames()
        : server(LoopbackServer::answering(
              [this](LoopbackConnection& connection, const LoopbackConnection::Request& request) {
                  const ScriptedReply reply = answer(request);
                  std::string headers;
                  for (const HttpHeader& header : reply.headers)
                      headers += header.first.toStdString() + ": " + header.second.toStdString() + "\r\n";
                  connection.reply(reply.status, reply.body.toStdString(), headers);
              })) {}

    ScriptedReply answer(const LoopbackConnection::Request& request) {
        const QString prefix = "/api/v1";
        const QUrl url(QString::fromStdString(request.target()));
        ScriptedRequest scripted{QByteArray::fromStdString(request.method()),
                                 url.path(QUrl::FullyDecoded).mid(prefix.size()),
                                 {{"Authorization", "Bearer " + service.token()}},
                                 QByteArray::fromStdString(request.body)};
        const std::lock_guard lock(mutex);
        ScriptedReply reply = service.answer(scripted);
        if (!statedSize.isEmpty())
            reply.body.replace("\"size\":7,", "\"size\":" + statedSize + ',');
        return reply;
    }

    //! Instead of 7.
    QByteArray statedSize;
    std::mutex mutex;
    ScriptedHalvaneService service;
    LoopbackServer server;
    Client client;
};

TEST_F(DangerousNames, NeverLeaveTheTargetAreNamedAndTheRestComesDown) {
    const QStringList refused{"..",
                              ".",
                              "/etc/x",
                              "../../escaped",
                              "a/b",
                              QString("nul") + QChar(0) + "nul",
                              "bell\a",
                              "new\nline",
                              QString(300, 'y'),
                              "...",
                              "trailing  ",
                              "trailing."};
    const QStringList harmless{"...and more", " leading", "good", "-rf", "~"};
    const int raw = service.addFolder("raw");
    for (const QString& name : refused) {
        service.addFile(name, "must not appear", raw);
        service.addFile("inside", "must not appear", service.addFolder(name, raw));
    }
    for (const QString& name : harmless)
        service.addFile(name, "content of " + name.toUtf8(), raw);
    ASSERT_TRUE(QDir().mkpath(client.path("deep/er/in")));
    ASSERT_TRUE(
        client.login(QUrl(QString::fromStdString(server.url(""))), service.userName(), service.password()));

    const Outcome outcome = client.run({"--json", "get", "/raw", "--to", "deep/er/in"});
    EXPECT_EQ(outcome.exitCode, 14) << outcome.err.constData();
    QStringList told;
    for (const QJsonObject& object : outcome.objects()) {
        if (object["type"] == "failure")
            told.append(object["message"].toString());
    }
    EXPECT_EQ(told.size(), 2 * refused.size());
    for (const QString shown : {"\"..\"", "\"/etc/x\"", "\"../../escaped\"", "\"a/b\"", "bell\\x07",
                                "new\\x0aline", "\"...\"", "\"trailing  \"", "\"trailing.\""})
        EXPECT_EQ(told.filter(shown).size(), 2) << qPrintable(shown);
    EXPECT_EQ(told.filter(QString(300, 'y')).size(), 2);
    // Neither can a name drive the terminal.
    EXPECT_FALSE(outcome.err.contains('\a'));

    EXPECT_EQ(client.filesIn(), QStringList{"deep"});
    EXPECT_EQ(client.filesIn("deep"), QStringList{"er"});
    EXPECT_EQ(client.filesIn("deep/er"), QStringList{"in"});
    EXPECT_EQ(client.filesIn("deep/er/in"), QStringList{"raw"});
    QStringList there = harmless;
    there.sort();
    EXPECT_EQ(client.filesIn("deep/er/in/raw"), there);
    for (const QString& name : harmless)
        EXPECT_EQ(Client::contentOf(client.path("deep/er/in/raw/" + name)), "content of " + name.toUtf8());
}

TEST_F(DangerousNames, OfAFileThatIsAskedForItselfAreRefusedTooUnlessAnotherNameIsGiven) {
    const QStringList refused{
        "..",     ".",         "/etc/x",         "../../escaped", "a/b", QString("nul") + QChar(0) + "nul",
        "bell\a", "new\nline", QString(300, 'y')};
    ASSERT_TRUE(QDir().mkpath(client.path("deep/er/in")));
    ASSERT_TRUE(
        client.login(QUrl(QString::fromStdString(server.url(""))), service.userName(), service.password()));
    const QStringList shown{"\"..\"",      "\".\"",     "\"/etc/x\"",   "\"../../escaped\"", "\"a/b\"",
                            "nul\\x00nul", "bell\\x07", "new\\x0aline", QString(300, 'y')};
    for (int i = 0; i < refused.size(); ++i) {
        const QString reference = QString("file:%1").arg(service.addFile(refused[i], "content"));
        const Outcome outcome = client.run({"--json", "get", reference, "--to", "deep/er/in"});
        EXPECT_NE(outcome.exitCode, 0);
        ASSERT_FALSE(outcome.objects().isEmpty()) << outcome.err.constData();
        EXPECT_THAT(outcome.objects().first()["message"].toString().toStdString(),
                    HasSubstr(shown[i].toStdString()));
        EXPECT_FALSE(outcome.err.contains('\a'));
        EXPECT_EQ(client.filesIn("deep/er/in"), QStringList());
        EXPECT_EQ(client.run({"get", reference, "--to", "deep/er/in", "--as", "x"}).exitCode, 0) << i;
        EXPECT_EQ(client.filesIn("deep/er/in"), QStringList{"x"});
        ASSERT_TRUE(QFile::remove(client.path("deep/er/in/x")));
    }
    EXPECT_EQ(client.filesIn(), QStringList{"deep"});
    EXPECT_EQ(client.filesIn("deep"), QStringList{"er"});
    EXPECT_EQ(client.filesIn("deep/er"), QStringList{"in"});
}

TEST_F(DangerousNames, OfAnAcquisitionMakeNothingOutsideTheTargetEither) {
    QFile packed(ORX_PACKED_TEST_DATA_DIR "/version2.vonk");
    ASSERT_TRUE(packed.open(QIODevice::ReadOnly));
    const int id = service.addFile("/../escaped.vonk", packed.readAll());
    const QString reference = QString("file:%1").arg(id);
    ASSERT_TRUE(QDir().mkpath(client.path("deep/in")));
    // Where it would be unpacked by that name.
    const QString outside = QString("escaped.vonk-unpacked.halvane-part-%1-1").arg(id);
    client.makeFile("deep/" + outside, "of somebody");
    ASSERT_TRUE(
        client.login(QUrl(QString::fromStdString(server.url(""))), service.userName(), service.password()));
    EXPECT_NE(client.run({"get", reference, "--to", "deep/in"}).exitCode, 0);
    EXPECT_EQ(client.filesIn("deep/in"), QStringList());
    const Outcome outcome = client.run({"get", reference, "--to", "deep/in", "--as", "x"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_EQ(client.filesIn("deep/in"), QStringList{"x"});
    EXPECT_TRUE(QFileInfo(client.path("deep/in/x")).isDir());
    EXPECT_EQ(client.filesIn("deep"), (QStringList{outside, "in"}));
    EXPECT_EQ(Client::contentOf(client.path("deep/" + outside)), "of somebody");
    EXPECT_EQ(client.filesIn(), QStringList{"deep"});
}

// None of the others would have room either.
TEST_F(DangerousNames, ARunOfManyFilesEndsAfterSeveralThatTheDiskHasNoRoomFor) {
    constexpr int fileCount = 12;
    constexpr int tried = 8;
    statedSize = "9000000000000000";
    QStringList arguments{"--json", "get"};
    for (int i = 0; i < fileCount; ++i) {
        service.addFile(QString("f%1").arg(i), "content");
        arguments << QString("/f%1").arg(i);
    }
    ASSERT_TRUE(
        client.login(QUrl(QString::fromStdString(server.url(""))), service.userName(), service.password()));
    const Outcome outcome = client.run(arguments + QStringList{"--to", "out"});
    EXPECT_EQ(outcome.exitCode, 4) << outcome.err.constData();
    QStringList told;
    for (const QJsonObject& object : outcome.objects()) {
        if (object["type"] == "failure")
            told.append(object["message"].toString());
    }
    ASSERT_EQ(told.size(), fileCount) << outcome.out.constData();
    for (int i = 0; i < fileCount; ++i) {
        EXPECT_TRUE(told[i].contains(QString("out/f%1\"").arg(qMin(i, tried - 1)))) << i;
        EXPECT_EQ(told[i].startsWith("Not tried"), i >= tried) << i;
    }
}

} // namespace
} // namespace orx::testing
