// The acquisitions of Debian's packages go up to a real server and come back on another machine, each alone
// and all in one tree: the same bytes, their companions included, by "cmp" and "diff" of this system.
#include "UploadTrees.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

namespace orx::testing {
namespace {

const QString kOpenMs = ORX_REAL_FILES_DIR "/openms-doc";
const QString kExamples = ORX_REAL_FILES_DIR "/r-cran-maldiquantforeign/exampledata";

struct Acquisition {
    QString path;
    QString companion;
    int spectra = 0; //!< 0: there is no summary
};

const QList<Acquisition> kAcquisitions{
    {kOpenMs + "/BSA1_F1.mzML", {}, 767},
    {kExamples + "/tiny1.mzML1.1.mzML", {}, 2},
    {kExamples + "/tiny1-centroided.mzML1.1.mzML", {}, 2},
    {kExamples + "/tiny1-compressed.mzML1.1.mzML", {}, 2},
    {kExamples + "/tiny1.mzXML3.0.mzXML", {}, 1},
    {kExamples + "/tiny1-centroided.mzXML3.0.mzXML", {}, 1},
    {kExamples + "/tiny1-compressed.mzXML3.0.mzXML", {}, 1},
    {kExamples + "/tiny_continuous.imzML", "tiny_continuous.ibd", 2},
    {kExamples + "/tiny_processed.imzML", "tiny_processed.ibd", 2},
    {kExamples + "/brukerflex/0_A1/1/1SLin", {}},
};

class RealFiles : public UploadTrees {
protected:
    void SetUp() override {
        UploadTrees::SetUp();
        ASSERT_TRUE(colleague.login(server.url()));
    }
    //! "diff -r", which compares files byte by byte, names nothing, and the files' times are the same.
    static void expectIdentical(const QString& source, const QString& copy) {
        QProcess diff;
        diff.setProcessChannelMode(QProcess::MergedChannels);
        diff.start("diff", {"-r", "--no-dereference", "--", source, copy});
        ASSERT_TRUE(diff.waitForFinished(-1));
        EXPECT_EQ(diff.exitCode(), 0) << diff.readAll().constData();
        EXPECT_EQ(timesAt(source), timesAt(copy)) << qPrintable(copy);
    }
    static QMap<QString, QDateTime> timesAt(const QString& path) {
        if (QFileInfo(path).isFile())
            return {{"", QFileInfo(path).lastModified()}};
        QMap<QString, QDateTime> times;
        QDirIterator files(path, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (files.hasNext()) {
            files.next();
            times.insert(QDir(path).relativeFilePath(files.filePath()), files.fileInfo().lastModified());
        }
        return times;
    }
    //! What the other machine has in \a directory, against the originals.
    void expectAcquisitionAt(const QString& directory, const Acquisition& acquisition) const {
        const QFileInfo source(acquisition.path);
        expectIdentical(source.filePath(), colleague.path(directory + '/' + source.fileName()));
        if (!acquisition.companion.isEmpty())
            expectIdentical(source.path() + '/' + acquisition.companion,
                            colleague.path(directory + '/' + acquisition.companion));
        EXPECT_EQ(colleague.filesIn(directory).size(), acquisition.companion.isEmpty() ? 1 : 2);
    }

    Client colleague;
};

TEST_F(RealFiles, EachGoesUpPackedAndComesBackIdentical) {
    for (const Acquisition& acquisition : kAcquisitions) {
        const QString name = QFileInfo(acquisition.path).fileName();
        SCOPED_TRACE(name.toStdString());
        const Outcome sent = put({acquisition.path, "--to", "/raw"});
        ASSERT_EQ(sent.exitCode, 0) << sent.err.constData();
        EXPECT_EQ(sent.object()["outcome"], "uploaded");
        EXPECT_EQ(sent.object()["name"], name + ".vonk");

        const QString reference = "/raw/" + name + ".vonk";
        const QJsonObject stored = colleague.mustRun({"--json", "inspect", reference}).object();
        EXPECT_EQ(stored["run_summary"]["spectra"].toInt(), acquisition.spectra);
        EXPECT_EQ(stored["run_summary_absent"].toString().isEmpty(), acquisition.spectra > 0);

        ASSERT_TRUE(QDir().mkpath(colleague.path(name)));
        colleague.mustRun({"get", reference, "--to", name});
        expectAcquisitionAt(name, acquisition);

        const QString packed = name + ".vonk";
        colleague.mustRun({"get", reference, "--packed", "--to", packed});
        EXPECT_EQ(sha256Of(Client::contentOf(colleague.path(packed))), sent.object()["sha256"].toString());
        colleague.mustRun({"check", "--full", packed});
    }
}

// With everything else that lies in the packages' directories.
TEST_F(RealFiles, AllGoUpInOneTreeAndComeBackIdentical) {
    const QString tree = makeDirectory("tree");
    QProcess copy;
    copy.start("cp", {"-a", "--", kOpenMs, kExamples, tree});
    ASSERT_TRUE(copy.waitForFinished(-1) && copy.exitCode() == 0) << copy.readAllStandardError().constData();

    const Outcome sent = put({"tree", "--to", "/raw"});
    ASSERT_EQ(sent.exitCode, 0) << sent.err.constData();
    QStringList packed;
    for (const QString& line : onServer("/raw")) {
        if (line.endsWith(".vonk@1"))
            packed << line.section('/', -1).chopped(7);
    }
    QStringList acquisitions;
    for (const Acquisition& acquisition : kAcquisitions)
        acquisitions << QFileInfo(acquisition.path).fileName();
    packed.sort();
    acquisitions.sort();
    EXPECT_EQ(packed, acquisitions);

    colleague.mustRun({"get", "/raw/tree", "--to", "back"});
    expectIdentical(tree, colleague.path("back/tree"));
    const QList<QJsonObject> again = ofType(put({"tree", "--to", "/raw"}), "folder");
    ASSERT_EQ(again.size(), 1);
    EXPECT_EQ(again[0]["uploaded"], 0);
}

// Without being packed: a document and its companion are two files then.
TEST_F(RealFiles, FilesGoUpAsTheyAreAndComeBackIdentical) {
    QStringList sources;
    for (const Acquisition& acquisition : kAcquisitions) {
        const QFileInfo source(acquisition.path);
        if (source.isFile())
            sources << source.filePath();
        if (!acquisition.companion.isEmpty())
            sources << source.path() + '/' + acquisition.companion;
    }
    ASSERT_EQ(sources.size(), 11);
    const Outcome sent = put(sources + QStringList{"--to", "/raw", "--as-file"});
    ASSERT_EQ(sent.exitCode, 0) << sent.err.constData();
    colleague.mustRun({"get", "/raw", "--to", "back"});
    EXPECT_EQ(colleague.filesIn("back/raw").size(), sources.size());
    for (const QString& source : sources)
        expectIdentical(source, colleague.path("back/raw/" + QFileInfo(source).fileName()));
}

} // namespace
} // namespace orx::testing
