// Packed acquisitions on one's own machine: what is packed comes back as it was, with our program and with
// stock ones; what is damaged, newer or in the way is refused and stays as it is.
#include "Client.h"

#include <RealServer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>

#include <functional>
#include <map>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace orx::testing {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;

const QString kDataDir = ORX_TEST_DATA_DIR;
const QString kPackedDataDir = ORX_PACKED_TEST_DATA_DIR;

void setTime(const QString& path, qint64 seconds, long nanoseconds) {
    const timespec time{time_t(seconds), nanoseconds};
    const timespec times[] = {time, time};
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0), 0) << path.toStdString();
}

//! What is at \a path and below it: kind, content and time of modification of each entry.
std::map<std::string, std::string> treeAt(const QString& path) {
    const auto describe = [](const QFileInfo& info) {
        struct stat entry {};
        EXPECT_EQ(::lstat(QFile::encodeName(info.filePath()).constData(), &entry), 0);
        const std::string time =
            std::to_string(entry.st_mtim.tv_sec) + '.' + std::to_string(entry.st_mtim.tv_nsec);
        if (info.isSymLink())
            return "link to " + QFile::symLinkTarget(info.filePath()).toStdString();
        return info.isDir() ? "directory " + time
                            : time + ' ' + sha256Of(Client::contentOf(info.filePath())).toStdString();
    };
    std::map<std::string, std::string> tree{{"", describe(QFileInfo(path))}};
    QDirIterator entries(path, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                         QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        entries.next();
        tree[QDir(path).relativeFilePath(entries.filePath()).toStdString()] = describe(entries.fileInfo());
    }
    return tree;
}

