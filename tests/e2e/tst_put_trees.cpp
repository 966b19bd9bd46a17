// Directories and several paths at a time go up: whole, once, and with a reason for whatever does not.
#include "UploadTrees.h"

#include <gmock/gmock.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUrl>

#include <sys/stat.h>
#include <unistd.h>

namespace orx::testing {
namespace {

using ::testing::HasSubstr;

class PutTrees : public UploadTrees {};

TEST_F(PutTrees, ATreeOfEverythingGoesUp) {
    makeWholeTree();
    const Outcome outcome = put({"2026", "--to", "/raw"});
    ASSERT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(onServer("/raw"), (QStringList{"/raw/2026/", "/raw/2026/a.txt@1", "/raw/2026/sub/",
                                             "/raw/2026/sub/deep/", "/raw/2026/sub/deep/old.vonk@1",
                                             "/raw/2026/sub/empty/", "/raw/2026/sub/frames.d.vonk@1",
                                             "/raw/2026/sub/run.mzML.vonk@1", "/raw/2026/sub/zero@1"}));
    EXPECT_EQ(contentOnServer("/raw/2026/a.txt"), "content of a");

    EXPECT_EQ(outcomes(outcome, "2026"), (QMap<QString, QString>{{"a.txt", "uploaded"},
                                                                 {"sub/run.mzML", "uploaded"},
                                                                 {"sub/frames.d", "uploaded"},
                                                                 {"sub/deep/old.vonk", "uploaded"},
                                                                 {"sub/zero", "uploaded"}}));
    const QList<QJsonObject> folders = ofType(outcome, "folder");
    ASSERT_EQ(folders.size(), 1);
    EXPECT_EQ(folders[0]["path"], client.path("2026"));
    EXPECT_EQ(folders[0]["outcome"], "uploaded");
    EXPECT_EQ(folders[0]["name"], "2026");
    EXPECT_EQ(folders[0]["files"], 5);
    EXPECT_EQ(folders[0]["uploaded"], 5);
    for (const QString key : {"unchanged", "skipped", "failed", "not_tried", "left_out", "unexplained"})
        EXPECT_EQ(folders[0][key], 0) << qPrintable(key);
}

// What is told of a file is what the server has.
TEST_F(PutTrees, TheObjectOfAFileIsThatOfTheServer) {
    makeWholeTree();
    const Outcome outcome = put({"2026", "--to", "/raw"});
    ASSERT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    QMap<int, QJsonObject> listed;
    for (const QString folder : {"/raw/2026", "/raw/2026/sub", "/raw/2026/sub/deep"}) {
        for (const QJsonObject& item : client.mustRun({"--json", "ls", folder}).objects()) {
            if (item["type"] == "file")
                listed.insert(item["id"].toInt(), item);
        }
    }
    const QList<QJsonObject> files = ofType(outcome, "file");
    ASSERT_EQ(files.size(), 5);
    for (const QJsonObject& file : files) {
        const QJsonObject onServer = listed.value(file["id"].toInt());
        for (const QString key : {"name", "version", "size", "sha256", "reference"})
            EXPECT_EQ(file[key], onServer[key]) << qPrintable(key);
    }
}

// A packed acquisition comes as what it was made of, unless it is asked for as it is.
TEST_F(PutTrees, TheTreeComesBackIdentical) {
    makeWholeTree();
    ASSERT_EQ(put({"2026", "--to", "/raw"}).exitCode, 0);
    Client colleague;
    ASSERT_TRUE(colleague.login(server.url()));
    colleague.mustRun({"get", "/raw/2026", "--to", "back"});
    EXPECT_EQ(colleague.filesIn("back/2026"), (QStringList{"a.txt", "sub"}));
    EXPECT_EQ(colleague.filesIn("back/2026/sub"),
              (QStringList{"deep", "empty", "frames.d", "run.mzML", "zero"}));
    EXPECT_EQ(colleague.filesIn("back/2026/sub/empty"), QStringList());
    for (const QString file :
         {"a.txt", "sub/run.mzML", "sub/zero", "sub/frames.d/analysis.tdf", "sub/frames.d/analysis.tdf_bin"})
        EXPECT_EQ(Client::contentOf(colleague.path("back/2026/" + file)),
                  Client::contentOf(client.path("2026/" + file)))
            << qPrintable(file);
    EXPECT_EQ(colleague.filesIn("back/2026/sub/deep"), QStringList{"two-scans.mzXML"});
    EXPECT_EQ(Client::contentOf(colleague.path("back/2026/sub/deep/two-scans.mzXML")),
              Client::contentOf(ORX_TEST_DATA_DIR "/two-scans.mzXML"));
    colleague.mustRun({"get", "/raw/2026/sub/deep/old.vonk", "--packed", "--to", "packed"});
    EXPECT_EQ(Client::contentOf(colleague.path("packed")),
              Client::contentOf(client.path("2026/sub/deep/old.vonk")));
}

TEST_F(PutTrees, ASecondRunSendsNothing) {
    makeWholeTree();
    ASSERT_EQ(put({"2026", "--to", "/raw"}).exitCode, 0);
    const QStringList before = onServer("/raw");
    server.clearRequests();
    const Outcome second = put({"2026", "--to", "/raw"});
    ASSERT_EQ(second.exitCode, 0) << second.err.constData();
    EXPECT_EQ(changes(), QStringList());
    for (const QString& outcome : outcomes(second, "2026"))
        EXPECT_EQ(outcome, "unchanged");
    EXPECT_EQ(ofType(second, "folder").first()["unchanged"], 5);
    EXPECT_EQ(onServer("/raw"), before);
}

TEST_F(PutTrees, OnlyWhatIsNewOrChangedGoesUp) {
    makeWholeTree();
    ASSERT_EQ(put({"2026", "--to", "/raw"}).exitCode, 0);
    write("2026/a.txt", "other than a");
    write("2026/sub/new.txt", "new");
    QFile raw(client.path("2026/sub/frames.d/analysis.tdf_bin"));
    ASSERT_TRUE(raw.open(QIODevice::ReadWrite));
    ASSERT_TRUE(raw.seek(raw.size() - 1));
    ASSERT_EQ(raw.write("!"), 1);
    raw.close();
    const Outcome second = put({"2026", "--to", "/raw"});
    ASSERT_EQ(second.exitCode, 0) << second.err.constData();
    EXPECT_EQ(outcomes(second, "2026"), (QMap<QString, QString>{{"a.txt", "uploaded"},
                                                                {"sub/run.mzML", "unchanged"},
                                                                {"sub/frames.d", "uploaded"},
                                                                {"sub/deep/old.vonk", "unchanged"},
                                                                {"sub/new.txt", "uploaded"},
                                                                {"sub/zero", "unchanged"}}));
    EXPECT_THAT(onServer("/raw/2026"), ::testing::IsSupersetOf({QString("/raw/2026/a.txt@2"),
                                                                QString("/raw/2026/sub/frames.d.vonk@2"),
                                                                QString("/raw/2026/sub/new.txt@1")}));
}

TEST_F(PutTrees, SeveralPathsOfEveryKindGoUpByOneCommand) {
    write("a.txt", "content of a");
    makeRawFile("run.mzML");
    makeRawDirectory("frames.d");
    makePacked("old.vonk");
    write("folder/b.txt", "content of b");
    const Outcome outcome =
        put({"a.txt", "run.mzML", "./frames.d/", "old.vonk", client.path("folder"), "a.txt", "--to", "/raw"});
    ASSERT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_EQ(onServer("/raw"),
              (QStringList{"/raw/a.txt@1", "/raw/folder/", "/raw/folder/b.txt@1", "/raw/frames.d.vonk@1",
                           "/raw/old.vonk@1", "/raw/run.mzML.vonk@1"}));
    server.clearRequests();
    const Outcome second = put({"a.txt", "run.mzML", "frames.d", "old.vonk", "folder", "--to", "/raw"});
    EXPECT_EQ(second.exitCode, 0) << second.err.constData();
    EXPECT_EQ(changes(), QStringList());
}

TEST_F(PutTrees, RawDataIsPackedWithoutBeingToldAndNotAsAFile) {
    makeRawFile("run.mzML");
    makeRawDirectory("frames.d");
    EXPECT_EQ(put({"run.mzML", "--to", "/raw"}).object()["name"], "run.mzML.vonk");
    EXPECT_EQ(put({"frames.d", "--to", "/raw"}).object()["name"], "frames.d.vonk");
    EXPECT_EQ(
        put({"run.mzML", "--to", "/raw", "--as", "first", "--metadata", "operator=anna"}).object()["name"],
        "first.vonk");
    EXPECT_EQ(put({"run.mzML", "--to", "/raw", "--as", "first", "--new-version"}).object()["version"], 2);
    EXPECT_EQ(put({"run.mzML", "--to", "/raw", "--new-version"}).object()["reference"], "file:1@2");
    EXPECT_EQ(put({"run.mzML", "--to", "/raw", "--as-file"}).object()["name"], "run.mzML");
    EXPECT_EQ(contentOnServer("/raw/run.mzML"), Client::contentOf(client.path("run.mzML")));
    write("b.txt", "content of b");
    EXPECT_EQ(put({"run.mzML", "b.txt", "--to", "/raw", "--as-file"}).exitCode, 0);
    EXPECT_EQ(onServer("/raw"), (QStringList{"/raw/b.txt@1", "/raw/first.vonk@2", "/raw/frames.d.vonk@1",
                                             "/raw/run.mzML.vonk@2", "/raw/run.mzML@1"}));
    const Outcome directory = put({"frames.d", "--to", "/raw", "--as-file"});
    EXPECT_EQ(directory.exitCode, 2);
    EXPECT_THAT(directory.err.toStdString(), HasSubstr("leave out --as-file"));
}

TEST_F(PutTrees, ADirectoryOfRawDataMayBeNamedInEveryWay) {
    makeRawDirectory("frames.d");
    ASSERT_TRUE(QFile::link("frames.d", client.path("link.d")));
    EXPECT_EQ(put({"frames.d/", "--to", "/raw"}).object()["reference"], "file:1@1");
    EXPECT_EQ(put({"./frames.d/.//", "--to", "/raw", "--new-version"}).object()["reference"], "file:1@2");
    EXPECT_EQ(put({client.path("frames.d/."), "--to", "/raw", "--new-version"}).object()["reference"],
              "file:1@3");
    EXPECT_EQ(put({"link.d/", "--to", "/raw"}).object()["name"], "link.d.vonk");
    for (const char* nameless : {".", "./", "../frames.d", "../frames.d/."}) {
        const Outcome outcome =
            client.runWrapped({"env", "--chdir=" + client.path("frames.d")},
                              {"--json", "put", nameless, "--to", "/raw", "--new-version"});
        ASSERT_EQ(outcome.exitCode, 0) << nameless << ": " << outcome.err.constData();
        EXPECT_EQ(outcome.object()["name"], "frames.d.vonk") << nameless;
    }
    EXPECT_EQ(onServer("/raw"), (QStringList{"/raw/frames.d.vonk@7", "/raw/link.d.vonk@1"}));
}

TEST_F(PutTrees, OfRawDataNothingIsKeptInTheCacheWhenThatIsNotWanted) {
    makeRawFile("run.mzML");
    makeRawFile("folder/run.mzML");
    for (const char* path : {"run.mzML", "folder"})
        ASSERT_EQ(put({path, "--to", "/raw", "--no-cache"}).exitCode, 0) << path;
    EXPECT_EQ(client.mustRun({"--json", "cache", "ls"}).objects().size(), 0);
    ASSERT_EQ(put({"run.mzML", "--to", "/raw", "--new-version"}).exitCode, 0);
    EXPECT_EQ(client.mustRun({"--json", "cache", "ls"}).objects().size(), 1);
}

TEST_F(PutTrees, OfRawDataThatIsNotWholeSomebodyIsWarned) {
    makeRawFile("run.mzML");
    ASSERT_TRUE(QFile::setPermissions(client.path("run.mzML"), QFile::ReadOwner | QFile::WriteOwner));
    ASSERT_TRUE(QFile::resize(client.path("run.mzML"), 2'000));
    const Outcome single = put({"run.mzML", "--to", "/raw"});
    EXPECT_EQ(single.exitCode, 0);
    EXPECT_EQ(single.object()["name"], "run.mzML");
    EXPECT_THAT(single.err.toStdString(), HasSubstr("looks like raw data (mzml)"));
    EXPECT_THAT(put({"run.mzML", "--to", "/raw", "--as-file", "--new-version"}).err.toStdString(),
                ::testing::Not(HasSubstr("looks like raw data")));
    makeDirectory("folder");
    ASSERT_TRUE(QFile::rename(client.path("run.mzML"), client.path("folder/run.mzML")));
    const Outcome tree = put({"folder", "--to", "/raw"});
    EXPECT_EQ(tree.exitCode, 0);
    EXPECT_THAT(tree.err.toStdString(), HasSubstr("folder/run.mzML\" looks like raw data (mzml)"));
}

TEST_F(PutTrees, ACompanionIsSentOnceAndComesBackWithItsRawData) {
    const QByteArray uuid = "12345678-1234-1234-1234-123456789abc";
    const QString document = write(
        "study/tissue.imzML",
        R"(<?xml version="1.0"?><mzML version="1.1"><fileDescription><fileContent>)"
        R"(<cvParam cvRef="IMS" accession="IMS:1000080" name="uuid" value="{)" +
            uuid +
            R"(}"/></fileContent></fileDescription><run id="r"><spectrumList count="0"/></run></mzML>)");
    const QString binary = write("study/tissue.ibd", QByteArray::fromHex(QByteArray(uuid).replace("-", "")) +
                                                         QByteArray(5000, 'i'));
    const Outcome outcome = put({"study", "--to", "/raw"});
    ASSERT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    const QList<QJsonObject> leftOut = ofType(outcome, "left_out");
    ASSERT_EQ(leftOut.size(), 1);
    EXPECT_EQ(leftOut.first()["path"], binary);
    EXPECT_EQ(leftOut.first()["reason"], "companion");
    EXPECT_EQ(onServer("/raw"), (QStringList{"/raw/study/", "/raw/study/tissue.imzML.vonk@1"}));
    client.mustRun({"get", "/raw/study", "--to", makeDirectory("back")});
    EXPECT_EQ(Client::contentOf(client.path("back/study/tissue.imzML")), Client::contentOf(document));
    EXPECT_EQ(Client::contentOf(client.path("back/study/tissue.ibd")), Client::contentOf(binary));
}

TEST_F(PutTrees, WhatIsLeftOutIsToldWithItsReason) {
    write("2026/a.txt", "content of a");
    write("2026/.hidden", "x");
    write("2026/.git/config", "x");
    write("2026/b.tmp", "x");
    ASSERT_TRUE(QFile::link("sub", client.path("2026/link")));
    ASSERT_TRUE(QFile::link("a.txt", client.path("2026/same.txt")));
    ASSERT_TRUE(QFile::link("nowhere", client.path("2026/dangling")));
    makeDirectory("2026/sub");
    ASSERT_EQ(::mkfifo(QFile::encodeName(client.path("2026/pipe")).constData(), 0600), 0);
    const Outcome outcome = put({"2026", "--to", "/raw"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_EQ(leftOut(outcome, "2026"), (QMap<QString, QString>{{".hidden", "hidden"},
                                                                {".git", "hidden"},
                                                                {"b.tmp", "filter"},
                                                                {"link", "link"},
                                                                {"dangling", "link"},
                                                                {"pipe", "special"}}));
    EXPECT_THAT(outcome.err.toStdString(), HasSubstr("left out:"));
    EXPECT_THAT(outcome.err.toStdString(), HasSubstr("2026/b.tmp"));
    EXPECT_EQ(onServer("/raw"),
              (QStringList{"/raw/2026/", "/raw/2026/a.txt@1", "/raw/2026/same.txt@1", "/raw/2026/sub/"}));
}

TEST_F(PutTrees, WhatDirectoriesGiveIsTheUsersChoice) {
    write("2026/a.RAW", "content of a");
    write("2026/b.tmp", "content of b");
    write("2026/scratch-c.raw", "content of c");
    const auto set = [this](const QByteArray& text) {
        QFile settings(client.configDir() + "/upload.ini");
        ASSERT_TRUE(settings.open(QIODevice::WriteOnly | QIODevice::Truncate));
        settings.write(text);
    };
    set("[filters]\nallowed_extensions=raw, mzML\nexcluded_names=scratch-*\n");
    const Outcome outcome = put({"2026", "--to", "/raw"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_EQ(leftOut(outcome, "2026"),
              (QMap<QString, QString>{{"b.tmp", "filter"}, {"scratch-c.raw", "filter"}}));
    EXPECT_EQ(onServer("/raw/2026"), QStringList{"/raw/2026/a.RAW@1"});
    // What is named itself is wanted.
    EXPECT_EQ(put({"2026/b.tmp", "2026/scratch-c.raw", "--to", "/raw"}).exitCode, 0);
    server.clearRequests();
    for (const char* const wrong : {"[filters]\nexcluded=*\n", "[acquisitions]\nquiet_time=long\n"}) {
        set(wrong);
        const Outcome refused = put({"2026", "--to", "/raw"});
        EXPECT_EQ(refused.exitCode, 3);
        EXPECT_THAT(refused.err.toStdString(), HasSubstr("upload.ini"));
    }
    EXPECT_EQ(server.requests().size(), 0);
}

// Nobody wanted it kept back: that it did not go up is a failure.
TEST_F(PutTrees, ANameThatIsNoTextIsAFailure) {
    write("2026/a.txt", "content of a");
    const QByteArray bad = QFile::encodeName(client.path("2026/")) + "bad\xff"
                                                                     "name";
    FILE* const file = std::fopen(bad.constData(), "w");
    ASSERT_NE(file, nullptr);
    std::fclose(file);
    const Outcome outcome = put({"2026", "--to", "/raw"});
    EXPECT_EQ(::unlink(bad.constData()), 0);
    EXPECT_EQ(outcome.exitCode, 14) << outcome.err.constData();
    EXPECT_THAT(outcome.err.toStdString(), HasSubstr("is not valid UTF-8"));
    EXPECT_EQ(ofType(outcome, "failure").size(), 1);
    EXPECT_EQ(onServer("/raw/2026"), QStringList{"/raw/2026/a.txt@1"});
}

TEST_F(PutTrees, ADirectoryThatCannotBeReadIsAFailure) {
    write("2026/a.txt", "content of a");
    write("2026/closed/b.txt", "content of b");
    ASSERT_TRUE(QFile::setPermissions(client.path("2026/closed"), {}));
    // Root reads everything unless it gives that up.
    const Outcome outcome =
        ::geteuid() == 0 ? client.runWrapped({"setpriv", "--bounding-set=-dac_override,-dac_read_search",
                                              "--inh-caps=-dac_override,-dac_read_search"},
                                             {"--json", "put", "2026", "--to", "/raw"})
                         : put({"2026", "--to", "/raw"});
    EXPECT_TRUE(QFile::setPermissions(client.path("2026/closed"),
                                      QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    EXPECT_EQ(outcome.exitCode, 14) << outcome.err.constData();
    EXPECT_EQ(failures(outcome, "2026"), (QMap<QString, QString>{{"closed", "FileNotReadable"}}));
    EXPECT_THAT(onServer("/raw/2026"), ::testing::Contains(QString("/raw/2026/a.txt@1")));
}

TEST_F(PutTrees, AnEmptyDirectoryBecomesAFolder) {
    makeDirectory("empty");
    EXPECT_EQ(put({"empty", "--to", "/raw"}).exitCode, 0);
    EXPECT_EQ(onServer("/raw"), QStringList{"/raw/empty/"});
}

TEST_F(PutTrees, WhatIsNotThereStopsItBeforeAnythingIsAsked) {
    write("a.txt", "content of a");
    const Outcome outcome = put({"a.txt", "nowhere", "--to", "/raw"});
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_THAT(outcome.object()["message"].toString().toStdString(), HasSubstr("\"nowhere\""));
    EXPECT_TRUE(server.requests().isEmpty());
    EXPECT_EQ(put({"a.txt", "a.txt", "--to", "/nowhere"}).exitCode, 6);
    client.mustRun({"put", "a.txt", "--to", "/raw"});
    const Outcome intoFile = put({client.path("."), "--to", "file:1"});
    EXPECT_EQ(intoFile.exitCode, 2);
}

TEST_F(PutTrees, TwoOfADirectoryThatGetOneNameAreBothThereAndNotSentAgain) {
    makeRawFile("2026/run.mzML");
    makePacked("2026/run.mzML.vonk");
    const Outcome outcome = put({"2026", "--to", "/raw"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err.constData();
    EXPECT_THAT(outcome.err.toStdString(), HasSubstr("go up under one name, \"run.mzML.vonk\""));
    const QString name = "/raw/2026/run.mzML.vonk@1";
    EXPECT_EQ(onServer("/raw/2026"), (QStringList{name, name}));
    server.clearRequests();
    const Outcome second = put({"2026", "--to", "/raw"});
    EXPECT_EQ(second.exitCode, 0) << second.err.constData();
    EXPECT_EQ(changes(), QStringList());
}

TEST_F(PutTrees, ChangedOneOfTwoThatGetOneNameFailsAndIsNoVersionOfTheOther) {
    QFile raw(makeRawFile("2026/run.mzML"));
    makePacked("2026/run.mzML.vonk");
    ASSERT_EQ(put({"2026", "--to", "/raw"}).exitCode, 0);
    ASSERT_TRUE(raw.open(QIODevice::Append));
    ASSERT_EQ(raw.write("\n"), 1);
    raw.close();
    server.clearRequests();
    for (int run = 0; run < 2; ++run) {
        const Outcome outcome = put({"2026", "--to", "/raw", "--keep-going"});
        EXPECT_EQ(outcome.exitCode, 14) << outcome.err.constData();
        EXPECT_EQ(failures(outcome, "2026"), (QMap<QString, QString>{{"run.mzML", "AlreadyExists"}}));
        EXPECT_EQ(outcomes(outcome, "2026"), (QMap<QString, QString>{{"run.mzML.vonk", "unchanged"}}));
    }
    EXPECT_THAT(put({"2026", "--to", "/raw", "--dry-run"}).out.toStdString(), HasSubstr("\"fail\""));
    EXPECT_EQ(changes(), QStringList());
}

TEST_F(PutTrees, TwoThatWouldBeOneAreNeverMerged) {
    write("one/2026/a.txt", "content of a");
    write("two/2026/b.txt", "content of b");
    const Outcome outcome = put({"one/2026", "two/2026", "--to", "/raw"});
    EXPECT_EQ(outcome.exitCode, 2);
    EXPECT_THAT(outcome.err.toStdString(), HasSubstr("nothing is merged"));
    EXPECT_EQ(onServer("/raw"), QStringList());
    EXPECT_EQ(put({"one/2026", "two/2026", "--to", "/raw", "--keep-going"}).exitCode, 14);
    EXPECT_EQ(onServer("/raw"), (QStringList{"/raw/2026/", "/raw/2026/a.txt@1"}));
}

} // namespace
} // namespace orx::testing
