#include "PackingFixture.h"
#include "SmallWriter.h"
#include "TarStream.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QtEndian>

#include <atomic>
#include <functional>
#include <sys/stat.h>
#include <zstd.h>

using namespace orx;
using namespace orx::vonk;

namespace {

const char* const kData = VONK_TEST_DATA;

QString sample(int major) {
    return QStringLiteral("%1/version%2.vonk").arg(QString::fromLatin1(kData)).arg(major);
}

class Reading : public PackingFixture {
protected:
    QString put(const QByteArray& bytes) const {
        const QString path = out(QStringLiteral("run1.raw.vonk"));
        write(path, bytes);
        return path;
    }
    QString put(const SmallWriter& writer) const { return put(writer.bytes()); }

    //! Both checks and unpacking refuse what was written, and nothing is left.
    void expectRefusedQuickly(const SmallWriter& writer, const char* what) const {
        const QString path = put(writer);
        EXPECT_TRUE(checked(path, Vonk::Check::Quick).hasError()) << what;
        Vonk vonk(path);
        if (!vonk.open().hasError()) {
            EXPECT_TRUE(vonk.unpack(out(QStringLiteral("run1"))).hasError()) << what;
        }
        EXPECT_EQ(names(out()).size(), 1) << what;
    }
    void expectRefusedFully(const SmallWriter& writer, const char* what) const {
        const QString path = put(writer);
        const Error quick = checked(path, Vonk::Check::Quick);
        EXPECT_FALSE(quick.hasError()) << what << quick.errorMessage().toStdString();
        const Error full = checked(path, Vonk::Check::Full);
        EXPECT_TRUE(full.is(ErrorCode::ChecksumMismatch)) << what << full.errorMessage().toStdString();
        Vonk vonk(path);
        ASSERT_FALSE(vonk.open().hasError());
        EXPECT_TRUE(vonk.unpack(out(QStringLiteral("run1"))).is(ErrorCode::ChecksumMismatch)) << what;
        EXPECT_TRUE(vonk.upgrade(out(QStringLiteral("new.vonk"))).is(ErrorCode::ChecksumMismatch)) << what;
        EXPECT_EQ(names(out()).size(), 1) << what;
    }
};

class BothVersions : public Reading, public ::testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Version, BothVersions, ::testing::Values(1, 2));

