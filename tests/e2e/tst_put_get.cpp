// One file goes up to a real server and comes back, by the programs that people run.
#include "Client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>

namespace orx::testing {
namespace {

using ::testing::HasSubstr;

class PutGet : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.start());
        ASSERT_TRUE(client.login(server.url()));
        client.mustRun({"mkdir", "-p", "/raw/2026"});
    }

    //! Puts and returns the JSON object.
    const QJsonObject put(const QStringList& arguments) {
        const Outcome outcome = client.run(QStringList{"--json", "put"} + arguments);
        EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
        return outcome.object();
    }

    QList<QJsonObject> listing(const QString& reference = "/raw/2026") {
        return client.mustRun({"--json", "ls", reference}).objects();
    }

    RealServer server;
    Client client;
};

TEST_F(PutGet, ARealFileComesBackByteForByte) {
    const QString source = QStringLiteral(ORX_TEST_DATA_DIR "/tiny.mzML");
    const QJsonObject uploaded = put({source, "--to", "/raw/2026", "--as-file"});
    EXPECT_EQ(uploaded["type"], "file");
    EXPECT_EQ(uploaded["version"], 1);
    EXPECT_EQ(uploaded["name"], "tiny.mzML");
    EXPECT_EQ(uploaded["size"].toInteger(), 25072);
    EXPECT_EQ(uploaded["path"], source);
    EXPECT_EQ(uploaded["sha256"], sha256Of(Client::contentOf(source)));

    const QJsonObject fetched =
        client.mustRun({"--json", "get", "--no-cache", "/raw/2026/tiny.mzML", "--to", "."}).object();
    EXPECT_EQ(fetched["path"], QDir(client.path({})).canonicalPath() + "/tiny.mzML");
    EXPECT_EQ(fetched["sha256"], uploaded["sha256"]);
    EXPECT_EQ(fetched["id"], uploaded["id"]);
    EXPECT_EQ(Client::contentOf(client.path("tiny.mzML")), Client::contentOf(source));
    EXPECT_EQ(client.filesIn(), QStringList{"tiny.mzML"});
}

TEST_F(PutGet, FilesOfEverySizeComeBack) {
    // Around the border between the catalogue and files, and around those of chunks.
    const qint64 chunk = 8 * 1024 * 1024;
    for (const qint64 size : {qint64(0), qint64(1), qint64(65535), qint64(65536), chunk - 1, chunk, chunk + 1,
                              2 * chunk + 12345}) {
        const QString name = QStringLiteral("size-%1.bin").arg(size);
        const QString source = client.makeLargeFile(name, size, quint32(size + 7));
        EXPECT_EQ(put({source, "--to", "/raw/2026"})["size"].toInteger(), size);
        for (const QStringList& options : {QStringList{"--no-cache"}, QStringList{}}) {
            const QStringList get{"get",         "/raw/2026/" + name, "--to", client.path("back.bin"),
                                  "--if-exists", "overwrite"};
            client.mustRun(get + options);
            EXPECT_TRUE(Client::contentOf(client.path("back.bin")) == Client::contentOf(source)) << size;
        }
    }
}

TEST_F(PutGet, AListingShowsFoldersAndFiles) {
    client.mustRun({"mkdir", "/raw/2026/blanks"});
    put({client.makeFile("b.mzML", "second"), "--to", "/raw/2026"});
    put({client.makeFile("a.mzML", "first"), "--to", "/raw/2026", "--alias", "reference run"});

    const QList<QJsonObject> items = listing();
    ASSERT_EQ(items.size(), 3);
    EXPECT_EQ(items[0]["type"], "folder");
    EXPECT_EQ(items[0]["name"], "blanks");
    EXPECT_EQ(items[0]["path"], "/raw/2026/blanks");
    EXPECT_TRUE(items[0]["sha256"].isNull() && items[0]["size"].isNull() && items[0]["version"].isNull());
    EXPECT_EQ(items[1]["name"], "a.mzML");
    EXPECT_EQ(items[1]["path"], "/raw/2026/a.mzML");
    EXPECT_EQ(items[1]["alias"], "reference run");
    EXPECT_EQ(items[1]["sha256"], sha256Of("first"));
    EXPECT_EQ(items[2]["name"], "b.mzML");

    EXPECT_EQ(client.mustRun({"ls", "/raw/2026"}).out, "blanks/\na.mzML\nb.mzML\n");
    EXPECT_THAT(client.mustRun({"ls", "-l", "/raw/2026"}).out.toStdString(), HasSubstr("file:"));
    const QList<QJsonObject> one = listing(QStringLiteral("file:%1").arg(items[1]["id"].toInt()));
    ASSERT_EQ(one.size(), 1);
    EXPECT_EQ(one[0]["path"], "/raw/2026/a.mzML");
    EXPECT_EQ(listing(QStringLiteral("folder:%1").arg(items[0]["id"].toInt())).size(), 0);
    EXPECT_EQ(listing("/").size(), 1);
}

