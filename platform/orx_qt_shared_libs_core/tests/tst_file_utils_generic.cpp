#include "FileUtilsGeneric.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

using namespace orx;

namespace {

struct NameRow {
    QString name;
    QString valid; //!< what it becomes with '_'; the same when it is valid
};

const QString e254(254, u'e');

QList<NameRow> nameRows() {
    return {
        {u"run 1.mzML"_qs, u"run 1.mzML"_qs},
        {u".hidden"_qs, u".hidden"_qs},
        {u" leading blank"_qs, u" leading blank"_qs},
        {u"...a"_qs, u"...a"_qs},
        {u"Größe µ 质谱 \U0001F9EA"_qs, u"Größe µ 质谱 \U0001F9EA"_qs},
        {u"con"_qs, u"con"_qs},
        {u"localhost:8080"_qs, u"localhost_8080"_qs},
        {u"user@[::1]:80"_qs, u"user@[__1]_80"_qs},
        {u"a/b\\c:d*e?f\"g<h>i|j"_qs, u"a_b_c_d_e_f_g_h_i_j"_qs},
        {u"tab\tnewline\ndel\u007f"_qs, u"tab_newline_del_"_qs},
        {u"c1\u0085x"_qs, u"c1_x"_qs},
        {QStringLiteral("nul\0x").left(5), u"nul_x"_qs},
        {QString(), u"_"_qs},
        {u"."_qs, u"_"_qs},
        {u".."_qs, u"._"_qs},
        {u" "_qs, u"_"_qs},
        {u"dot."_qs, u"dot_"_qs},
        {u"blank "_qs, u"blank_"_qs},
        {u"dots.. "_qs, u"dots.._"_qs},
        {QString(QChar(0xd83e)) + u"x"_qs, u"_x"_qs},
        {u"x"_qs + QChar(0xddea), u"x_"_qs},
        {e254 + u'e', e254 + u'e'},
        {e254 + u"ee"_qs, e254 + u'e'},
        {e254 + u'é', e254},
        {e254 + u". and more"_qs, e254 + u'_'},
        {e254 + u"\U0001F9EA"_qs, e254},
        {QString(300, u'.'), QString(254, u'.') + u'_'},
    };
}

class FileNames : public testing::TestWithParam<int> {};

} // namespace

TEST_P(FileNames, AreJudgedAndMadeValid) {
    const auto [name, valid] = nameRows().at(GetParam());
    EXPECT_EQ(FileUtilsGeneric::isValidFileName(name), name == valid && !name.isEmpty())
        << name.toStdString();
    EXPECT_EQ(FileUtilsGeneric::validFileName(name, u'_').toStdString(), valid.toStdString());
}

INSTANTIATE_TEST_SUITE_P(Table, FileNames, testing::Range(0, int(nameRows().size())));

TEST(FileNameReplacement, IsWhatTheCallerSays) {
    EXPECT_EQ(FileUtilsGeneric::validFileName(u"a:b"_qs, u'-'), u"a-b");
    EXPECT_EQ(FileUtilsGeneric::validFileName(u"a:b"_qs, QChar(0x8cea)), u"a質b");
}

TEST(FileNameReplacement, ThatMayNotStandCountsAsUnderscore) {
    for (const QChar bad :
         {QChar(u'/'), QChar(u'.'), QChar(u' '), QChar(u'\0'), QChar(0xd83e), QChar(0xddea)})
        EXPECT_EQ(FileUtilsGeneric::validFileName(u"a:b."_qs, bad), u"a_b_");
}

TEST(FileNameReplacement, GivesAValidNameWhateverTheName) {
    // All combinations of awkward pieces, with replacements of one, two and three bytes.
    const QStringList pieces{QString(),
                             u"."_qs,
                             u" "_qs,
                             u"/"_qs,
                             u"a"_qs,
                             u"é"_qs,
                             u"质"_qs,
                             u"\U0001F9EA"_qs,
                             QString(QChar(0xd83e)),
                             QString(QChar(0xddea)),
                             QString(QChar(0)),
                             QString(252, u'x'),
                             QString(127, u'é'),
                             QString(253, u'.')};
    for (const QString& a : pieces) {
        for (const QString& b : pieces) {
            for (const QString& c : pieces) {
                const QString name = a + b + c;
                for (const QChar replacement : {QChar(u'_'), QChar(u'é'), QChar(0x8cea)}) {
                    const QString valid = FileUtilsGeneric::validFileName(name, replacement);
                    ASSERT_TRUE(FileUtilsGeneric::isValidFileName(valid)) << name.toStdString();
                    ASSERT_EQ(FileUtilsGeneric::validFileName(valid, replacement), valid);
                }
            }
        }
    }
}

TEST(FileNameReplacement, GivesNamesThatTheFileSystemTakes) {
    const QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    for (const NameRow& row : nameRows()) {
        const QString valid = FileUtilsGeneric::validFileName(row.name);
        QFile file(dir.filePath(valid));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << valid.toStdString();
        EXPECT_TRUE(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden).contains(valid));
    }
}