class PackedFiles : public ::testing::Test {
protected:
    //! Copies \a name of \a directory into the working directory, with times of its own.
    QString bring(const QString& name, const QString& directory = kDataDir) const {
        const QString source = directory + '/' + name;
        const QString target = client.path(name);
        if (QFileInfo(source).isDir()) {
            EXPECT_TRUE(QDir().mkpath(target));
            for (const QString& entry : QDir(source).entryList(QDir::Files)) {
                EXPECT_TRUE(QFile::copy(source + '/' + entry, target + '/' + entry));
                setTime(target + '/' + entry, 1'700'000'000, 123'456'789);
            }
        } else {
            EXPECT_TRUE(QFile::copy(source, target)) << source.toStdString();
        }
        setTime(target, 1'600'000'001, 5);
        return target;
    }
    void file(const QString& name, const QByteArray& content) const {
        EXPECT_TRUE(QDir().mkpath(QFileInfo(client.path(name)).path()));
        client.makeFile(name, content);
    }
    QString packed(const QString& name) const {
        client.mustRun({"pack", client.path(name)});
        return client.path(name + ".vonk");
    }
    static void change(const QString& path, const std::function<void(QByteArray&)>& how) {
        QByteArray content = Client::contentOf(path);
        how(content);
        QFile changed(path);
        ASSERT_TRUE(changed.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ASSERT_EQ(changed.write(content), content.size());
    }
    //! Without the time of the directory itself, which a hidden file that came and went changes.
    std::map<std::string, std::string> everything() const {
        auto tree = treeAt(client.path({}));
        tree.erase("");
        return tree;
    }
    //! The run must fail with \a exitCode, saying \a text, and change nothing in the working directory.
    QJsonObject mustFail(const QStringList& arguments, int exitCode, const std::string& text) const {
        const auto before = everything();
        const Outcome outcome = client.run(QStringList{"--json"} + arguments);
        EXPECT_TRUE(outcome.ended);
        EXPECT_EQ(outcome.exitCode, exitCode) << outcome.err.constData();
        EXPECT_THAT(std::string(outcome.err), HasSubstr(text));
        EXPECT_EQ(everything(), before);
        const QJsonObject error = outcome.object();
        EXPECT_EQ(error["exit_code"], exitCode);
        EXPECT_THAT(error["message"].toString().toStdString(), HasSubstr(text));
        return error;
    }
    static QByteArray outputOf(const QString& program, const QStringList& arguments) {
        QProcess process;
        process.start(program, arguments);
        EXPECT_TRUE(process.waitForFinished(300'000)) << program.toStdString();
        EXPECT_EQ(process.exitCode(), 0) << process.readAllStandardError().constData();
        return process.readAllStandardOutput();
    }

    Client client;
};

// ---- there and back

class RealAcquisitions : public PackedFiles, public ::testing::WithParamInterface<const char*> {};

TEST_P(RealAcquisitions, ComeBackAsTheyWere) {
    const QString name = GetParam();
    const QString raw = bring(name);
    const auto before = treeAt(raw);
    const QJsonObject made = client.mustRun({"--json", "pack", raw}).object();
    const QString vonk = raw + ".vonk";
    EXPECT_EQ(made["type"], "packed_acquisition");
    EXPECT_EQ(made["outcome"], "packed");
    EXPECT_EQ(made["path"], vonk);
    EXPECT_EQ(made["source"], raw);
    EXPECT_EQ(made["name"], name);
    EXPECT_EQ(made["format_version"], "2.0");
    EXPECT_EQ(made["size"].toInteger(), QFileInfo(vonk).size());
    EXPECT_EQ(treeAt(raw), before);

    for (const QStringList& options : {QStringList(), QStringList{"--full"}}) {
        const QJsonObject checked = client.mustRun(QStringList{"--json", "check", vonk} + options).object();
        EXPECT_EQ(checked["outcome"], "intact");
        EXPECT_EQ(checked["check"], options.isEmpty() ? "quick" : "full");
        EXPECT_EQ(checked["content_size"], made["content_size"]);
    }
    const QJsonObject unpacked =
        client.mustRun({"--json", "unpack", vonk, "--to", client.path("back")}).object();
    EXPECT_EQ(unpacked["type"], "raw_data");
    EXPECT_EQ(unpacked["path"], client.path("back/" + name));
    EXPECT_EQ(treeAt(client.path("back/" + name)), before);
    EXPECT_EQ(client.filesIn("back"), QStringList{name});
}

TEST_P(RealAcquisitions, AreReadByStockPrograms) {
    const QString raw = bring(GetParam());
    const QString vonk = packed(GetParam());
    outputOf("zstd", {"-q", "-t", vonk});
    const QByteArray listed = outputOf("tar", {"--zstd", "-tf", vonk});
    EXPECT_TRUE(listed.startsWith(QByteArray("content/") + GetParam())) << listed.constData();
    ASSERT_TRUE(QDir().mkpath(client.path("stock")));
    outputOf("tar", {"--zstd", "-xf", vonk, "-C", client.path("stock")});
    EXPECT_EQ(treeAt(client.path(QString("stock/content/") + GetParam())), treeAt(raw));
}

TEST_P(RealAcquisitions, AreSummedUpAlikePackedAndUnpacked) {
    const QString raw = bring(GetParam());
    const QJsonObject ofRaw = client.mustRun({"--json", "inspect", raw}).object();
    const QJsonObject ofPacked = client.mustRun({"--json", "inspect", packed(GetParam())}).object();
    EXPECT_EQ(ofRaw["type"], "raw_data");
    EXPECT_EQ(ofPacked["type"], "packed_acquisition");
    EXPECT_EQ(ofPacked["run_summary"]["spectra"].toInt() == 0, QString(GetParam()).contains("chromatogram"));
    for (const char* key : {"run_summary", "source_kind", "name"})
        EXPECT_EQ(ofRaw[key], ofPacked[key]) << key;
}

TEST_P(RealAcquisitions, GoUpPackedAndComeBackAsTheyWere) {
    RealServer server;
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(client.login(server.url()));
    client.mustRun({"mkdir", "/raw"});
    const QString raw = bring(GetParam());
    const auto before = treeAt(raw);
    const Outcome put = client.mustRun({"--json", "put", raw, "--to", "/raw"});
    EXPECT_THAT(std::string(put.err), Not(HasSubstr("warning")));
    const QJsonObject sent = put.object();
    EXPECT_EQ(sent["name"], QString(GetParam()) + ".vonk");
    EXPECT_EQ(treeAt(raw), before);
    const QString remote = QString("/raw/") + GetParam() + ".vonk";
    const QJsonObject there = client.mustRun({"--json", "inspect", remote}).object();
    EXPECT_EQ(there["run_summary"], client.mustRun({"--json", "inspect", raw}).object()["run_summary"]);
    // From the server, and from the cache that the upload filled.
    for (const QStringList& cache : {QStringList{"--no-cache"}, QStringList{}}) {
        ASSERT_TRUE(QDir().mkpath(client.path("down")));
        client.mustRun(QStringList{"get", remote, "--to", client.path("down")} + cache);
        EXPECT_EQ(treeAt(client.path(QString("down/") + GetParam())), before);
        EXPECT_EQ(client.filesIn("down"), QStringList{GetParam()});
        ASSERT_TRUE(QDir(client.path("down")).removeRecursively());
    }
    EXPECT_EQ(
        client.mustRun({"--json", "put", raw, "--to", "/raw", "--if-exists", "fail"}).object()["outcome"],
        "unchanged");
}

INSTANTIATE_TEST_SUITE_P(All, RealAcquisitions,
                         ::testing::Values("tiny.mzML", "two-scans.mzXML", "small.mgf", "wrong-count.mzML",
                                           "no-index.mzML", "chromatograms.mzML", "one-chromatogram.mzML.gz",
                                           "sqlite-frames.d"));

TEST_F(PackedFiles, ADirectoryComesBackWithEverythingInIt) {
    file("run1.d/fid", QByteArray(3'000'000, 'f'));
    file("run1.d/acqus", "##TITLE=x");
    file("run1.d/pdata/1/Größe.txt", "größer");
    file("run1.d/empty file", {});
    ASSERT_TRUE(QDir().mkpath(client.path("run1.d/empty directory")));
    setTime(client.path("run1.d/acqus"), -1, 999'999'999);
    const auto before = treeAt(client.path("run1.d"));
    const QJsonObject inspected = client.mustRun({"--json", "inspect", packed("run1.d")}).object();
    EXPECT_EQ(inspected["source_kind"], "fid-directory");
    EXPECT_EQ(inspected["files"], 4);
    EXPECT_EQ(inspected["entries"].toArray().size(), 8);
    EXPECT_TRUE(inspected["run_summary"].isNull());
    EXPECT_FALSE(inspected["run_summary_absent"].toString().isEmpty());
    client.mustRun({"unpack", "run1.d.vonk", "--to", "back"});
    EXPECT_EQ(treeAt(client.path("back/run1.d")), before);
}

TEST_F(PackedFiles, ACompanionIsPackedAndComesBackToo) {
    const QByteArray uuid = "12345678-1234-1234-1234-123456789abc";
    file("tissue.imzML",
         R"(<?xml version="1.0"?><mzML version="1.1"><fileDescription><fileContent>)"
         R"(<cvParam cvRef="IMS" accession="IMS:1000080" name="uuid" value="{)" +
             uuid +
             R"(}"/></fileContent></fileDescription><run id="r"><spectrumList count="0"/></run></mzML>)");
    file("tissue.ibd", QByteArray::fromHex(QByteArray(uuid).replace("-", "")) + QByteArray(5000, 'i'));
    EXPECT_EQ(client.mustRun({"--json", "pack", "tissue.imzML"}).object()["files"], 2);
    const QJsonObject unpacked =
        client.mustRun({"--json", "unpack", "tissue.imzML.vonk", "--to", "back"}).object();
    EXPECT_EQ(unpacked["paths"],
              (QJsonArray{client.path("back/tissue.ibd"), client.path("back/tissue.imzML")}));
    EXPECT_EQ(treeAt(client.path("back/tissue.ibd")), treeAt(client.path("tissue.ibd")));
    EXPECT_EQ(treeAt(client.path("back/tissue.imzML")), treeAt(client.path("tissue.imzML")));
    // A companion in the way is not replaced, and nothing else is unpacked beside it.
    ASSERT_TRUE(QFile::remove(client.path("back/tissue.imzML")));
    mustFail({"unpack", "tissue.imzML.vonk", "--to", "back"}, 4, "tissue.ibd\" exists already");
}

TEST_F(PackedFiles, TheSameDataGivesTheSameBytes) {
    bring("sqlite-frames.d");
    const QByteArray first = Client::contentOf(packed("sqlite-frames.d"));
    client.mustRun({"pack", "sqlite-frames.d", "-o", "second.vonk"});
    EXPECT_TRUE(Client::contentOf(client.path("second.vonk")) == first);
    const Outcome onOneProcessor =
        client.runWrapped({"taskset", "1"}, {"pack", "./sqlite-frames.d/", "-o", "third.vonk"});
    EXPECT_EQ(onOneProcessor.exitCode, 0) << onOneProcessor.err.constData();
    EXPECT_TRUE(Client::contentOf(client.path("third.vonk")) == first);
}

TEST_F(PackedFiles, WhereItGoesFollowsFromWhatIsAskedFor) {
    bring("tiny.mzML");
    ASSERT_TRUE(QDir().mkpath(client.path("archive/data")));
    EXPECT_EQ(client.mustRun({"--json", "pack", "tiny.mzML", "-o", "archive"}).object()["path"],
              client.path("archive/tiny.mzML.vonk"));
    EXPECT_EQ(client.mustRun({"--json", "pack", "tiny.mzML", "--output", "archive/other"}).object()["path"],
              client.path("archive/other"));
    mustFail({"pack", "tiny.mzML", "-o", "none/tiny.vonk"}, 4, "none\" does not exist; make it first");
    mustFail({"pack", "tiny.mzML", "-o", "none/"}, 4, "none\" does not exist; make it first");
    // Into a directory that is there, beside what is in it.
    file("archive/data/stays", "as it is");
    EXPECT_EQ(client.mustRun({"unpack", "archive/other", "--to", "archive/data/"}).out,
              "archive/other -> " + client.path("archive/data/tiny.mzML").toUtf8() + ", 1 file, 24.5 KiB\n");
    EXPECT_EQ(client.filesIn("archive/data"), (QStringList{"stays", "tiny.mzML"}));
    mustFail({"unpack", "archive/other", "--to", "none/back"}, 4, "none\" does not exist; make it first");
    mustFail({"unpack", "archive/other", "--to", "tiny.mzML"}, 4, "is not a directory");
}

TEST_F(PackedFiles, AnAcquisitionIsNotPackedIntoItself) {
    bring("sqlite-frames.d");
    mustFail({"pack", "sqlite-frames.d", "-o", "sqlite-frames.d"}, 2, "cannot be packed into a file within");
}

// ---- what is in the way, or no raw data

TEST_F(PackedFiles, WhatExistsIsNotReplaced) {
    bring("tiny.mzML");
    file("tiny.mzML.vonk", "precious");
    mustFail({"pack", "tiny.mzML"}, 4, "exists already. Choose another name with -o");
    ASSERT_EQ(::symlink("nowhere", QFile::encodeName(client.path("link")).constData()), 0);
    mustFail({"pack", "tiny.mzML", "-o", "link"}, 4, "exists already");
    client.mustRun({"pack", "tiny.mzML", "-o", "packed"});
    mustFail({"unpack", "packed", "--to", "."}, 4, "tiny.mzML\" exists already and stays as it is");
    file("run.svg", "precious");
    mustFail({"inspect", "packed", "--plot", "run.svg"}, 4, "exists already");
    mustFail({"inspect", "packed", "--plot", "none/run.svg"}, 4, "none\" does not exist; make it first");
}

TEST_F(PackedFiles, WhatIsNoRawDataIsNotPacked) {
    file("notes.txt", "no measurement");
    file("empty.mzML", {});
    file("run.wiff", QByteArray::fromHex("d0cf11e0a1b11ae1") + QByteArray(600, '\0'));
    file("folder/notes.txt", "no measurement");
    bring("tiny.mzML");
    packed("tiny.mzML");
    for (const char* name : {"notes.txt", "empty.mzML", "run.wiff", "folder", "tiny.mzML.vonk"})
        EXPECT_EQ(mustFail({"pack", name}, 2,
                           QString("\"%1\" cannot be packed: ").arg(name).toStdString())["error"],
                  "InvalidArgument");
    EXPECT_EQ(mustFail({"pack", "none"}, 3, "\"none\" does not exist")["error"], "NotFound");
    for (const char* command : {"check", "inspect", "upgrade"}) {
        mustFail({command, "notes.txt"}, 3, "it is no packed acquisition");
        mustFail({command, "none"}, 3, "\"none\" does not exist");
        mustFail({command, "folder"}, 3, "folder");
    }
    mustFail({"unpack", "notes.txt", "--to", "back"}, 3, "it is no packed acquisition");
    mustFail({"inspect", "run.wiff"}, 3, "nor complete raw data");
}

TEST_F(PackedFiles, WhatCannotBeReadIsNamedAndNothingIsMade) {
    file("run1.d/fid", "fid");
    file("run1.d/acqus", "acqus");
    file("run1.d/pdata/hidden", "hidden");
    bring("tiny.mzML");
    packed("tiny.mzML");
    const QStringList asOrdinaryUser{"setpriv", "--bounding-set", "-dac_override,-dac_read_search"};
    const auto runRestricted = [&](const QStringList& arguments) {
        return ::geteuid() == 0 ? client.runWrapped(asOrdinaryUser, arguments) : client.run(arguments);
    };
    const auto expectUnreadable = [&](const QString& path, const QStringList& arguments) {
        ASSERT_EQ(::chmod(QFile::encodeName(client.path(path)).constData(), 0), 0);
        const QStringList before = client.filesIn();
        const Outcome outcome = runRestricted(arguments);
        ASSERT_EQ(::chmod(QFile::encodeName(client.path(path)).constData(), 0755), 0);
        EXPECT_EQ(outcome.exitCode, 3) << outcome.err.constData();
        EXPECT_THAT(std::string(outcome.err), HasSubstr(path.toStdString()));
        EXPECT_EQ(client.filesIn(), before);
    };
    expectUnreadable("run1.d/pdata/hidden", {"pack", "run1.d"});
    expectUnreadable("run1.d/pdata", {"pack", "run1.d"});
    expectUnreadable("run1.d", {"pack", "run1.d"});
    expectUnreadable("tiny.mzML", {"pack", "tiny.mzML", "-o", "other.vonk"});
    expectUnreadable("tiny.mzML.vonk", {"check", "tiny.mzML.vonk"});
    expectUnreadable("tiny.mzML.vonk", {"unpack", "tiny.mzML.vonk", "--to", "back"});
}

TEST_F(PackedFiles, LinksWithinAnAcquisitionAreNotFollowed) {
    file("run1.d/fid", "fid");
    file("run1.d/acqus", "acqus");
    ASSERT_EQ(::symlink("/etc/passwd", QFile::encodeName(client.path("run1.d/link")).constData()), 0);
    mustFail({"pack", "run1.d"}, 3, "run1.d/link\" cannot be packed: it is neither a file nor a directory");
}

// ---- damage and versions

TEST_F(PackedFiles, ADamagedFileIsFoundAndNothingOfItIsHandedOut) {
    bring("small.mgf");
    const QString vonk = packed("small.mgf");
    change(vonk, [](QByteArray& content) {
        content[content.size() / 2] = char(content.at(content.size() / 2) ^ 1);
    });
    // A byte of the payload: the structure is as it was.
    client.mustRun({"check", vonk});
    client.mustRun({"inspect", vonk});
    const QJsonObject error = mustFail({"check", "--full", vonk}, 13, "small.mgf.vonk\" cannot be used");
    EXPECT_EQ(error["error"], "ChecksumMismatch");
    mustFail({"unpack", vonk, "--to", "back"}, 13, "small.mgf.vonk\" cannot be used");
    mustFail({"unpack", vonk, "--to", "."}, 4, "exists already");
    ASSERT_TRUE(QFile::remove(client.path("small.mgf")));
    mustFail({"unpack", vonk, "--to", "."}, 13, "small.mgf.vonk\" cannot be used");
}

TEST_F(PackedFiles, DamageOfWhatAFileSaysOfItselfIsFoundAtOnce) {
    bring("small.mgf");
    const QString vonk = packed("small.mgf");
    change(vonk, [](QByteArray& content) {
        const qsizetype at = content.lastIndexOf("\"small.mgf\"");
        ASSERT_GT(at, 0);
        content[at + 1] = 'S';
    });
    for (const QStringList& command : {QStringList{"check"}, QStringList{"inspect"}, QStringList{"upgrade"},
                                       QStringList{"check", "--full"}})
        EXPECT_EQ(mustFail(command + QStringList{vonk}, 13, "cannot be used")["error"], "ChecksumMismatch");
    mustFail({"unpack", vonk, "--to", "back"}, 13, "cannot be used");
}

TEST_F(PackedFiles, ACutFileIsFoundByTheQuickCheck) {
    bring("small.mgf");
    const QString vonk = packed("small.mgf");
    const QByteArray whole = Client::contentOf(vonk);
    for (const qsizetype size : {whole.size() - 1, whole.size() / 2, qsizetype(40)}) {
        change(vonk, [&](QByteArray& content) { content = whole.left(size); });
        mustFail({"check", vonk}, 13, "cannot be used");
        mustFail({"inspect", vonk}, 13, "cannot be used");
        mustFail({"unpack", vonk, "--to", "back"}, 13, "cannot be used");
    }
    change(vonk, [&](QByteArray& content) { content = whole + '\0'; });
    mustFail({"check", vonk}, 13, "cannot be used");
    change(vonk, [](QByteArray& content) { content.clear(); });
    mustFail({"check", vonk}, 3, "it is no packed acquisition");
}

TEST_F(PackedFiles, ANewerFormatIsRefusedByItsNumber) {
    const QString vonk = bring("version2.vonk", kPackedDataDir);
    change(vonk, [](QByteArray& content) { content[16] = 3; });
    for (const QString command : {"check", "inspect", "upgrade"})
        mustFail({command, vonk}, 3, "3.0");
    mustFail({"unpack", vonk, "--to", "back"}, 3, "3.0");
}

TEST_F(PackedFiles, VersionOneIsReadAndUpgradedInPlace) {
    const QString vonk = bring("version1.vonk", kPackedDataDir);
    ASSERT_EQ(::chmod(QFile::encodeName(vonk).constData(), 0640), 0);
    const QByteArray old = Client::contentOf(vonk);
    client.mustRun({"check", "--full", vonk});
    EXPECT_EQ(client.mustRun({"--json", "inspect", vonk}).object()["format_version"], "1.0");
    client.mustRun({"unpack", vonk, "--to", "before"});

    const QJsonObject beside = client.mustRun({"--json", "upgrade", vonk, "-o", "new.vonk"}).object();
    EXPECT_EQ(beside["path"], client.path("new.vonk"));
    EXPECT_EQ(beside["outcome"], "upgraded");
    EXPECT_TRUE(Client::contentOf(vonk) == old);
    mustFail({"upgrade", vonk, "-o", "new.vonk"}, 4, "exists already");

    ASSERT_EQ(::symlink("version1.vonk", QFile::encodeName(client.path("link.vonk")).constData()), 0);
    const QJsonObject upgraded = client.mustRun({"--json", "upgrade", "link.vonk"}).object();
    EXPECT_EQ(upgraded["outcome"], "upgraded");
    EXPECT_EQ(upgraded["format_version_before"], "1.0");
    EXPECT_EQ(upgraded["format_version"], "2.0");
    EXPECT_TRUE(QFileInfo(client.path("link.vonk")).isSymLink());
    EXPECT_TRUE(Client::contentOf(vonk) == Client::contentOf(client.path("new.vonk")));
    struct stat info {};
    ASSERT_EQ(::stat(QFile::encodeName(vonk).constData(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, mode_t(0640));
    client.mustRun({"check", "--full", vonk});
    client.mustRun({"unpack", vonk, "--to", "after"});
    for (const char* name : {"scans.bin", "empty", "Überschrift.txt"})
        EXPECT_EQ(treeAt(client.path(QString("after/run1.raw/") + name)),
                  treeAt(client.path(QString("before/run1.raw/") + name)));

    const auto before = everything();
    EXPECT_EQ(client.mustRun({"--json", "upgrade", vonk}).object()["outcome"], "current");
    EXPECT_EQ(everything(), before);
    mustFail({"upgrade", vonk, "-o", "newer.vonk"}, 2, "nothing to upgrade");
}

TEST_F(PackedFiles, AnOldFileThatIsThereUpgradedIsUnchanged) {
    RealServer server;
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(client.login(server.url()));
    client.mustRun({"mkdir", "/raw"});
    const QString old = bring("version1.vonk", kPackedDataDir);
    const auto put = [&](const QString& ifExists) {
        return client.mustRun({"--json", "put", old, "--to", "/raw", "--if-exists", ifExists}).object();
    };
    EXPECT_EQ(put("fail")["outcome"], "uploaded");
    for (const char* const ifExists : {"fail", "new-version", "keep-both"})
        EXPECT_EQ(put(ifExists)["outcome"], "unchanged") << ifExists;
    client.mustRun({"upgrade", old});
    EXPECT_EQ(put("fail")["outcome"], "unchanged") << "the upgrade on this machine gives the same bytes";
    EXPECT_EQ(client.mustRun({"--json", "ls", "/raw"}).objects().size(), 1);
    EXPECT_EQ(client.mustRun({"--json", "info", "/raw/version1.vonk"}).object()["version"], 1);
}

TEST_F(PackedFiles, AnotherOldFileOfThatNameIsANewVersion) {
    RealServer server;
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(client.login(server.url()));
    client.mustRun({"mkdir", "/raw"});
    client.mustRun({"put", bring("version2.vonk", kPackedDataDir), "--to", "/raw"});
    const QString other = client.path("version2.vonk");
    ASSERT_TRUE(QFile::remove(other));
    ASSERT_TRUE(QFile::copy(kPackedDataDir + "/version1.vonk", other));
    const QStringList again{"--json", "put", other, "--to", "/raw", "--if-exists"};
    EXPECT_EQ(client.run(again + QStringList{"fail"}).exitCode, 4);
    const QJsonObject sent = client.mustRun(again + QStringList{"new-version"}).object();
    EXPECT_EQ(sent["outcome"], "uploaded");
    EXPECT_EQ(sent["version"], 2);
}

TEST_F(PackedFiles, ADamagedOldFileIsNotUpgradedAndStays) {
    const QString vonk = bring("version1.vonk", kPackedDataDir);
    change(vonk, [](QByteArray& content) { content[200] = char(content.at(200) ^ 8); });
    mustFail({"upgrade", vonk}, 13, "version1.vonk\" cannot be used");
    mustFail({"upgrade", vonk, "-o", "new.vonk"}, 13, "version1.vonk\" cannot be used");
}

// ---- what people see

TEST_F(PackedFiles, AnInspectionIsReadable) {
    bring("tiny.mzML");
    const QByteArray shown = client.mustRun({"inspect", "-l", packed("tiny.mzML")}).out;
    for (const char* line :
         {"kind            mzml\n", "content         1 file, 24.5 KiB\n", "format          2.0\n",
          "spectra         4: 3 of level 1, 1 of level 2\n", "m/z             142.390 to 1795.560\n",
          "retention time  42.050 to 359.430 s\n", "instrument      LCQ Deca\n", "  tiny.mzML\n"})
        EXPECT_THAT(std::string(shown), HasSubstr(line));
}

TEST_F(PackedFiles, ThePictureIsDrawnOfPackedAndOfRawData) {
    bring("tiny.mzML");
    const QString vonk = packed("tiny.mzML");
    const QJsonObject drawn = client.mustRun({"--json", "inspect", vonk, "--plot", "run.svg"}).object();
    EXPECT_EQ(drawn["plot"], client.path("run.svg"));
    EXPECT_EQ(drawn["run_summary"]["spectra"], 4);
    client.mustRun({"inspect", "tiny.mzML", "--plot", "raw.svg"});
    EXPECT_TRUE(Client::contentOf(client.path("raw.svg")) == Client::contentOf(client.path("run.svg")));
    client.mustRun({"inspect", vonk, "--plot", "run.PNG"});
    EXPECT_TRUE(Client::contentOf(client.path("run.PNG")).startsWith("\x89PNG\r\n"));
    EXPECT_EQ(client.filesIn(),
              (QStringList{"raw.svg", "run.PNG", "run.svg", "tiny.mzML", "tiny.mzML.vonk"}));
    mustFail({"inspect", vonk, "--plot", "run.pdf"}, 2, "--plot draws .svg and .png files");
}

TEST_F(PackedFiles, WithoutASummaryThereIsNoPictureAndTheReason) {
    file("run1.d/fid", "fid");
    file("run1.d/acqus", "acqus");
    const QString reason =
        client.mustRun({"--json", "inspect", "run1.d"}).object()["run_summary_absent"].toString();
    ASSERT_FALSE(reason.isEmpty());
    mustFail({"inspect", "run1.d", "--plot", "run.svg"}, 3, reason.toStdString());
    EXPECT_THAT(std::string(client.mustRun({"pack", "run1.d"}).out),
                HasSubstr("without a run summary: " + reason.toStdString()));
}

TEST_F(PackedFiles, QuietMeansQuiet) {
    bring("tiny.mzML");
    const Outcome checked = client.mustRun({"check", "--full", "-q", packed("tiny.mzML")});
    EXPECT_EQ(checked.out, "");
    EXPECT_EQ(checked.err, "");
}

TEST_F(PackedFiles, EveryCommandExplainsItself) {
    for (const QString command : {"pack", "unpack", "inspect", "check", "upgrade"}) {
        const QByteArray help = client.mustRun({command, "--help"}).out;
        EXPECT_THAT(std::string(help), HasSubstr("Examples:\n  halvane ")) << command.toStdString();
        EXPECT_EQ(client.run({command}).exitCode, 2);
        EXPECT_EQ(client.run({command, ""}).exitCode, 2);
    }
    mustFail({"unpack", "x.vonk"}, 2, "--to is required");
}

} // namespace
} // namespace orx::testing