TEST_F(PutGet, ADeliberateSecondPutMakesASecondFile) {
    const QString file = client.makeFile("run.mzML", "content");
    const QJsonObject first = put({file, "--to", "/raw/2026"});
    const QJsonObject second = put({file, "--to", "/raw/2026"});
    EXPECT_NE(first["id"], second["id"]);
    EXPECT_EQ(second["version"], 1);
    EXPECT_EQ(listing().size(), 2);
}

TEST_F(PutGet, SeveralFilesOfOneNameAreNotChosenFrom) {
    const QString file = client.makeFile("run.mzML", "content");
    const int first = put({file, "--to", "/raw/2026"})["id"].toInt();
    const int second = put({file, "--to", "/raw/2026"})["id"].toInt();
    const Outcome outcome = client.run({"--json", "get", "/raw/2026/run.mzML", "--to", client.path("back")});
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_EQ(outcome.object()["error"], "InvalidArgument");
    EXPECT_THAT(outcome.object()["message"].toString().toStdString(),
                HasSubstr(qPrintable(QStringLiteral("file:%1, file:%2").arg(first).arg(second))));
    EXPECT_EQ(client.filesIn(), QStringList{"run.mzML"});
    client.mustRun({"get", QStringLiteral("file:%1").arg(first), "--to", client.path("back")});
}

TEST_F(PutGet, NewVersionsKeepTheOldOnes) {
    const QString file = client.makeFile("run.mzML", "one");
    const QJsonObject first = put({file, "--to", "/raw/2026", "--new-version"});
    client.makeFile("run.mzML", "two, longer");
    const QJsonObject second = put({file, "--to", "/raw/2026", "--new-version"});
    EXPECT_EQ(first["version"], 1);
    EXPECT_EQ(second["version"], 2);
    EXPECT_EQ(second["id"], first["id"]);
    EXPECT_EQ(listing().size(), 1);

    const QString reference = QStringLiteral("file:%1").arg(first["id"].toInt());
    const QJsonObject old =
        client.mustRun({"--json", "get", reference + "@1", "--to", client.path("old")}).object();
    EXPECT_EQ(old["version"], 1);
    EXPECT_EQ(old["sha256"], sha256Of("one"));
    EXPECT_EQ(Client::contentOf(client.path("old")), "one");
    client.mustRun({"get", reference, "--to", client.path("new")});
    EXPECT_EQ(Client::contentOf(client.path("new")), "two, longer");
    EXPECT_EQ(client.run({"get", reference + "@3", "--to", client.path("none")}).exitCode, 6);
    EXPECT_FALSE(QFile::exists(client.path("none")));
}

TEST_F(PutGet, PutToAFileMakesANewVersionOfIt) {
    const QJsonObject first = put({client.makeFile("run.mzML", "one"), "--to", "/raw/2026"});
    const QString other = client.makeFile("other-name.mzML", "two");
    const QJsonObject second = put({other, "--to", QStringLiteral("file:%1").arg(first["id"].toInt())});
    EXPECT_EQ(second["id"], first["id"]);
    EXPECT_EQ(second["version"], 2);
    EXPECT_EQ(second["name"], "run.mzML");
    EXPECT_EQ(put({other, "--to", "/raw/2026/run.mzML"})["version"], 3);

    const Outcome named = client.run({"put", other, "--to", "/raw/2026/run.mzML", "--as", "new.mzML"});
    EXPECT_EQ(named.exitCode, 2);
    EXPECT_THAT(named.err.toStdString(), HasSubstr("keeps the name"));
    const QString oldVersion = QStringLiteral("file:%1@1").arg(first["id"].toInt());
    EXPECT_EQ(client.run({"put", other, "--to", oldVersion}).exitCode, 2);
    EXPECT_EQ(listing()[0]["version"], 3);
}

