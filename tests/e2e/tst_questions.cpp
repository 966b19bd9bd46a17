// What the commands say about files and folders without moving them.
#include "Client.h"

#include <FaultProxy.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QJsonArray>

namespace orx::testing {
namespace {

using ::testing::HasSubstr;

class Questions : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.start());
        ASSERT_TRUE(client.login(server.url()));
        const auto folders = client.mustRun({"--json", "mkdir", "-p", "/raw/2026"}).objects();
        ASSERT_EQ(folders.size(), 2);
        raw = folders[0]["id"].toInt();
        year = folders[1]["id"].toInt();
        put("run.mzML", "one");
        put("run.mzML", "two, longer", {"--new-version", "--alias", "reference run"});
        put("blank.mgf", "blank");
        id = client.mustRun({"--json", "ls", "/raw/2026/run.mzML"}).object()["id"].toInt();
        reference = QStringLiteral("file:%1").arg(id);
        server.clearRequests();
    }

    void put(const QString& name, const QByteArray& content, const QStringList& options = {}) {
        client.mustRun(QStringList{"put", client.makeFile(name, content), "--to", "/raw/2026"} + options);
    }
    const QJsonObject object(const QStringList& arguments) {
        return client.mustRun(QStringList{"--json"} + arguments).object();
    }
    void expectFailure(const QStringList& arguments, int exitCode, const QString& error) {
        const Outcome outcome = client.run(QStringList{"--json"} + arguments);
        EXPECT_EQ(outcome.exitCode, exitCode) << qPrintable(arguments.join(' ')) << outcome.err.constData();
        EXPECT_EQ(outcome.object()["error"].toString(), error) << qPrintable(arguments.join(' '));
    }

    RealServer server;
    Client client;
    int raw = 0;
    int year = 0;
    int id = 0;
    QString reference;
};

TEST_F(Questions, InfoOfAFile) {
    const QJsonObject info = object({"info", "/raw/2026/run.mzML"});
    EXPECT_EQ(info["type"], "file");
    EXPECT_EQ(info["id"], id);
    EXPECT_EQ(info["name"], "run.mzML");
    EXPECT_EQ(info["path"], "/raw/2026/run.mzML");
    EXPECT_EQ(info["ids_path"].toArray(), (QJsonArray{raw, year, id}));
    EXPECT_EQ(info["parent_id"], year);
    EXPECT_EQ(info["version"], 2);
    EXPECT_EQ(info["last_version"], 2);
    EXPECT_EQ(info["reference"], reference + "@2");
    EXPECT_EQ(info["size"], 11);
    EXPECT_EQ(info["sha256"], sha256Of("two, longer"));
    EXPECT_EQ(info["alias"], "reference run");
    EXPECT_EQ(info["file_type"], "mzML");
    EXPECT_EQ(info["created_by"], "admin");
    EXPECT_FALSE(info["created_at"].toString().isEmpty());
    EXPECT_FALSE(info["modified_at"].toString().isEmpty());
    EXPECT_FALSE(info.contains("privileges"));

    const QJsonObject old = object({"info", reference + "@1"});
    EXPECT_EQ(old["version"], 1);
    EXPECT_EQ(old["last_version"], 2);
    EXPECT_EQ(old["sha256"], sha256Of("one"));
    EXPECT_EQ(old["path"], "/raw/2026/run.mzML");

    const std::string text = client.mustRun({"info", reference}).out.toStdString();
    EXPECT_THAT(text, HasSubstr("/raw/2026/run.mzML"));
    EXPECT_THAT(text, HasSubstr("2 of 2"));
    EXPECT_THAT(text, HasSubstr(qPrintable(sha256Of("two, longer"))));
    EXPECT_EQ(server.countRequests("GET", "/content"), 0);
}

