#include <DownloadNames.h>

#include <QFile>

#include <gtest/gtest.h>

using namespace orx;

namespace {

class GoodNames : public testing::TestWithParam<const char*> {};

TEST_P(GoodNames, AreTakenAsTheyAre) {
    EXPECT_FALSE(DownloadNames::check(QString::fromUtf8(GetParam())).hasError());
}

INSTANTIATE_TEST_SUITE_P(Names, GoodNames,
                         testing::Values("a", ".hidden", "...", " trailing blank ", "back\\slash", "100%1%",
                                         "\xF0\x9F\xA7\xAA.mzML", "a\xCC\x81", "-rf", "new\nline"));

struct BadName {
    const char* what;
    QString name;
};

class BadNames : public testing::TestWithParam<BadName> {};

TEST_P(BadNames, AreInvalidArgumentsThatAreNamed) {
    const Error error = DownloadNames::check(GetParam().name);
    EXPECT_TRUE(error.is(ErrorCode::InvalidArgument)) << GetParam().what;
    EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("Give another name")));
    EXPECT_FALSE(error.errorMessage().contains(QStringLiteral("%1")));
}

INSTANTIATE_TEST_SUITE_P(Names, BadNames,
                         testing::Values(BadName{"empty", QString()}, BadName{"dot", QStringLiteral(".")},
                                         BadName{"dots", QStringLiteral("..")},
                                         BadName{"slash", QStringLiteral("../../etc/passwd")},
                                         BadName{"absolute", QStringLiteral("/etc/passwd")},
                                         BadName{"nul", QStringLiteral("a") + QChar(0) + QStringLiteral("b")},
                                         BadName{"bytes", QString(128, QChar(u'ä'))}));

TEST(DownloadNames, ALongNameIsCountedInBytes) {
    EXPECT_FALSE(DownloadNames::check(QString(255, QChar(u'a'))).hasError());
    EXPECT_TRUE(DownloadNames::check(QString(256, QChar(u'a'))).hasError());
    EXPECT_FALSE(DownloadNames::check(QString(127, QChar(u'ä'))).hasError());
}

TEST(PartialName, IsAHiddenSiblingOfOneVersion) {
    EXPECT_EQ(DownloadNames::partialName(QStringLiteral("run.mzML"), 12, 3),
              QStringLiteral(".run.mzML.halvane-part-12-3"));
}

TEST(PartialName, OfALongNameFitsAndStillTellsNamesApart) {
    for (const QChar letter : {QChar(u'a'), QChar(u'ä'), QChar(u'測')}) {
        const QString longest(255 / int(QString(letter).toUtf8().size()), letter);
        QString other = longest;
        other.back() = QChar(u'b');
        const QString name = DownloadNames::partialName(longest, 2'147'483'647, 2'147'483'647);
        EXPECT_LE(QFile::encodeName(name).size(), 255);
        EXPECT_GT(QFile::encodeName(name).size(), 240);
        EXPECT_EQ(QFile::decodeName(QFile::encodeName(name)), name) << "cut between characters";
        EXPECT_FALSE(name.contains(QChar(QChar::ReplacementCharacter)));
        EXPECT_TRUE(name.endsWith(QStringLiteral(".halvane-part-2147483647-2147483647")));
        EXPECT_NE(name, DownloadNames::partialName(other, 2'147'483'647, 2'147'483'647));
    }
}

} // namespace
