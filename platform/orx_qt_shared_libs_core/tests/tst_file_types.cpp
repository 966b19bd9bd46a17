#include "FileTypes.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace orx;

namespace {

struct TypeRow {
    QString path;
    FileTypes::Type type;
};

class FileTypesByName : public testing::TestWithParam<int> {};

QList<TypeRow> typeRows() {
    return {{u"run.vonk"_qs, FileTypes::VONK},
            {u"run.VONK"_qs, FileTypes::VONK},
            {u"/data/day.1/run.Vonk"_qs, FileTypes::VONK},
            {u"run.raw.vonk"_qs, FileTypes::VONK},
            {u"run.mzML"_qs, FileTypes::MZML},
            {u"run.mzml"_qs, FileTypes::MZML},
            {u"run.mzML.gz"_qs, FileTypes::MZML},
            {u"run.imzML"_qs, FileTypes::IMZML},
            {u"run.mzXML"_qs, FileTypes::MZXML},
            {u"peaks.MGF"_qs, FileTypes::MGF},
            {u"notes.txt"_qs, FileTypes::UNKNOWN},
            {u"archive.gz"_qs, FileTypes::UNKNOWN},
            {u"run"_qs, FileTypes::UNKNOWN},
            {u"vonk"_qs, FileTypes::UNKNOWN},
            {u".vonk"_qs, FileTypes::UNKNOWN},
            {u"/data/.vonk"_qs, FileTypes::UNKNOWN},
            {u"/data/run.vonk/content"_qs, FileTypes::UNKNOWN},
            {u"run.vonk."_qs, FileTypes::UNKNOWN},
            {u"run.vonk "_qs, FileTypes::UNKNOWN},
            {u"runvonk"_qs, FileTypes::UNKNOWN},
            {QString(), FileTypes::UNKNOWN},
            {u"/"_qs, FileTypes::UNKNOWN},
            {u"."_qs, FileTypes::UNKNOWN}};
}

} // namespace

TEST_P(FileTypesByName, FollowTheExtension) {
    const TypeRow row = typeRows().at(GetParam());
    EXPECT_EQ(FileTypes::fileToType(row.path)->name.toStdString(), row.type->name.toStdString())
        << row.path.toStdString();
    EXPECT_EQ(FileTypes::fileType(row.path), row.type);
    EXPECT_EQ(FileTypes::fileTypeFromName(row.path), row.type);
    EXPECT_EQ(FileTypes::fileMatchesAnyType(row.path, {FileTypes::VONK}), row.type == FileTypes::VONK);
}

INSTANTIATE_TEST_SUITE_P(Table, FileTypesByName, testing::Range(0, int(typeRows().size())));

TEST(FileTypes, AnyOfTheListMayMatch) {
    EXPECT_TRUE(FileTypes::fileMatchesAnyType(u"a.mgf"_qs, {FileTypes::VONK, FileTypes::MGF}));
    EXPECT_FALSE(FileTypes::fileMatchesAnyType(u"a.mzML"_qs, {FileTypes::VONK, FileTypes::MGF}));
    EXPECT_FALSE(FileTypes::fileMatchesAnyType(u"a.vonk"_qs, {}));
    EXPECT_FALSE(FileTypes::fileMatchesAnyType(u"a.vonk"_qs, {FileTypes::Type(), FileTypes::UNKNOWN}));
    EXPECT_FALSE(FileTypes::fileMatchesAnyType(u"a.zzz"_qs, {FileTypes::UNKNOWN}));
}

TEST(FileTypes, TypesCompareByNameAndExtensions) {
    const FileTypes::FileTypeData alike{u"vonk"_qs, {u"vonk"_qs}};
    const FileTypes::FileTypeData otherExtensions{u"vonk"_qs, {u"vonk"_qs, u"vnk"_qs}};
    const FileTypes::FileTypeData otherName{u"packed"_qs, {u"vonk"_qs}};
    EXPECT_EQ(FileTypes::Type(&alike), FileTypes::VONK);
    EXPECT_NE(FileTypes::Type(&otherExtensions), FileTypes::VONK);
    EXPECT_NE(FileTypes::Type(&otherName), FileTypes::VONK);
}

