// Packed acquisitions of a folder come down unpacked.
#include "DownloadFolderFixture.h"
#include "HalvaneDownloadFileTask.h"

#include <VonkPacker.h>

#include <QRandomGenerator>

using namespace orx;
using namespace orx::testing;

namespace {

QString u8(const char* text) {
    return QString::fromUtf8(text);
}

QByteArray noise(int seed, qsizetype size) {
    QByteArray content(size, Qt::Uninitialized);
    QRandomGenerator generator{quint32(seed)};
    generator.generate(content.begin(), content.end());
    return content;
}

class DownloadOfPacked : public DownloadFolderTaskTest {
protected:
    //! The packed file of a file `run.raw`.
    QByteArray packed(const QByteArray& content) const {
        const QTemporaryDir dir;
        vonk::PackInput input;
        input.path = dir.filePath(u8("run.raw"));
        QFile raw(input.path);
        EXPECT_TRUE(raw.open(QIODevice::WriteOnly) && raw.write(content) == content.size());
        raw.close();
        const QString path = dir.filePath(u8("run.vonk"));
        EXPECT_TRUE(vonk::VonkPacker::pack(input, path));
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        return file.readAll();
    }
    static QByteArray contentOf(const QString& path) {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    QByteArray unpacked(const QString& name) const {
        return contentOf(at(u8("raw/") + name + u8("/content/run.raw")));
    }
    void put(const QString& relative, const QByteArray& content) const {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(at(relative)).path()));
        QFile added(at(relative));
        ASSERT_TRUE(added.open(QIODevice::WriteOnly));
        ASSERT_EQ(added.write(content), content.size());
    }
    std::unique_ptr<HalvaneDownloadFolderTask> mirror(int id) const {
        auto task = download(id);
        task->setMirroring();
        return task;
    }
    QStringList inRaw() const {
        return QDir(at(u8("raw"))).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    }
    //! Requests for content that are not for the ends of a file.
    int wholeFetches() const {
        const auto requests = server.requests();
        return int(std::count_if(requests.begin(), requests.end(), [](const ScriptedRequest& request) {
            const QByteArray range = request.header("Range");
            return request.path.endsWith(u8("/content")) && range != "bytes=-262144" &&
                   range != "bytes=0-127";
        }));
    }
};

} // namespace