TEST_F(PutGet, AnotherNameOnTheServer) {
    const QString file = client.makeFile("run.mzML", "one");
    const QJsonObject first = put({file, "--to", "/raw/2026", "--as", "reference.mzML"});
    EXPECT_EQ(first["name"], "reference.mzML");
    const QJsonObject second = put({file, "--to", "/raw/2026", "--as", "reference.mzML", "--new-version"});
    EXPECT_EQ(second["id"], first["id"]);
    EXPECT_EQ(second["version"], 2);
    EXPECT_EQ(put({file, "--to", "/raw/2026", "--as", "another.mzML", "--new-version"})["version"], 1);
    EXPECT_EQ(listing().size(), 2);
}

TEST_F(PutGet, AStaleClientIsStoppedByTheVersionCheck) {
    const QString file = client.makeFile("run.mzML", "one");
    const int id = put({file, "--to", "/raw/2026"})["id"].toInt();
    Client colleague;
    ASSERT_TRUE(colleague.login(server.url()));
    colleague.mustRun({"get", "/raw/2026/run.mzML", "--to", "."});
    client.makeFile("run.mzML", "two");
    EXPECT_EQ(put({file, "--to", "/raw/2026", "--new-version", "--check-version"})["version"], 2);

    colleague.makeFile("run.mzML", "other");
    server.clearRequests();
    const QStringList again{"--json",    "put",           "run.mzML",       "--to",
                            "/raw/2026", "--new-version", "--check-version"};
    const Outcome conflict = colleague.run(again);
    EXPECT_EQ(conflict.exitCode, 8);
    EXPECT_EQ(conflict.object()["error"], "VersionConflict");
    EXPECT_EQ(conflict.object()["code"], 4);
    const std::string message = conflict.object()["message"].toString().toStdString();
    EXPECT_THAT(message, HasSubstr("has version 2 on the server"));
    EXPECT_THAT(message, HasSubstr("last had version 1"));
    EXPECT_THAT(message, HasSubstr(qPrintable(QStringLiteral("halvane get file:%1").arg(id))));
    EXPECT_EQ(server.countRequests("POST", "/uploads"), 0);
    EXPECT_EQ(server.countRequests("PUT", "/chunks"), 0);

    // Fetching the newer version, or leaving out the check, helps as the message says.
    colleague.mustRun({"get", "/raw/2026/run.mzML", "--to", ".", "--if-exists", "overwrite"});
    colleague.makeFile("run.mzML", "merged");
    EXPECT_EQ(colleague.mustRun(again).object()["version"], 3);
    client.makeFile("run.mzML", "three");
    EXPECT_EQ(client.run({"put", file, "--to", "/raw/2026", "--new-version", "--check-version"}).exitCode, 8);
    EXPECT_EQ(put({file, "--to", "/raw/2026", "--new-version"})["version"], 4);
}

TEST_F(PutGet, ExtendedMetadataIsAttached) {
    const QString file = client.makeFile("run.mzML", "one");
    server.clearRequests();
    put({file, "--to", "/raw/2026", "--metadata", "operator=anna", "--metadata", "remark=a=b c"});
    EXPECT_EQ(server.countRequests("PUT", "/extended-metadata"), 1);
    put({file, "--to", "/raw/2026"});
    EXPECT_EQ(server.countRequests("PUT", "/extended-metadata"), 1);
    EXPECT_EQ(client.run({"put", file, "--to", "/raw/2026", "--metadata", "no-equals-sign"}).exitCode, 2);
    EXPECT_EQ(client.run({"put", file, "--to", "/raw/2026", "--metadata", "=value"}).exitCode, 2);
}

