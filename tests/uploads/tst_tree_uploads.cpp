// Whole trees go up to the real server: everything is there once, as it is here.
#include "TreeUploads.h"

#include <HalvaneError.h>
#include <UploadFileInputValidation.h>
#include <Vonk.h>

#include <QSet>

namespace orx::testing {
namespace {

class WholeTree : public TreeUploads {
protected:
    WholeTree() {
        UploadFilters filters;
        filters.quietTime = std::chrono::milliseconds(0); // what the test made a moment ago is at rest
        UploadFileInputValidation::setFilters(filters);
    }
    ~WholeTree() override { UploadFileInputValidation::setFilters(UploadFilters()); }

    void copy(const char* from, const QString& below) const {
        EXPECT_TRUE(QDir().mkpath(QFileInfo(local(below)).path()));
        EXPECT_TRUE(QFile::copy(QString::fromUtf8(from), local(below))) << from;
    }
    //! What is in the packed acquisition that the server has: paths below "content" and their bytes.
    QMap<QString, QByteArray> unpacked(const Uploaded& file) const {
        const QTemporaryDir dir;
        QFile packed(dir.filePath(text("packed.vonk")));
        EXPECT_TRUE(packed.open(QIODevice::WriteOnly));
        packed.write(download(file));
        packed.close();
        vonk::Vonk vonk(packed.fileName());
        EXPECT_FALSE(vonk.open().hasError());
        EXPECT_FALSE(vonk.validate(vonk::Vonk::Check::Full).hasError());
        EXPECT_FALSE(vonk.unpack(dir.filePath(text("out"))).hasError());
        return files(dir.filePath(text("out/content")));
    }
    static QMap<QString, QByteArray> files(const QString& below) {
        QMap<QString, QByteArray> found;
        const QFileInfoList entries = QDir(below).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot);
        for (const QFileInfo& entry : entries) {
            if (!entry.isDir()) {
                found.insert(entry.fileName(), contentOf(entry.filePath()));
                continue;
            }
            const auto inner = files(entry.filePath());
            for (auto it = inner.begin(); it != inner.end(); ++it)
                found.insert(entry.fileName() + u'/' + it.key(), *it);
        }
        return found;
    }
};

TEST_F(WholeTree, OfAllKindsAndTwelveLevelsIsThereAsItIsHere) {
    QString directory;
    for (int level = 1; level <= 12; ++level) {
        directory += text("level %1/").arg(level);
        put(directory + text("a.bin"), level * 300);
        put(directory + text("b.bin"), level);
    }
    put(text("empty.bin"), QByteArray());
    put(text("whole chunks.bin"), 5 * ChunkSize);
    put(text("mu\xcc\x88nster \xf0\x9f\xa7\xaa (1).txt"), "decomposed, and a test tube");
    put(text("no extension "), "a trailing blank");
    EXPECT_TRUE(QDir().mkpath(local(text("nothing in it"))));
    auto there = expected();
    copy(VONK_TEST_DATA "/version2.vonk", text("level 1/packed.vonk"));
    there.insert(text("raw/level 1/packed.vonk"), expected().value(text("raw/level 1/packed.vonk")));
    copy(MS_TEST_DATA "/small.mgf", text("level 1/level 2/run.mgf"));
    copy(MS_TEST_DATA "/sqlite-frames.d/analysis.tdf", text("runs/night.d/analysis.tdf"));
    copy(MS_TEST_DATA "/sqlite-frames.d/analysis.tdf_bin", text("runs/night.d/analysis.tdf_bin"));
    there.insert(text("raw/runs/"), QString());

    const auto task = upload();
    const Error error = run(*task);
    ASSERT_FALSE(error.hasError()) << qPrintable(error.traceText());
    auto tree = onServer();
    const QString mgf = text("raw/level 1/level 2/run.mgf.vonk");
    const QString frames = text("raw/runs/night.d.vonk");
    ASSERT_TRUE(tree.contains(mgf) && tree.contains(frames));
    EXPECT_EQ(unpacked(tree.value(mgf)),
              (QMap<QString, QByteArray>{{text("run.mgf"), contentOf(text(MS_TEST_DATA "/small.mgf"))}}));
    QMap<QString, QByteArray> night;
    for (const char* inner : {"analysis.tdf", "analysis.tdf_bin"})
        night.insert(text("night.d/") + text(inner),
                     contentOf(text(MS_TEST_DATA "/sqlite-frames.d/") + text(inner)));
    EXPECT_EQ(unpacked(tree.value(frames)), night);

    const QSet<QString> packedHere{mgf, frames};
    for (auto it = tree.begin(); it != tree.end(); ++it) {
        EXPECT_LE(it->version, 1);
        if (it->version == 1 && !packedHere.contains(it.key())) {
            EXPECT_EQ(download(*it), contentOf(QDir(client->workDir()).filePath(it.key())))
                << qPrintable(it.key());
        }
    }
    tree.remove(mgf);
    tree.remove(frames);
    EXPECT_EQ(contents(tree), there);
    constexpr int files = 2 * 12 + 4 + 3;
    EXPECT_EQ(task->finishedTaskCounts(), (FinishedTaskCounts{files, 0, 0}));
    EXPECT_EQ(uploadedBy(*task).size(), files);
    EXPECT_EQ(started.size(), files);
    EXPECT_EQ(task->currentProgress(), task->maxProgress());
}

TEST_F(WholeTree, ASecondRunThatLeavesAloneWhatIsThereSendsNothing) {
    put(text("a.bin"), 2'500);
    put(text("sub/b.bin"), 2'500);
    copy(MS_TEST_DATA "/small.mgf", text("sub/run.mgf"));
    ASSERT_FALSE(run(*upload()).hasError());
    const auto before = contents(onServer());
    const int sent = requests("POST", "") + requests("PUT", "");
    const auto again = upload(DuplicateUploadAnswer::Skip);
    EXPECT_FALSE(run(*again).hasError());
    EXPECT_EQ(requests("POST", "") + requests("PUT", ""), sent);
    EXPECT_EQ(contents(onServer()), before);
    EXPECT_EQ(again->finishedTaskCounts(), (FinishedTaskCounts{0, 0, 0}));
    EXPECT_EQ(uploadedBy(*again).size(), 0);
}

TEST_F(WholeTree, ASecondRunMayMakeVersionsOrKeepBoth) {
    put(text("a.bin"), "first");
    put(text("sub/b"), "first");
    ASSERT_FALSE(run(*upload()).hasError());
    put(text("a.bin"), "second");
    put(text("sub/b"), "second");
    ASSERT_FALSE(run(*upload(DuplicateUploadAnswer::NewVersion)).hasError());
    auto tree = onServer();
    EXPECT_EQ(contents(tree), expected());
    EXPECT_EQ(tree.value(text("raw/a.bin")).version, 2);
    EXPECT_EQ(tree.value(text("raw/sub/b")).version, 2);
    put(text("a.bin"), "third");
    put(text("sub/b"), "third");
    ASSERT_FALSE(run(*upload(DuplicateUploadAnswer::KeepBoth)).hasError());
    tree = onServer();
    EXPECT_EQ(tree.size(), 2 + 4);
    EXPECT_EQ(download(tree.value(text("raw/a.bin"))), "second");
    QByteArrayList contents;
    for (const Uploaded& item : tree)
        if (item.version == 1)
            contents.append(download(item));
    EXPECT_EQ(contents, (QByteArrayList{"third", "third"}));
}

TEST_F(WholeTree, WhatFailedGoesUpByARetryWhenItsCauseIsGone) {
    const int raw = makeFolder(text("raw"));
    const int closed = makeFolder(text("closed"), raw);
    server.admin({text("group"), text("add"), text("--name"), text("lab")});
    server.admin({text("user"), text("add"), text("--name"), text("ben"), text("--group"), text("lab"),
                  text("--password-stdin")},
                 "the password\n");
    const auto grant = [this](int folder, const char* privileges) {
        server.admin({text("grant"), text("--folder"), QString::number(folder), text("--group"), text("lab"),
                      text("--privileges"), text(privileges)});
    };
    grant(raw, "1,2,3");
    grant(closed, "1");
    ASSERT_TRUE(client->login(text("ben"), text("the password")));
    put(text("a.bin"), 1'500);
    const QStringList refused{put(text("closed/b.bin"), 2'500), put(text("closed/c.bin"), 10)};
    put(text("open/d.bin"), 10);

    const auto task = upload();
    EXPECT_TRUE(isHalvaneError(run(*task), HalvaneServerErrorCode::NoPrivilege));
    EXPECT_EQ(failed.keys(), refused);
    for (const Error& error : failed)
        EXPECT_TRUE(isHalvaneError(error, HalvaneServerErrorCode::NoPrivilege));
    expectAllAccountedFor(*task);
    EXPECT_EQ(task->currentProgress(), 2 * 102);

    grant(closed, "1,2");
    for (const QString& path : refused)
        ASSERT_FALSE(task->retry(path).hasError());
    const Error error = task->waitForFinished();
    EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
    awaitIdle(*task);
    EXPECT_EQ(task->finishedTaskCounts(), (FinishedTaskCounts{4, 0, 0}));
    EXPECT_EQ(task->currentProgress(), task->maxProgress());
    const auto tree = onServer();
    EXPECT_EQ(contents(onServer()), expected());
    EXPECT_EQ(tree.value(text("raw/closed/b.bin")).version, 1);
}

} // namespace
} // namespace orx::testing
