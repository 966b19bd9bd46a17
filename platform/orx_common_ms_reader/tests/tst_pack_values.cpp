#include "PackedPaths.h"
#include "PackedTime.h"
#include "SmallWriter.h"
#include "VonkMetadata.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

using namespace orx;
using namespace orx::vonk;

namespace {

VonkEntry file(const QString& path) {
    return {path, VonkEntry::Type::File, 1, {}, sha256Hex("x")};
}

VonkEntry directory(const QString& path) {
    return {path, VonkEntry::Type::Directory, 0, {}, {}};
}

VonkMetadata someMetadata() {
    VonkMetadata metadata;
    metadata.formatVersion = vonkVersion();
    metadata.name = QStringLiteral("run1.d");
    metadata.sourceKind = QStringLiteral("kind");
    metadata.entries = {directory(QStringLiteral("content/run1.d")),
                        file(QStringLiteral("content/run1.d/a"))};
    metadata.entries[1].modified = {-5, 250'000'000};
    metadata.runSummary = QJsonObject{{QStringLiteral("spectra"), 12}};
    return metadata;
}

TEST(PackedTime, HasOneTextForOneTime) {
    const QList<std::pair<PackedTime, const char*>> rows{
        {{0, 0}, "0"},
        {{1'700'000'000, 0}, "1700000000"},
        {{1'700'000'000, 250'000'000}, "1700000000.25"},
        {{1, 1}, "1.000000001"},
        {{-1, 0}, "-1"},
        {{-1, 500'000'000}, "-0.5"},
        {{-2, 750'000'000}, "-1.25"},
        {{999'999'999'999, 999'999'999}, "999999999999.999999999"},
    };
    for (const auto& [time, text] : rows) {
        EXPECT_EQ(time.toString().toStdString(), text);
        EXPECT_EQ(PackedTime::fromString(QString::fromLatin1(text)), time) << text;
    }
}

TEST(PackedTime, RefusesEveryOtherText) {
    for (const char* const text : {"", "-", "+1", " 1", "1 ", "01", "-0", "1.", ".5", "1.50", "1.0", "1e3",
                                   "1.0000000001", "1000000000000", "1,5", "1\n", "0x1"})
        EXPECT_FALSE(PackedTime::fromString(QString::fromLatin1(text))) << text;
}

TEST(PackedPaths, TakesWhatFileSystemsHold) {
    for (const QString& path : {u"content/a"_qs, u"content/run1.d/AcqData/MSScan.bin"_qs,
                                u"content/... /..a"_qs, u"content/ab:c"_qs, u"content/1:a"_qs,
                                u"content/\u00b5 \U0001F52C"_qs, u"content/"_qs + QString(255, u'x')})
        EXPECT_FALSE(checkEntryPath(path).hasError()) << path.toStdString();
}

TEST(PackedPaths, RefusesWhatLeadsElsewhereOrCannotBeMade) {
    for (const QString& path : {u""_qs,
                                u"content"_qs,
                                u"content/"_qs,
                                u"/content/a"_qs,
                                u"/etc/passwd"_qs,
                                u"other/a"_qs,
                                u"Content/a"_qs,
                                u"content/../a"_qs,
                                u"content/a/../../b"_qs,
                                u"content/.."_qs,
                                u"content/./a"_qs,
                                u"content//a"_qs,
                                u"content/a/"_qs,
                                u"content/a\\b"_qs,
                                u"content/..\\..\\b"_qs,
                                u"content/C:"_qs,
                                u"content/c:a"_qs,
                                u"content/a/d:b"_qs,
                                u"content/a\nb"_qs,
                                QStringLiteral("content/a\0b"),
                                u"content/a\u007fb"_qs,
                                u"content/a\u0085b"_qs,
                                u"content/"_qs + QChar(0xd800),
                                u"content/"_qs + QString(256, u'x'),
                                u"content/"_qs + QString(128, QChar(0x00e4)),
                                u"content"_qs + QString(u"/y"_qs).repeated(64),
                                u"content"_qs + (u'/' + QString(250, u'x')).repeated(17)}) {
        const Error error = checkEntryPath(path);
        EXPECT_TRUE(error.is(ErrorCode::InvalidArgument)) << path.toStdString();
    }
}

TEST(PackedPaths, RefusesPathsThatCannotLieBesideEachOther) {
    const QList<QList<VonkEntry>> rows{
        {},
        {file(u"content/a"_qs), file(u"content/a"_qs)},
        {file(u"content/a"_qs), file(u"content/A"_qs)},
        {directory(u"content/a"_qs), file(u"content/a"_qs)},
        {file(u"content/\u03c2"_qs), file(u"content/\u03a3"_qs)},
        {file(u"content/\u00e4"_qs), file(u"content/a\u0308"_qs)},
        {file(u"content/a"_qs), file(u"content/a/b"_qs)},
        {file(u"content/a/b"_qs), file(u"content/a"_qs)},
        {file(u"content/a"_qs), file(u"content/A/b"_qs)},
        {file(u"content/a/x"_qs), file(u"content/A/y"_qs)},
        {file(u"content/a/x"_qs), directory(u"content/A"_qs)},
    };
    for (const auto& entries : rows)
        EXPECT_TRUE(checkEntryPaths(entries).is(ErrorCode::InvalidArgument))
            << (entries.isEmpty() ? "none" : entries.last().path.toStdString());
    EXPECT_FALSE(
        checkEntryPaths({directory(u"content/a"_qs), file(u"content/a/b"_qs), file(u"content/ab"_qs)})
            .hasError());
    EXPECT_FALSE(checkEntryPaths({file(u"content/a/b"_qs), directory(u"content/a"_qs)}).hasError());
}

TEST(PackedPaths, OrderADirectoryBeforeItsContentAndThatBeforeItsNeighbours) {
    EXPECT_TRUE(entryComesBefore(file(u"content/a"_qs), file(u"content/a/z"_qs)));
    EXPECT_TRUE(entryComesBefore(file(u"content/a/z"_qs), file(u"content/a b"_qs)));
    EXPECT_TRUE(entryComesBefore(file(u"content/B"_qs), file(u"content/a"_qs)));
    EXPECT_FALSE(entryComesBefore(file(u"content/a"_qs), file(u"content/a"_qs)));
}

TEST(VonkMetadata, IsTheSameAfterItsJson) {
    VonkMetadata metadata = someMetadata();
    const auto again = VonkMetadata::fromJson(metadata.toJson());
    ASSERT_FALSE(again.hasError()) << again.errorMessage().toStdString();
    EXPECT_EQ(*again, metadata);
    metadata.runSummary.reset();
    metadata.runSummaryAbsent = QStringLiteral("no spectra");
    EXPECT_EQ(*VonkMetadata::fromJson(metadata.toJson()), metadata);
}

TEST(VonkMetadata, HasTheFormatVersionFirst) {
    EXPECT_EQ(someMetadata().formatVersion, QVersionNumber(2, 0));
    const QByteArray text = someMetadata().toText();
    EXPECT_TRUE(text.startsWith(R"({"format_version":"2.0","entries":[{)")) << text.toStdString();
    EXPECT_EQ(QJsonDocument::fromJson(text).object(), someMetadata().toJson());
}

TEST(VonkMetadata, SaysWhatIsInTheFile) {
    const QJsonObject json = someMetadata().toJson();
    EXPECT_EQ(
        QJsonDocument(json).toJson(QJsonDocument::Compact).toStdString(),
        R"({"entries":[{"modified":"0","path":"content/run1.d","type":"directory"},)"
        R"({"modified":"-4.75","path":"content/run1.d/a","sha256":)"
        R"("2d711642b726b04401627ca9fbac32f5c8530fb1903cc4db02258717921a4881","size":1,"type":"file"}],)"
        R"("format_version":"2.0","name":"run1.d","run_summary":{"spectra":12},"source_kind":"kind"})");
    EXPECT_EQ(someMetadata().totalSize(), 1);
}

TEST(VonkMetadata, NamesTheMemberThatIsWrong) {
    struct Row {
        const char* member;
        QJsonValue value;
        bool inEntry;
    };
    const QList<Row> rows{
        {"format_version", QJsonValue(2.0), false},
        {"format_version", QStringLiteral("two"), false},
        {"format_version", QStringLiteral("2.0-rc"), false},
        {"format_version", QString(), false},
        {"entries", QJsonObject(), false},
        {"name", QJsonValue(), false},
        {"source_kind", 1, false},
        {"run_summary", QStringLiteral("x"), false},
        {"run_summary_absent", 1, false},
        {"path", 1, true},
        {"type", QStringLiteral("link"), true},
        {"size", -1, true},
        {"size", 1.5, true},
        {"size", 1e300, true},
        {"size", qint64(1) << 50, true},
        {"size", QStringLiteral("1"), true},
        {"modified", QStringLiteral("yesterday"), true},
        {"modified", 5, true},
        {"sha256", QStringLiteral("abc"), true},
        {"sha256", QString(64, QLatin1Char('G')), true},
    };
    for (const Row& row : rows) {
        QJsonObject json = someMetadata().toJson();
        const QString member = QString::fromLatin1(row.member);
        if (row.inEntry) {
            QJsonArray entries = json[QStringLiteral("entries")].toArray();
            QJsonObject entry = entries[1].toObject();
            entry.insert(member, row.value);
            entries[1] = entry;
            json.insert(QStringLiteral("entries"), entries);
        } else {
            json.insert(member, row.value);
        }
        const auto metadata = VonkMetadata::fromJson(json);
        ASSERT_TRUE(metadata.hasError()) << row.member;
        EXPECT_TRUE(metadata.error().is(ErrorCode::ParseError)) << row.member;
        if (member != QLatin1String("format_version")) {
            EXPECT_TRUE(metadata.errorMessage().contains(member)) << metadata.errorMessage().toStdString();
        }
    }
}

TEST(VonkMetadata, IgnoresMembersOfLaterMinorVersions) {
    VonkMetadata metadata = someMetadata();
    QJsonObject json = metadata.toJson();
    json.insert(QStringLiteral("colour"), QStringLiteral("red"));
    EXPECT_EQ(*VonkMetadata::fromJson(json), metadata);
}

} // namespace
