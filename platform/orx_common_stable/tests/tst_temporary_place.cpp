#include <FilePlace.h>
#include <TemporaryPlace.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/stat.h>

using namespace orx;

namespace {

//! A file or a directory is made.
class TemporaryPlaceTest : public ::testing::TestWithParam<bool> {
protected:
    QByteArray target() const { return QFile::encodeName(m_dir.filePath(QStringLiteral("run"))); }
    int make(TemporaryPlace& place) const {
        return GetParam() ? place.makeDirectory(target(), 0755) : place.makeFile(target(), 0644);
    }
    QStringList entries() const {
        return QDir(m_dir.path())
            .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    }
    //! As a killed process leaves it.
    void abandon() const {
        TemporaryPlace place;
        ASSERT_EQ(make(place), 0);
        if (!GetParam())
            return;
        const QString inner = QFile::decodeName(place.path()) + QStringLiteral("/inner");
        ASSERT_TRUE(QDir().mkdir(inner));
        QFile file(inner + QStringLiteral("/x"));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        ASSERT_EQ(::chmod(QFile::encodeName(inner).constData(), 0555), 0);
    }

    const QStringList only{QStringLiteral(".run.orx-copy.part")};
    QTemporaryDir m_dir;
};

INSTANTIATE_TEST_SUITE_P(Kind, TemporaryPlaceTest, ::testing::Bool(),
                         [](const auto& kind) { return kind.param ? "Directory" : "File"; });

TEST_P(TemporaryPlaceTest, IsHiddenBesideTheTargetAndStaysWithoutTheObject) {
    {
        TemporaryPlace place;
        ASSERT_EQ(make(place), 0);
        EXPECT_EQ(place.path(), FilePlace::copyBeside(target()));
        EXPECT_GE(place.descriptor(), 0);
        EXPECT_EQ(entries(), only);
    }
    EXPECT_EQ(entries(), only);
}

TEST_P(TemporaryPlaceTest, WhatIsInUseIsLeftAloneAndAnotherNameTaken) {
    TemporaryPlace one;
    TemporaryPlace other;
    ASSERT_EQ(make(one), 0);
    EXPECT_FALSE(TemporaryPlace::removeAbandoned(target()));
    ASSERT_EQ(make(other), 0);
    EXPECT_NE(one.path(), other.path());
    EXPECT_EQ(entries().size(), 2);
    for (const QString& name : entries())
        EXPECT_TRUE(name.startsWith(QStringLiteral(".run.")) && name.endsWith(QStringLiteral(".part")));
}

TEST_P(TemporaryPlaceTest, WhatAKilledProcessLeftGoes) {
    abandon();
    {
        TemporaryPlace place;
        ASSERT_EQ(make(place), 0);
        EXPECT_EQ(entries(), only);
        struct stat info = {};
        ASSERT_EQ(::stat(place.path().constData(), &info), 0);
        EXPECT_TRUE(QDir(QFile::decodeName(place.path())).isEmpty()) << "it is a new one";
    }
    abandon();
    EXPECT_TRUE(TemporaryPlace::removeAbandoned(target()));
    EXPECT_EQ(entries(), QStringList());
    EXPECT_TRUE(TemporaryPlace::removeAbandoned(target())) << "nothing is there";
}

TEST_P(TemporaryPlaceTest, AMissingDirectoryIsAnError) {
    TemporaryPlace place;
    const QByteArray nowhere = target() + "/none/run";
    EXPECT_EQ(GetParam() ? place.makeDirectory(nowhere, 0755) : place.makeFile(nowhere, 0644), ENOENT);
}

} // namespace