TEST_F(Questions, InfoOfAFolder) {
    server.admin({"group", "add", "--name", "readers"});
    server.admin({"grant", "--folder", QString::number(year), "--group", "readers", "--privileges", "1"});
    const QJsonObject info = object({"info", QStringLiteral("folder:%1").arg(year)});
    EXPECT_EQ(info["type"], "folder");
    EXPECT_EQ(info["name"], "2026");
    EXPECT_EQ(info["path"], "/raw/2026");
    EXPECT_EQ(info["ids_path"].toArray(), (QJsonArray{raw, year}));
    EXPECT_EQ(info["parent_id"], raw);
    EXPECT_EQ(info["privileges"].toArray(),
              (QJsonArray{"read", "add_files", "create_folders", "remove", "manage"}));
    EXPECT_EQ(info["group_ids"].toArray().size(), 1);
    EXPECT_TRUE(info["version"].isNull() && info["size"].isNull() && info["sha256"].isNull());
    EXPECT_EQ(info["file_type"], object({"info", "/raw"})["file_type"]);
    const std::string text = client.mustRun({"info", "/raw/2026"}).out.toStdString();
    EXPECT_THAT(text, HasSubstr("create_folders"));
    EXPECT_THAT(text, HasSubstr("file type"));
}

TEST_F(Questions, InfoOfTheRoot) {
    const QJsonObject info = object({"info", "/"});
    EXPECT_EQ(info["id"], 1);
    EXPECT_EQ(info["path"], "/");
    EXPECT_EQ(info["parent_id"], -1);
}

TEST_F(Questions, SiblingsThatTheServerDoesNotTellAreAnError) {
    FaultProxy proxy("127.0.0.1", server.port());
    ASSERT_TRUE(client.login(QUrl(QString::fromStdString(proxy.url()))));
    proxy.replaceReply({"GET", ".*/folders/[0-9]+/files", 0, -1}, 404, "text/plain", "gone");
    const Outcome outcome = client.run({"--json", "siblings", reference});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.object()["message"].toString().toStdString(), HasSubstr("run.mzML"));
    EXPECT_THAT(std::string(outcome.err), HasSubstr("could not be listed"));
}

TEST_F(Questions, SiblingsAreTheFilesOfTheFolder) {
    client.mustRun({"mkdir", "/raw/2026/folder"});
    const QList<QJsonObject> siblings = client.mustRun({"--json", "siblings", reference}).objects();
    ASSERT_EQ(siblings.size(), 2);
    QHash<QString, QJsonObject> byName;
    for (const QJsonObject& sibling : siblings)
        byName.insert(sibling["name"].toString(), sibling);
    EXPECT_EQ(byName["run.mzML"]["reference"], reference + "@2");
    EXPECT_EQ(byName["blank.mgf"]["version"], 1);
    EXPECT_EQ(byName["blank.mgf"]["type"], "file");
    const QByteArray text = client.mustRun({"siblings", "/raw/2026/blank.mgf"}).out;
    EXPECT_EQ(text.count('\n'), 2);
    EXPECT_THAT(text.toStdString(), HasSubstr(qPrintable(reference + "@2  run.mzML")));
}

TEST_F(Questions, Existence) {
    for (const QString& there :
         {QStringLiteral("/raw/2026/run.mzML"), QStringLiteral("/raw"), QStringLiteral("/"), reference,
          reference + "@1", QStringLiteral("folder:%1").arg(year)}) {
        EXPECT_EQ(client.mustRun({"exists", there}).out, "yes\n") << qPrintable(there);
        EXPECT_EQ(client.mustRun({"-q", "exists", there}).out, "") << qPrintable(there);
        EXPECT_EQ(object({"exists", there})["exists"], true) << qPrintable(there);
    }
    for (const QString& absent :
         {QStringLiteral("/raw/2026/none"), QStringLiteral("/none/run.mzML"), QStringLiteral("file:4711"),
          reference + "@3", QStringLiteral("folder:4711")}) {
        const Outcome outcome = client.run({"exists", absent});
        EXPECT_EQ(outcome.exitCode, 6) << qPrintable(absent);
        EXPECT_EQ(outcome.out, "no\n") << qPrintable(absent);
        EXPECT_EQ(outcome.err, "") << qPrintable(absent);
        EXPECT_EQ(client.run({"exists", "-q", absent}).out, "") << qPrintable(absent);
        const QJsonObject answer = client.run({"--json", "exists", absent}).object();
        EXPECT_EQ(answer["exists"], false);
        EXPECT_EQ(answer["asked"], absent);
    }
    put("run.mzML", "of the same name");
    EXPECT_EQ(client.mustRun({"exists", "/raw/2026/run.mzML"}).out, "yes\n");
}

