#include <LocalTree.h>
#include <RunUntilIdle.h>

#include <tasks/HalvaneValidateUploadInputFileTask.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

namespace halvane::host {
namespace {

using ::testing::HasSubstr;
using Kind = LocalEntry::Kind;

class LocalTreeTest : public ::testing::Test {
protected:
    QString at(const QString& path) const { return dir.filePath(path); }
    void write(const QString& path, const QByteArray& content = "content") const {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(at(path)).path()));
        QFile file(at(path));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(file.write(content), content.size());
    }
    void copyRawFile(const QString& path) const {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(at(path)).path()));
        ASSERT_TRUE(QFile::copy(QStringLiteral(ORX_TEST_DATA_DIR "/tiny.mzML"), at(path)));
    }
    void copyRawDirectory(const QString& path) const {
        ASSERT_TRUE(QDir().mkpath(at(path)));
        for (const QString& name : {QStringLiteral("/analysis.tdf"), QStringLiteral("/analysis.tdf_bin")})
            ASSERT_TRUE(
                QFile::copy(QStringLiteral(ORX_TEST_DATA_DIR "/sqlite-frames.d") + name, at(path) + name));
    }
    LocalTree scan() const { return LocalTree::scan(at(QStringLiteral("t"))); }
    static QMap<QString, Kind> kinds(const LocalTree& tree) {
        QMap<QString, Kind> found;
        for (const LocalEntry& entry : tree.entries)
            found.insert(QDir(tree.source).relativeFilePath(entry.path), entry.kind);
        return found;
    }
    QTemporaryDir dir;
};

TEST_F(LocalTreeTest, EveryEntryIsWhatAnUploadTakesItFor) {
    write(QStringLiteral("t/a.txt"));
    write(QStringLiteral("t/packed.vonk"));
    copyRawFile(QStringLiteral("t/run.mzML"));
    copyRawDirectory(QStringLiteral("t/frames.d"));
    EXPECT_EQ(kinds(scan()), (QMap<QString, Kind>{{QStringLiteral("."), Kind::Directory},
                                                  {QStringLiteral("a.txt"), Kind::File},
                                                  {QStringLiteral("packed.vonk"), Kind::Packed},
                                                  {QStringLiteral("run.mzML"), Kind::RawData},
                                                  {QStringLiteral("frames.d"), Kind::RawData}}));
    EXPECT_EQ(scan().remarks, QStringList());
}

TEST_F(LocalTreeTest, RawDataThatIsNamedLikeAPackedAcquisitionIsAFolderAndThatIsRemarked) {
    copyRawDirectory(QStringLiteral("t/run.vonk"));
    write(QStringLiteral("t/other.vonk/a.txt"));
    const LocalTree tree = scan();
    EXPECT_EQ(kinds(tree).value(QStringLiteral("run.vonk")), Kind::Directory);
    EXPECT_EQ(kinds(tree).value(QStringLiteral("run.vonk/analysis.tdf")), Kind::File);
    ASSERT_EQ(tree.remarks.size(), 1);
    EXPECT_THAT(tree.remarks.first().toStdString(), HasSubstr("run.vonk\" is raw data"));
}

TEST_F(LocalTreeTest, RawDataThatIsNotWholeGoesUpAsItIsAndThatIsRemarked) {
    copyRawDirectory(QStringLiteral("t/run.d"));
    ASSERT_TRUE(QFile::remove(at(QStringLiteral("t/run.d/analysis.tdf_bin"))));
    copyRawFile(QStringLiteral("t/cut.mzML"));
    const QString cut = at(QStringLiteral("t/cut.mzML"));
    ASSERT_TRUE(QFile::resize(cut, QFileInfo(cut).size() - 10));
    const LocalTree tree = scan();
    EXPECT_EQ(kinds(tree).value(QStringLiteral("run.d")), Kind::Directory);
    EXPECT_EQ(kinds(tree).value(QStringLiteral("cut.mzML")), Kind::File);
    ASSERT_EQ(tree.remarks.size(), 2);
    EXPECT_THAT(
        tree.remarks.first().toStdString(),
        ::testing::AllOf(HasSubstr("cut.mzML\" looks like raw data (mzml)"), HasSubstr("is not complete")));
    EXPECT_THAT(tree.remarks.last().toStdString(), HasSubstr("analysis.tdf_bin"));
}

// What a folder upload asks about, and what it makes of the answer, depends on it.
TEST_F(LocalTreeTest, TheCheckOfUploadsAgreesOnWhatIsRawData) {
    write(QStringLiteral("t/a.txt"));
    write(QStringLiteral("t/packed.vonk"));
    copyRawDirectory(QStringLiteral("t/frames.d"));
    copyRawDirectory(QStringLiteral("t/run.vonk"));
    orx::UploadFilters filters;
    filters.quietTime = std::chrono::milliseconds(0);
    orx::UploadFileInputValidation::setFilters(filters);
    const LocalTree tree = scan();
    for (const LocalEntry& entry : tree.entries) {
        orx::HalvaneValidateUploadInputFileTask check({entry.path});
        ASSERT_FALSE(runUntilIdle(check).hasError());
        EXPECT_TRUE(check.isFileValid()) << qPrintable(entry.path);
        EXPECT_EQ(check.isValidMsData(), entry.kind == Kind::RawData) << qPrintable(entry.path);
    }
    orx::UploadFileInputValidation::setFilters(orx::UploadFilters());
}

TEST_F(LocalTreeTest, TwoThatGoUpUnderOneNameAreRemarked) {
    copyRawFile(QStringLiteral("t/run.mzML"));
    write(QStringLiteral("t/run.mzML.vonk"));
    write(QStringLiteral("t/sub/run.mzML.vonk"));
    const LocalTree tree = scan();
    ASSERT_EQ(tree.remarks.size(), 1);
    EXPECT_THAT(tree.remarks.first().toStdString(), HasSubstr("go up under one name, \"run.mzML.vonk\""));
}

TEST_F(LocalTreeTest, OnlyWhatHasNotJustChangedGetsAStamp) {
    write(QStringLiteral("t/a.txt"));
    LocalTree tree = scan();
    tree.takeStamps();
    for (const LocalEntry& entry : std::as_const(tree.entries))
        EXPECT_EQ(entry.stamp, QByteArray());
    tree = LocalTree::scan(QStringLiteral("/usr/bin/env"));
    tree.takeStamps();
    EXPECT_NE(tree.root().stamp, QByteArray());
}

} // namespace
} // namespace halvane::host