TEST(FileTypes, UnknownExtensionsShareOneRecord) {
    EXPECT_EQ(&FileTypes::fileToType(u"a.xyz"_qs).data(), &FileTypes::fileToType(u"b"_qs).data());
    EXPECT_FALSE(FileTypes::types().contains(FileTypes::UNKNOWN));
}

TEST(FileTypes, AnAddedTypeIsFoundAndTheLongerExtensionWins) {
    const auto archive = FileTypes::addType(u"archive"_qs, {u"tst-tar"_qs, QString()});
    const auto zipped = FileTypes::addType(u"zipped archive"_qs, {u"gz.tst-tar"_qs});
    EXPECT_EQ(FileTypes::fileToType(u"a.tst-tar"_qs), archive);
    EXPECT_EQ(FileTypes::fileToType(u"a.gz.tst-tar"_qs), zipped);
    EXPECT_EQ(FileTypes::fileToType(u"ends with a dot."_qs), FileTypes::UNKNOWN);
    EXPECT_TRUE(FileTypes::types().contains(zipped));
    const auto latecomer = FileTypes::addType(u"latecomer"_qs, {u"tst-tar"_qs});
    EXPECT_NE(latecomer, archive);
    EXPECT_EQ(FileTypes::fileToType(u"a.tst-tar"_qs), archive);
}

TEST(FileTypes, ThreadsMayAddWhileOthersAsk) {
    const auto* const vonk = &FileTypes::VONK.data();
    std::thread adder([] {
        for (int i = 0; i < 200; ++i)
            FileTypes::addType(u"added %1"_qs.arg(i), {u"added%1"_qs.arg(i)});
    });
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(&FileTypes::fileToType(u"run.vonk"_qs).data(), vonk);
    adder.join();
    EXPECT_EQ(FileTypes::fileToType(u"x.added199"_qs)->name, u"added 199");
}

TEST(FileTypeExtensions, AreAddedOnlyWhenMissingAndNeverReplaced) {
    const QList<std::pair<QString, QString>> rows{{u"run"_qs, u"run.vonk"_qs},
                                                  {u"run.raw"_qs, u"run.raw.vonk"_qs},
                                                  {u"run.vonk"_qs, u"run.vonk"_qs},
                                                  {u"run.VONK"_qs, u"run.VONK"_qs},
                                                  {u"run."_qs, u"run..vonk"_qs},
                                                  {u".vonk"_qs, u".vonk.vonk"_qs},
                                                  {u"dir.vonk/run"_qs, u"dir.vonk/run.vonk"_qs},
                                                  {QString(), u".vonk"_qs}};
    for (const auto& [name, expected] : rows) {
        EXPECT_EQ(FileTypes::addMissingExtension(name, FileTypes::VONK).toStdString(),
                  expected.toStdString());
        EXPECT_EQ(FileTypes::fileName(name, FileTypes::VONK).toStdString(), expected.toStdString());
    }
}

TEST(FileTypeExtensions, AnyExtensionOfTheTypeWillDo) {
    EXPECT_EQ(FileTypes::addMissingExtension(u"a.mzML.gz"_qs, FileTypes::MZML), u"a.mzML.gz");
    EXPECT_EQ(FileTypes::addMissingExtension(u"a.gz"_qs, FileTypes::MZML), u"a.gz.mzML");
}

TEST(FileTypeExtensions, OfNoTypeChangeNothing) {
    EXPECT_EQ(FileTypes::addMissingExtension(u"a"_qs, FileTypes::UNKNOWN), u"a");
    EXPECT_EQ(FileTypes::addMissingExtension(u"a"_qs, FileTypes::Type()), u"a");
}