TEST_F(Questions, NamesAreVerified) {
    EXPECT_EQ(object({"verify-name", reference, "run.mzML"})["matches"], true);
    EXPECT_EQ(client.mustRun({"-q", "verify-name", QStringLiteral("folder:%1").arg(year), "2026"}).out, "");
    const Outcome differs = client.run({"--json", "verify-name", reference, "Run.mzML"});
    EXPECT_EQ(differs.exitCode, 1);
    ASSERT_EQ(differs.objects().size(), 1);
    EXPECT_EQ(differs.object()["type"], "name");
    EXPECT_EQ(differs.object()["matches"], false);
    EXPECT_EQ(differs.object()["name"], "Run.mzML");
    EXPECT_EQ(differs.object()["name_on_server"], "run.mzML");
    EXPECT_EQ(QString::fromUtf8(differs.err).trimmed(),
              QStringLiteral(
                  "halvane: A filename pointed by \"Run.mzML (%1@2)\" does not match with a filename on the "
                  "server (the filename on the server is \"run.mzML\").")
                  .arg(reference));
    const Outcome folder = client.run({"verify-name", "/raw/2026", "2025"});
    EXPECT_EQ(folder.exitCode, 1);
    EXPECT_EQ(folder.out, "");
    EXPECT_EQ(
        QString::fromUtf8(folder.err).trimmed(),
        QStringLiteral(
            "halvane: A folder name pointed by \"2025 (folder:%1)\" does not match with a folder name on the "
            "server (the folder name on the server is \"2026\").")
            .arg(year));
    EXPECT_EQ(object({"verify-name", reference, "run.mzML"})["name_on_server"], "run.mzML");
}

TEST_F(Questions, WhatIsWrittenWrongly) {
    expectFailure({"info", "/none"}, 6, "NotFound");
    expectFailure({"info", "file:4711"}, 6, "NotFound");
    expectFailure({"siblings", "file:4711"}, 6, "NotFound");
    expectFailure({"verify-name", "file:4711", "run.mzML"}, 6, "NotFound");
    expectFailure({"siblings", "/raw"}, 2, "InvalidArgument");
    server.clearRequests();
    for (const QStringList& arguments :
         {QStringList{"info"}, QStringList{"info", ""}, QStringList{"info", "raw"},
          QStringList{"info", "file:x"}, QStringList{"siblings", "file:-1"}, QStringList{"exists", "folder:"},
          QStringList{"verify-name", "file:1"}, QStringList{"verify-name", "file:1", ""},
          QStringList{"cache"}, QStringList{"cache", "sing"}, QStringList{"cache", "pin"},
          QStringList{"cache", "path", "here"}, QStringList{"cache", "prune", "--max-size", "5X"},
          QStringList{"cache", "prune", "--max-size", ""}, QStringList{"cache", "prune", "--max-size", "-5G"},
          QStringList{"cache", "prune", "--max-age", "30"}, QStringList{"cache", "ls", "--max-size", "5G"}})
        expectFailure(arguments, 2, "InvalidArgument");
    EXPECT_TRUE(server.requests().isEmpty());
}

TEST_F(Questions, NobodyLoggedIn) {
    client.mustRun({"logout"});
    for (const QStringList& arguments :
         {QStringList{"info", "/raw"}, QStringList{"siblings", reference}, QStringList{"exists", reference},
          QStringList{"verify-name", reference, "run.mzML"}, QStringList{"cache", "path", reference}})
        expectFailure(arguments, 5, "NotAuthenticated");
}

TEST_F(Questions, AServerThatIsGone) {
    ASSERT_TRUE(server.stop());
    for (const QStringList& arguments :
         {QStringList{"info", "/raw"}, QStringList{"siblings", reference}, QStringList{"exists", reference},
          QStringList{"verify-name", reference, "run.mzML"}})
        expectFailure(arguments, 10, "ConnectionFailed");
}

} // namespace
} // namespace orx::testing