TEST_F(PutGet, AnExistingFileIsNotReplacedUnlessAskedFor) {
    put({client.makeFile("run.mzML", "from the server"), "--to", "/raw/2026"});
    client.makeFile("run.mzML", "local work");
    const Outcome refused = client.run({"--json", "get", "/raw/2026/run.mzML", "--to", "."});
    EXPECT_EQ(refused.exitCode, 4);
    EXPECT_EQ(refused.object()["error"], "AlreadyExists");
    EXPECT_THAT(refused.object()["message"].toString().toStdString(), HasSubstr("--if-exists"));
    EXPECT_EQ(client.run({"get", "/raw/2026/run.mzML", "--to", "run.mzML"}).exitCode, 4);
    EXPECT_EQ(Client::contentOf(client.path("run.mzML")), "local work");

    const Outcome skipped =
        client.mustRun({"--json", "get", "/raw/2026/run.mzML", "--to", ".", "--if-exists", "skip"});
    EXPECT_EQ(skipped.object()["outcome"], "skipped");
    EXPECT_EQ(Client::contentOf(client.path("run.mzML")), "local work");
    client.mustRun({"get", "/raw/2026/run.mzML", "--to", ".", "--if-exists", "overwrite"});
    EXPECT_EQ(Client::contentOf(client.path("run.mzML")), "from the server");
    EXPECT_EQ(client.filesIn(), QStringList{"run.mzML"});
}

TEST_F(PutGet, OddNamesComeBackUnchanged) {
    const QStringList names{"plain.mzML",
                            QStringLiteral("\U0001F9EA run.mzML"),
                            QStringLiteral("e\u0301te\u0301.mzML"),
                            QStringLiteral("\u200Fabc\u202Edef.mzML"),
                            ".leading dot",
                            "..two dots",
                            "back\\slash.mzML",
                            "file:12",
                            "%41%00.mzML",
                            "a?b#c&d=e.mzML",
                            "quote\"s'.mzML",
                            " leading blank",
                            "-dash",
                            "~"};
    for (const QString& name : names) {
        const QString source = client.makeFile(name, name.toUtf8());
        const QJsonObject uploaded = put({"--to", "/raw/2026", "--", source});
        EXPECT_EQ(uploaded["name"].toString(), name);
        EXPECT_EQ(client.mustRun({"--json", "ls", "/raw/2026/" + name}).object()["name"].toString(), name);
        for (const QStringList& options : {QStringList{"--no-cache"}, QStringList{}}) {
            ASSERT_TRUE(QFile::remove(source));
            const QStringList get{"--json", "get",         "/raw/2026/" + name, "--to",
                                  ".",      "--if-exists", "overwrite"};
            const QJsonObject fetched = client.mustRun(get + options).object();
            EXPECT_EQ(fetched["path"].toString(), QDir(client.path({})).canonicalPath() + '/' + name);
            EXPECT_EQ(fetched["from_cache"].toBool(), options.isEmpty());
            EXPECT_EQ(Client::contentOf(source), name.toUtf8());
        }
    }
    EXPECT_EQ(listing().size(), names.size());
    client.mustRun({"mkdir", QStringLiteral("/raw/2026/dir \U0001F9EA ")});
    client.mustRun({"put", "plain.mzML", "--to", QStringLiteral("/raw/2026/dir \U0001F9EA ")});
}

TEST_F(PutGet, ANameThatEndsWithABlankComesUnderAnother) {
    const QString name = "trailing blank ";
    put({"--to", "/raw/2026", client.makeFile(name, "content")});
    ASSERT_TRUE(QFile::remove(client.path(name)));
    const QStringList get{"--json", "get", "/raw/2026/" + name, "--to", "."};
    const Outcome refused = client.run(get);
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_THAT(refused.object()["message"].toString().toStdString(),
                HasSubstr("\"trailing blank \" ends with a space or a dot"));
    EXPECT_THAT(refused.object()["message"].toString().toStdString(), HasSubstr("--as"));
    EXPECT_EQ(client.filesIn(), QStringList());
    client.mustRun(get + QStringList{"--as", "blank"});
    EXPECT_EQ(Client::contentOf(client.path("blank")), "content");
}