// What a reader far from the file has to ask for, and what it knows then.
TEST_P(BothVersions, TheEndsOfAFileTellAllAboutIt) {
    SmallWriter writer(GetParam());
    writer.addFile(QStringLiteral("content/run1.raw"), noise(5'000));
    writer.finish();
    const QByteArray whole = writer.bytes();
    Vonk opened(put(whole));
    ASSERT_FALSE(opened.open().hasError());

    VonkEnds ends{whole.size(), {}, whole.right(100)};
    const auto withoutHead = Vonk::look(ends);
    ASSERT_TRUE(withoutHead);
    EXPECT_FALSE(withoutHead->metadata);
    EXPECT_EQ(withoutHead->missing, 0);

    ends.head = whole.left(VonkLook::headSize);
    const auto withoutManifest = Vonk::look(ends);
    ASSERT_TRUE(withoutManifest);
    EXPECT_FALSE(withoutManifest->metadata);
    // Where the manifest begins: the payload is not asked for.
    EXPECT_GT(withoutManifest->missing, 5'000);
    EXPECT_LT(withoutManifest->missing, whole.size() - 100);

    ends.tail = whole.mid(withoutManifest->missing);
    const auto complete = Vonk::look(ends);
    ASSERT_TRUE(complete);
    ASSERT_TRUE(complete->metadata);
    EXPECT_EQ(*complete->metadata, opened.metadata());
}

TEST_P(BothVersions, EndsThatLieAreRefused) {
    const QByteArray whole = smallSample(GetParam()).bytes();
    const auto look = [&](qint64 size, QByteArray bytes) { return Vonk::look({size, {}, std::move(bytes)}); };
    EXPECT_TRUE(look(whole.size(), whole)->metadata);
    EXPECT_TRUE(look(5, "plain").error().is(ErrorCode::ParseError));
    EXPECT_TRUE(look(whole.size() - 1, whole.chopped(1)).hasError());
    QByteArray damaged = whole;
    damaged[damaged.lastIndexOf("VONKMANI") + 30] = '!';
    EXPECT_TRUE(look(whole.size(), damaged).error().is(ErrorCode::ChecksumMismatch));
    SmallWriter escaping(GetParam());
    escaping.addFile(QStringLiteral("content/../../escaped"), "x");
    escaping.finish();
    EXPECT_TRUE(look(escaping.bytes().size(), escaping.bytes()).error().is(ErrorCode::InvalidArgument));
}

TEST_P(BothVersions, TheKeptFileIsReadAsEver) {
    Vonk vonk(sample(GetParam()));
    const Error error = vonk.open();
    ASSERT_FALSE(error.hasError()) << error.traceText().toStdString();
    EXPECT_FALSE(vonk.validate(Vonk::Check::Full).hasError());
    const VonkMetadata& metadata = vonk.metadata();
    EXPECT_EQ(metadata.formatVersion, QVersionNumber(GetParam(), 0));
    EXPECT_EQ(metadata.name, QStringLiteral("run1.raw"));
    EXPECT_EQ(metadata.sourceKind, QStringLiteral("test"));
    EXPECT_EQ(metadata.totalSize(), 3006);
    ASSERT_FALSE(vonk.unpack(out(QStringLiteral("run1"))).hasError());
    const QString content = out(QStringLiteral("run1/content/run1.raw/"));
    EXPECT_EQ(read(content + QStringLiteral("empty")), QByteArray());
    EXPECT_EQ(read(content + QStringLiteral("scans.bin")), QByteArray(3000, 's') + "end");
    EXPECT_EQ(read(content + QStringLiteral("Überschrift.txt")), "m/z");
    EXPECT_EQ(QFileInfo(content + QStringLiteral("scans.bin")).lastModified().toSecsSinceEpoch(),
              1'700'000'001);
    outputOf(QStringLiteral("zstd"), {QStringLiteral("-tq"), sample(GetParam())});
    EXPECT_EQ(
        outputOf(QStringLiteral("tar"), {QStringLiteral("--zstd"), QStringLiteral("-tf"), sample(GetParam())})
            .count(QLatin1Char('\n')),
        GetParam() == 1 ? 3 : 4);
}

TEST_P(BothVersions, WhatTheSmallWriterWritesIsRead) {
    const SmallWriter writer = smallSample(GetParam());
    const QString path = put(writer);
    const Error error = checked(path, Vonk::Check::Full);
    EXPECT_FALSE(error.hasError()) << error.traceText().toStdString();
    Vonk vonk(path);
    ASSERT_FALSE(vonk.open().hasError());
    EXPECT_EQ(vonk.metadata().entries, writer.entries);
}

TEST_F(Reading, ATruncationThatEndsAtAnInnerFooterIsFoundQuickly) {
    const QByteArray inner = smallSample(2).bytes();
    SmallWriter writer(2);
    writer.addFile(QStringLiteral("content/a.vonk"), noise(5000) + inner);
    writer.finish();
    // The inner file stands there as it is, as in a chunk that is stored.
    SmallWriter::Chunk& data = writer.chunks[1];
    data.frame =
        QByteArray::fromHex("28b52ffda0") + QByteArray(4, '\0') + QByteArray(3, '\0') + noise(5000) + inner;
    const QByteArray whole = writer.bytes();
    const qsizetype end = whole.indexOf(inner) + inner.size();
    ASSERT_GT(end, inner.size());
    EXPECT_TRUE(checked(put(whole.left(end)), Vonk::Check::Quick).hasError());
}

TEST_F(Reading, OfAFutureVersionSaysWhatToDo) {
    SmallWriter writer(3, 1);
    writer.addFile(QStringLiteral("content/a"), "x");
    writer.finish();
    const QString path = put(writer);
    const Error error = checked(path, Vonk::Check::Quick);
    EXPECT_TRUE(error.is(ErrorCode::ParseError));
    EXPECT_EQ(
        error.errorMessage(),
        QStringLiteral("\"%1\" cannot be used as a packed acquisition: it has the format version 3.1, and "
                       "this program reads versions up to 2; update it.")
            .arg(path));
    // Nothing behind the version is believed to have a known form.
    EXPECT_EQ(checked(put(writer.bytes().left(20) + "whatever"), Vonk::Check::Quick).errorMessage(),
              error.errorMessage());
}

TEST_F(Reading, OfALaterMinorVersionWorks) {
    SmallWriter writer(2, 7);
    writer.addFile(QStringLiteral("content/a"), "x");
    writer.finish();
    Vonk vonk(put(writer));
    ASSERT_FALSE(vonk.open().hasError());
    EXPECT_FALSE(vonk.validate(Vonk::Check::Full).hasError());
    EXPECT_EQ(vonk.metadata().formatVersion, QVersionNumber(2, 7));
}

TEST_F(Reading, OfAnotherFileSaysSo) {
    for (const QByteArray& bytes : {QByteArray(), QByteArray("mzML"), QByteArray(100'000, '\0'),
                                    QByteArray::fromHex("28b52ffd") + QByteArray(100, 'x')}) {
        const QString path = put(bytes);
        const Error error = checked(path, Vonk::Check::Quick);
        EXPECT_TRUE(error.is(ErrorCode::ParseError));
        EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("it is no packed acquisition")));
        EXPECT_TRUE(error.errorMessage().contains(path));
    }
    EXPECT_TRUE(checked(out(QStringLiteral("nothing")), Vonk::Check::Quick).is(ErrorCode::NotFound));
    EXPECT_TRUE(checked(out(), Vonk::Check::Quick).is(ErrorCode::FileNotReadable));
    Vonk closed(put(smallSample(2)));
    EXPECT_TRUE(closed.validate().is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(closed.unpack(out(QStringLiteral("x"))).is(ErrorCode::InvalidArgument));
    EXPECT_TRUE(closed.metadata().formatVersion.isNull());
}

TEST_F(Reading, OfVersionsThatDisagreeIsRefused) {
    for (const int major : {1, 2}) {
        SmallWriter writer = smallSample(major);
        writer.manifest.insert(major == 1 ? QStringLiteral("version") : QStringLiteral("format_version"),
                               QStringLiteral("%1.5").arg(major));
        expectRefusedQuickly(writer, "version");
    }
    SmallWriter none(0);
    none.addFile(QStringLiteral("content/a"), "x");
    none.finish();
    expectRefusedQuickly(none, "version 0");
}

struct Lie {
    const char* what;
    std::function<void(SmallWriter&)> tell;
};

const QList<Lie>& quickLies() {
    // Chunks of the small file, version 2: 0 head of the directory, 1 head of the empty file, 2 head of the
    // scans, 3 to 5 their data, 6 head of the text, 7 its data, 8 end.
    static const QList<Lie> lies{
        {"size of the file", [](SmallWriter& w) { w.sizeLie = 1; }},
        {"size of the file, huge", [](SmallWriter& w) { w.sizeLie = -qint64(1) << 62; }},
        {"place of the manifest", [](SmallWriter& w) { w.manifestOffsetLie = 1; }},
        {"place of the manifest, before the payload", [](SmallWriter& w) { w.manifestOffsetLie = -100'000; }},
        {"place of the manifest, huge", [](SmallWriter& w) { w.manifestOffsetLie = qint64(1) << 62; }},
        {"place of the table", [](SmallWriter& w) { w.tableOffsetLie = 16; }},
        {"place of the table, huge", [](SmallWriter& w) { w.tableOffsetLie = qint64(1) << 62; }},
        {"place of the table, before the manifest", [](SmallWriter& w) { w.tableOffsetLie = -100'000; }},
        {"number of chunks", [](SmallWriter& w) { w.countLie = 1; }},
        {"number of chunks, huge", [](SmallWriter& w) { w.countLie = qint64(1) << 62; }},
        {"frame of no bytes", [](SmallWriter& w) { w.chunks[3].frameSize = 0; }},
        {"frame one longer", [](SmallWriter& w) { ++w.chunks[3].frameSize; }},
        {"frame larger than its content may become",
         [](SmallWriter& w) {
             w.chunks[7].frameSize += 5000;
             w.chunks[7].frame += QByteArray(5000, '\0');
         }},
        {"content of no bytes", [](SmallWriter& w) { w.chunks[3].contentSize = 0; }},
        {"content one longer", [](SmallWriter& w) { ++w.chunks[3].contentSize; }},
        {"content huge", [](SmallWriter& w) { w.chunks[3].contentSize = 0xffffffff; }},
        {"head one longer", [](SmallWriter& w) { ++w.chunks[2].contentSize; }},
        {"head cut in two",
         [](SmallWriter& w) {
             const QByteArray head = tarHead(w.entries[0], 0);
             w.chunks[0] = SmallWriter::chunkOf(head.left(100));
             w.chunks.insert(1, SmallWriter::chunkOf(head.mid(100)));
         }},
        {"no end", [](SmallWriter& w) { w.chunks.removeLast(); }},
        {"two ends", [](SmallWriter& w) { w.chunks.append(w.chunks.last()); }},
        {"no chunks", [](SmallWriter& w) { w.chunks.clear(); }},
        {"missing data", [](SmallWriter& w) { w.chunks.removeAt(4); }},
        {"data of two files in one chunk",
         [](SmallWriter& w) {
             w.chunks[4] = SmallWriter::chunkOf(QByteArray(1500, 's') + "end" + QByteArray(100, '\0'));
             w.chunks.removeAt(5);
         }},
        {"no entries", [](SmallWriter& w) { w.manifest.insert(QStringLiteral("entries"), QJsonArray()); }},
        {"no manifest", [](SmallWriter& w) { w.manifest = {}; }},
    };
    return lies;
}

TEST_F(Reading, LiesAboutTheStructureAreFoundQuickly) {
    for (const Lie& lie : quickLies()) {
        SmallWriter writer = smallSample(2);
        lie.tell(writer);
        expectRefusedQuickly(writer, lie.what);
    }
}

TEST_F(Reading, LiesOfVersion1AreFoundQuickly) {
    const QString files = QStringLiteral("files");
    const QList<Lie> lies{
        {"place of the manifest", [](SmallWriter& w) { w.manifestOffsetLie = 1; }},
        {"place of the manifest, huge",
         [](SmallWriter& w) { w.manifestOffsetLie = std::numeric_limits<qint64>::max() - 1000; }},
        {"size of the manifest", [](SmallWriter& w) { w.sizeLie = 1; }},
        {"size of the manifest, huge", [](SmallWriter& w) { w.sizeLie = qint64(1) << 62; }},
        {"frame one longer", [](SmallWriter& w) { ++w.chunks[2].frameSize; }},
        {"content one longer", [](SmallWriter& w) { ++w.chunks[2].contentSize; }},
        {"no chunks", [](SmallWriter& w) { w.chunks.clear(); }},
        {"no files", [&](SmallWriter& w) { w.manifest.insert(files, QJsonArray()); }},
        {"files of another kind",
         [&](SmallWriter& w) {
             w.manifest.insert(files, QJsonArray{1, 2});
         }},
        {"no name", [](SmallWriter& w) { w.manifest.remove(QStringLiteral("name")); }},
    };
    for (const Lie& lie : lies) {
        SmallWriter writer = smallSample(1);
        lie.tell(writer);
        expectRefusedQuickly(writer, lie.what);
    }
}

SmallWriter::Chunk withFrame(SmallWriter::Chunk chunk, const QByteArray& frame) {
    SmallWriter::Chunk other = SmallWriter::chunkOf("x");
    other.frame = frame;
    other.frameSize = quint32(frame.size());
    other.contentSize = chunk.contentSize;
    return other;
}

TEST_F(Reading, LiesAboutTheDataAreFoundFully) {
    const QList<Lie> lies{
        {"frames that end elsewhere",
         [](SmallWriter& w) {
             ++w.chunks[3].frameSize;
             --w.chunks[4].frameSize;
         }},
        {"content longer than said",
         [](SmallWriter& w) {
             w.chunks[7] = withFrame(w.chunks[7], SmallWriter::chunkOf("m/z and more").frame);
         }},
        {"content shorter than said",
         [](SmallWriter& w) { w.chunks[7] = withFrame(w.chunks[7], SmallWriter::chunkOf("m").frame); }},
        {"other content of the same size", [](SmallWriter& w) { w.chunks[7] = SmallWriter::chunkOf("x/z"); }},
        {"two frames in one chunk",
         [](SmallWriter& w) {
             w.chunks[7] =
                 withFrame(w.chunks[7], SmallWriter::chunkOf("m/").frame + SmallWriter::chunkOf("z").frame);
         }},
        {"a skippable frame",
         [](SmallWriter& w) {
             w.chunks[7] = withFrame(w.chunks[7], QByteArray::fromHex("502a4d1803000000") + "m/z");
         }},
        {"no frame", [](SmallWriter& w) { w.chunks[7] = withFrame(w.chunks[7], "m/z"); }},
        {"a digest of something else", [](SmallWriter& w) { w.chunks[7].digest ^= 1; }},
        {"a link in the archive",
         [](SmallWriter& w) {
             QByteArray head = tarHead(w.entries[2], 0);
             head[156] = '2';
             w.chunks[2] = SmallWriter::chunkOf(head);
         }},
        {"another name in the archive",
         [](SmallWriter& w) {
             VonkEntry other = w.entries[2];
             other.path.replace(QStringLiteral("scans"), QStringLiteral("spans"));
             w.chunks[2] = SmallWriter::chunkOf(tarHead(other, 0));
         }},
        {"something behind the end",
         [](SmallWriter& w) {
             QByteArray end = tarEnd(3);
             end[end.size() - 1] = 'x';
             w.chunks[8] = SmallWriter::chunkOf(end);
         }},
        {"the digest of a file", [](SmallWriter& w) { w.entries[2].sha256 = sha256Hex("other"); }},
        {"the digest of an empty file", [](SmallWriter& w) { w.entries[1].sha256 = sha256Hex("other"); }},
    };
    for (const Lie& lie : lies) {
        SmallWriter writer = smallSample(2);
        lie.tell(writer);
        VonkMetadata metadata = *VonkMetadata::fromJson(writer.manifest);
        metadata.entries = writer.entries;
        writer.manifest = metadata.toJson();
        // The digests of the frames are right, so that only what is in them gives them away.
        for (SmallWriter::Chunk& chunk : writer.chunks) {
            if (chunk.frameSize == quint32(chunk.frame.size()) &&
                !QByteArray(lie.what).startsWith("a digest"))
                chunk.digest = digestOf(chunk.frame);
        }
        expectRefusedFully(writer, lie.what);
    }
}

TEST_F(Reading, AFrameThatWouldGrowWithoutBoundIsNotDecoded) {
    // A gigabyte of zeros in 32 KiB, where the table promises 1 MiB.
    QByteArray bomb(100'000, '\0');
    const QByteArray zeros(1 << 20, '\0');
    const std::unique_ptr<ZSTD_CStream, size_t (*)(ZSTD_CStream*)> stream(ZSTD_createCStream(),
                                                                          &ZSTD_freeCStream);
    ZSTD_initCStream(stream.get(), 1);
    ZSTD_outBuffer to{bomb.data(), size_t(bomb.size()), 0};
    for (int i = 0; i < 1024; ++i) {
        ZSTD_inBuffer from{zeros.constData(), size_t(zeros.size()), 0};
        ASSERT_FALSE(ZSTD_isError(ZSTD_compressStream(stream.get(), &to, &from)));
    }
    ASSERT_EQ(ZSTD_endStream(stream.get(), &to), 0U);
    bomb.truncate(qsizetype(to.pos));
    SmallWriter writer(2);
    writer.addFile(QStringLiteral("content/a"), zeros);
    writer.finish();
    writer.chunks[1] = withFrame(writer.chunks[1], bomb);
    writer.chunks[1].digest = digestOf(bomb);
    expectRefusedFully(writer, "bomb");
}

TEST_F(Reading, PathsThatLeadElsewhereAreRefusedQuickly) {
    for (const QString& path :
         {u"content/../../evil"_qs, u"/etc/evil"_qs, u"../evil"_qs, u"evil"_qs, u"content/a/../b"_qs,
          u"content/C:\\evil"_qs, u"content/c:evil"_qs, u"content/a\\..\\evil"_qs, u"content/a\nb"_qs,
          u"content//evil"_qs, u"content/evil/"_qs, u"content"_qs}) {
        for (const int major : {1, 2}) {
            SmallWriter writer(major);
            writer.addFile(path, "evil");
            writer.finish();
            expectRefusedQuickly(writer, qPrintable(path));
        }
    }
    for (const QString& second : {u"content/a"_qs, u"content/A"_qs, u"content/a/b"_qs}) {
        SmallWriter writer(2);
        writer.addFile(QStringLiteral("content/a"), "1");
        writer.addFile(second, "2");
        writer.finish();
        expectRefusedQuickly(writer, qPrintable(second));
    }
}

TEST_F(Reading, UnpackingNeverWritesThroughLinks) {
    // Whoever plants a link where the data would go gets an error, and nothing behind the link.
    Vonk vonk(put(smallSample(2)));
    ASSERT_FALSE(vonk.open().hasError());
    ASSERT_TRUE(QDir().mkpath(in(QStringLiteral("elsewhere"))));
    ASSERT_TRUE(QFile::link(in(QStringLiteral("elsewhere")), out(QStringLiteral("run1"))));
    EXPECT_TRUE(vonk.unpack(out(QStringLiteral("run1"))).is(ErrorCode::AlreadyExists));
    EXPECT_EQ(names(in(QStringLiteral("elsewhere"))), QStringList());
}

TEST_F(Reading, UnpackingNeverReplacesWhatIsThere) {
    Vonk vonk(put(smallSample(2)));
    ASSERT_FALSE(vonk.open().hasError());
    write(out(QStringLiteral("run1/precious")), "x");
    EXPECT_TRUE(vonk.unpack(out(QStringLiteral("run1"))).is(ErrorCode::AlreadyExists));
    EXPECT_EQ(names(out(QStringLiteral("run1"))), QStringList{QStringLiteral("precious")});
    WorkWatch watch;
    watch.progress = [this](qint64, qint64) { write(out(QStringLiteral("run2")), "precious"); };
    EXPECT_TRUE(vonk.unpack(out(QStringLiteral("run2")), watch).is(ErrorCode::AlreadyExists));
    EXPECT_EQ(read(out(QStringLiteral("run2"))), "precious");
    EXPECT_EQ(names(out()).size(), 3);
}

TEST_F(Reading, CancelledAnywhereUnpackingAndUpgradingLeaveNothing) {
    pack(makeAcquisition(), out(QStringLiteral("a.vonk")));
    Vonk vonk(out(QStringLiteral("a.vonk")));
    ASSERT_FALSE(vonk.open().hasError());
    bool wasCanceled = true;
    for (int last = 0; wasCanceled; ++last) {
        std::atomic<int> left = last;
        WorkWatch watch;
        watch.isCanceled = [&] { return left-- <= 0; };
        const Error error = vonk.unpack(out(QStringLiteral("a")), watch);
        wasCanceled = error.hasError();
        if (!wasCanceled)
            break;
        EXPECT_TRUE(error.isCanceled());
        left = last;
        EXPECT_TRUE(vonk.upgrade(out(QStringLiteral("b.vonk")), watch).isCanceled());
        left = last;
        EXPECT_TRUE(vonk.validate(Vonk::Check::Full, watch).isCanceled());
        EXPECT_EQ(names(out()), QStringList{QStringLiteral("a.vonk")}) << last;
    }
    EXPECT_EQ(tree(out(QStringLiteral("a/content"))), tree(in()));
}

TEST_F(Reading, GoesOnWhenTheFileIsRemoved) {
    const QString path = put(smallSample(2));
    Vonk vonk(path);
    ASSERT_FALSE(vonk.open().hasError());
    ASSERT_TRUE(QFile::remove(path));
    ASSERT_FALSE(vonk.unpack(out(QStringLiteral("run1"))).hasError());
    EXPECT_EQ(read(out(QStringLiteral("run1/content/run1.raw/Überschrift.txt"))), "m/z");
}

TEST_F(Reading, OfAFileThatIsCutMeanwhileIsAnError) {
    const QString path = put(smallSample(2));
    Vonk vonk(path);
    ASSERT_FALSE(vonk.open().hasError());
    ASSERT_TRUE(QFile::resize(path, 100));
    EXPECT_TRUE(vonk.validate(Vonk::Check::Full).is(ErrorCode::FileChanged));
}

TEST_F(Reading, AnUpgradedFileIsOfTheCurrentVersionWithTheSameData) {
    Vonk old(sample(1));
    ASSERT_FALSE(old.open().hasError());
    const QString path = out(QStringLiteral("new.vonk"));
    const Error error = old.upgrade(path);
    ASSERT_FALSE(error.hasError()) << error.traceText().toStdString();
    EXPECT_FALSE(checked(path, Vonk::Check::Full).hasError());
    Vonk upgraded(path);
    ASSERT_FALSE(upgraded.open().hasError());
    VonkMetadata expected = old.metadata();
    expected.formatVersion = vonkVersion();
    EXPECT_EQ(upgraded.metadata(), expected);
    // The compressed data is the same, byte by byte.
    const QByteArray before = read(sample(1));
    const qint64 end = qFromLittleEndian<qint64>(before.constData() + 24);
    EXPECT_EQ(read(path).mid(32, end - 72), before.mid(72, end - 72));
    ASSERT_FALSE(old.unpack(out(QStringLiteral("before"))).hasError());
    ASSERT_FALSE(upgraded.unpack(out(QStringLiteral("after"))).hasError());
    EXPECT_EQ(tree(out(QStringLiteral("after")), Times::OfFiles),
              tree(out(QStringLiteral("before")), Times::OfFiles));
    EXPECT_EQ(names(out()).size(), 3);
}

TEST_F(Reading, AnUpgradeNeverReplacesWhatIsThere) {
    Vonk old(sample(1));
    ASSERT_FALSE(old.open().hasError());
    write(out(QStringLiteral("new.vonk")), "precious");
    EXPECT_TRUE(old.upgrade(out(QStringLiteral("new.vonk"))).is(ErrorCode::AlreadyExists));
    EXPECT_EQ(read(out(QStringLiteral("new.vonk"))), "precious");
}

} // namespace