TEST_F(DownloadOfPacked, ManyInOneFolderEachGetTheirOwnContent) {
    constexpr int count = 20;
    const int raw = folder(u8("raw"));
    QStringList names;
    for (int i = 0; i < count; ++i) {
        names.append(u8("run%1.vonk").arg(i, 2, 10, QChar(u'0')));
        file(names.last(), packed(noise(i, 20'000 + i)), raw);
    }
    ASSERT_TRUE(succeeded(run(*download(raw))));
    EXPECT_EQ(inRaw(), names) << "and nothing besides";
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(unpacked(names[i]), noise(i, 20'000 + i)) << i;
}

TEST_F(DownloadOfPacked, TwinsOfOneNameLieBesideEachOther) {
    const int raw = folder(u8("raw"));
    file(u8("run.vonk"), packed("first"), raw);
    const int twin = file(u8("run.vonk"), packed("second"), raw);
    ASSERT_TRUE(succeeded(run(*download(raw))));
    EXPECT_EQ(inRaw().size(), 2);
    EXPECT_EQ(unpacked(u8("run.vonk")), "first");
    EXPECT_EQ(unpacked(u8("run (file %1).vonk").arg(twin)), "second");
}

TEST_F(DownloadOfPacked, WhatIsAtTheTargetStaysUnlessThePolicyLetsItGo) {
    const int raw = folder(u8("raw"));
    file(u8("a.vonk"), packed("first"), raw);
    file(u8("b.vonk"), packed("second"), raw);
    put(u8("raw/a.vonk/mine/notes.txt"), "years of work");
    put(u8("raw/b.vonk"), "a file of mine");
    const QStringList before = tree();
    for (const auto policy :
         {std::optional<DuplicateDownloadPolicy>(), std::optional(DuplicateDownloadPolicy::Skip),
          std::optional(DuplicateDownloadPolicy::Rename)}) {
        const auto task = download(raw);
        task->setDuplicatePolicy(policy);
        const Error error = run(*task);
        EXPECT_TRUE(error.is(ErrorCode::AlreadyExists)) << qPrintable(error.errorMessage());
        EXPECT_EQ(task->failures().size(), 2);
        EXPECT_EQ(tree(), before);
    }
    EXPECT_EQ(wholeFetches(), 0);
}

TEST_F(DownloadOfPacked, OverwritingReplacesAFileButNoDirectoryThatDiffers) {
    const int raw = folder(u8("raw"));
    file(u8("a.vonk"), packed("first"), raw);
    file(u8("b.vonk"), packed("second"), raw);
    file(u8("c.vonk"), packed("third"), raw);
    put(u8("raw/a.vonk"), "a file");
    put(u8("raw/b.vonk/content/run.raw"), "second");
    put(u8("raw/b.vonk/content/result.txt"), "years of work");
    put(u8("raw/c.vonk/content/run.raw"), "third");
    const auto task = download(raw);
    task->setDuplicatePolicy(DuplicateDownloadPolicy::Overwrite);
    const Error error = run(*task);
    EXPECT_TRUE(error.is(ErrorCode::AlreadyExists)) << qPrintable(error.errorMessage());
    ASSERT_EQ(task->failures().size(), 1);
    EXPECT_EQ(task->failures().first().path, u8("raw/b.vonk"));
    EXPECT_EQ(tree(),
              (QStringList{u8("raw/"), u8("raw/a.vonk/"), u8("raw/a.vonk/content/"),
                           u8("raw/a.vonk/content/run.raw=first"), u8("raw/b.vonk/"),
                           u8("raw/b.vonk/content/"), u8("raw/b.vonk/content/result.txt=years of work"),
                           u8("raw/b.vonk/content/run.raw=second"), u8("raw/c.vonk/"),
                           u8("raw/c.vonk/content/"), u8("raw/c.vonk/content/run.raw=third")}));
    EXPECT_EQ(wholeFetches(), 1) << "of the one that replaced the file";
}

TEST_F(DownloadOfPacked, AMirrorFetchesOnlyTheOnesThatChanged) {
    constexpr qsizetype size = 1'000'000;
    const int raw = folder(u8("raw"));
    file(u8("same.vonk"), packed(noise(1, size)), raw);
    const int changing = file(u8("changing.vonk"), packed(noise(2, size)), raw);
    file(u8("damaged.vonk"), packed(noise(3, size)), raw);
    file(u8("more.vonk"), packed(noise(4, size)), raw);
    ASSERT_TRUE(succeeded(run(*mirror(raw))));
    EXPECT_EQ(unpacked(u8("same.vonk")), noise(1, size));
    EXPECT_EQ(wholeFetches(), 4);

    server.clearLog();
    ASSERT_TRUE(succeeded(run(*mirror(raw))));
    EXPECT_EQ(wholeFetches(), 0);
    EXPECT_EQ(unpacked(u8("same.vonk")), noise(1, size)) << "what it holds is listed nowhere, and stays";

    server.service().addVersion(changing, packed(noise(5, size)));
    put(u8("raw/damaged.vonk/content/run.raw"), noise(6, size));
    put(u8("raw/more.vonk/content/another.raw"), "more");
    ASSERT_TRUE(succeeded(run(*mirror(raw))));
    EXPECT_EQ(wholeFetches(), 3);
    EXPECT_EQ(unpacked(u8("same.vonk")), noise(1, size));
    EXPECT_EQ(unpacked(u8("changing.vonk")), noise(5, size));
    EXPECT_EQ(unpacked(u8("damaged.vonk")), noise(3, size));
    EXPECT_FALSE(QFileInfo::exists(at(u8("raw/more.vonk/content/another.raw"))));
    EXPECT_EQ(inRaw().size(), 4);
}

TEST_F(DownloadOfPacked, AMirrorTakesFilesForDirectoriesAndTheOtherWayRound) {
    const int raw = folder(u8("raw"));
    const int id = file(u8("run.vonk"), "nothing packed", raw);
    ASSERT_TRUE(succeeded(run(*mirror(raw))));
    EXPECT_EQ(tree(), (QStringList{u8("raw/"), u8("raw/run.vonk=nothing packed")}));
    server.clearLog();
    const auto again = mirror(raw);
    ASSERT_TRUE(succeeded(run(*again)));
    EXPECT_FALSE(again->error().warnings().isEmpty());
    EXPECT_EQ(tree(), (QStringList{u8("raw/"), u8("raw/run.vonk=nothing packed")}));
    EXPECT_EQ(wholeFetches(), 0);

    server.service().addVersion(id, packed("by now"));
    ASSERT_TRUE(succeeded(run(*mirror(raw))));
    EXPECT_EQ(tree(), (QStringList{u8("raw/"), u8("raw/run.vonk/"), u8("raw/run.vonk/content/"),
                                   u8("raw/run.vonk/content/run.raw=by now")}));
    server.service().addVersion(id, "and now not");
    ASSERT_TRUE(succeeded(run(*mirror(raw))));
    EXPECT_EQ(tree(), (QStringList{u8("raw/"), u8("raw/run.vonk=and now not")}));
}

TEST_F(DownloadOfPacked, WhatAnInterruptedRunFetchedIsNotFetchedAgain) {
    const int raw = folder(u8("raw"));
    const QByteArray content = packed("the content");
    const int id = file(u8("run.vonk"), content, raw);
    put(u8("raw/.run.vonk.halvane-packed-%1-1").arg(id), content);
    put(u8("raw/.run.vonk.halvane-unpacked-%1-1/content/half").arg(id), "half of it");
    ASSERT_TRUE(succeeded(run(*download(raw))));
    EXPECT_EQ(wholeFetches(), 0);
    EXPECT_EQ(tree(), (QStringList{u8("raw/"), u8("raw/run.vonk/"), u8("raw/run.vonk/content/"),
                                   u8("raw/run.vonk/content/run.raw=the content")}));
}

// Its ends say that it is a packed acquisition.
TEST_F(DownloadOfPacked, ADamagedOneStaysAsTheFileThatItIsAndReplacesNoDirectory) {
    const int raw = folder(u8("raw"));
    QByteArray damaged = packed(noise(1, 1'000'000));
    damaged[500'000] = char(~damaged[500'000]);
    file(u8("run.vonk"), damaged, raw);
    const auto task = download(raw);
    ASSERT_TRUE(succeeded(run(*task)));
    EXPECT_FALSE(task->error().warnings().isEmpty());
    EXPECT_EQ(inRaw(), QStringList{u8("run.vonk")});
    EXPECT_EQ(contentOf(at(u8("raw/run.vonk"))), damaged);

    ASSERT_TRUE(QFile::remove(at(u8("raw/run.vonk"))));
    put(u8("raw/run.vonk/mine"), "years of work");
    const auto overwriting = download(raw);
    overwriting->setDuplicatePolicy(DuplicateDownloadPolicy::Overwrite);
    EXPECT_TRUE(run(*overwriting).is(ErrorCode::AlreadyExists));
    EXPECT_EQ(tree(), (QStringList{u8("raw/"), u8("raw/run.vonk/"), u8("raw/run.vonk/mine=years of work")}));
}

TEST_F(DownloadOfPacked, TheOneWhoOwnsTheDirectoryGetsWhatIsThereReplaced) {
    const int id = file(u8("run.vonk"), packed("the content"), folder(u8("raw")));
    put(u8("raw/other.vonk/content/half"), "left by an interrupted run");
    HalvaneFileDownloadParameters parameters;
    parameters.reference = *HalvaneFileResourceReference::create(id, 1, u8("run.vonk"));
    parameters.targetDir = QDir(at(u8("raw")));
    parameters.targetName = u8("other.vonk");
    ASSERT_TRUE(succeeded(run(*HalvaneDownloadFileTaskCreator::create(parameters))));
    EXPECT_EQ(inRaw(), QStringList{u8("other.vonk")});
    EXPECT_EQ(unpacked(u8("other.vonk")), "the content");
    EXPECT_FALSE(QFileInfo::exists(at(u8("raw/other.vonk/content/half"))));
}