TEST_F(PutGet, FoldersAreMadeOnce) {
    EXPECT_EQ(client.run({"mkdir", "/raw"}).exitCode, 4);
    EXPECT_EQ(client.run({"mkdir", "/a/b/c"}).exitCode, 6);
    const QList<QJsonObject> made = client.mustRun({"--json", "mkdir", "-p", "/a/b/c"}).objects();
    ASSERT_EQ(made.size(), 3);
    EXPECT_EQ(made[2]["path"], "/a/b/c");
    EXPECT_EQ(made[2]["outcome"], "created");
    const QJsonObject again = client.mustRun({"--json", "mkdir", "-p", "/a/b/c"}).object();
    EXPECT_EQ(again["outcome"], "exists");
    EXPECT_EQ(again["id"], made[2]["id"]);
    EXPECT_EQ(listing("/").size(), 2);
}

TEST_F(PutGet, ATraceOfTheUploadCanBeWritten) {
    put({client.makeFile("run.mzML", "one"), "--to", "/raw/2026", "--trace", client.path("trace.json")});
    const QJsonDocument trace = QJsonDocument::fromJson(Client::contentOf(client.path("trace.json")));
    ASSERT_TRUE(trace.isArray());
    int spans = 0;
    for (const auto& event : trace.array())
        spans += event.toObject()["name"].toString().contains("file_upload") ? 1 : 0;
    EXPECT_EQ(spans, 2);
}

TEST_F(PutGet, ProfilesStandSideBySide) {
    RealServer second;
    ASSERT_TRUE(second.start());
    ASSERT_TRUE(client.login(second.url(), "admin", RealServer::AdminPassword, {"--profile", "second"}));
    client.mustRun({"mkdir", "/only-there"});
    EXPECT_EQ(client.mustRun({"ls"}).out, "only-there/\n");
    const QString first = QStringLiteral("127.0.0.1-%1").arg(server.port());
    EXPECT_EQ(client.mustRun({"ls", "--profile", first}).out, "raw/\n");
    client.setEnvironment("HALVANE_PROFILE", first);
    EXPECT_EQ(client.mustRun({"ls"}).out, "raw/\n");
    EXPECT_EQ(client.mustRun({"--profile", "second", "ls"}).out, "only-there/\n");
    EXPECT_EQ(client.mustRun({"--json", "whoami"}).object()["profile"].toString(), first);

    client.mustRun({"logout"});
    EXPECT_EQ(client.run({"ls"}).exitCode, 5);
    EXPECT_EQ(client.mustRun({"--profile", "second", "ls"}).out, "only-there/\n");
    const Outcome unknown = client.run({"--profile", "third", "ls"});
    EXPECT_EQ(unknown.exitCode, 5);
    EXPECT_THAT(unknown.err.toStdString(), HasSubstr("second"));
}

TEST_F(PutGet, TheTokenIsReadableByItsOwnerOnlyAndNeverPrinted) {
    const QDir profiles(client.configDir() + "/profiles");
    const QStringList tokens = profiles.entryList({"*.token"});
    ASSERT_EQ(tokens.size(), 1);
    const QFileInfo file(profiles.filePath(tokens.first()));
    EXPECT_EQ(file.permissions() & ~QFileDevice::Permissions(0x7700), QFileDevice::Permissions());
    const QByteArray token = Client::contentOf(file.filePath()).trimmed();
    ASSERT_FALSE(token.isEmpty());
    client.setEnvironment("HALVANE_LOG", "1");
    const Outcome whoami = client.mustRun({"--json", "--trace-errors", "whoami"});
    const Outcome missing = client.run({"--trace-errors", "ls", "/nowhere"});
    EXPECT_EQ(missing.exitCode, 6);
    for (const QByteArray& text : {whoami.out, whoami.err, missing.out, missing.err, server.log()})
        EXPECT_FALSE(text.contains(token));
}

} // namespace
} // namespace orx::testing
