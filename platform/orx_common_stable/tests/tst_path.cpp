#include "PathImpl.h"

#include <gtest/gtest.h>

using namespace orx;

TEST(Path, OfUnknownKindRemembersWhatItWasMadeOf) {
    EXPECT_EQ(Path(QStringLiteral("/a")).type(), PathType::Unknown);
    EXPECT_EQ(Path(QStringLiteral("/a"), PathType::File).type(), PathType::File);
    EXPECT_EQ(Path(DirPath(QStringLiteral("/a"))).type(), PathType::Dir);
    EXPECT_EQ(int(PathType::File), 2);
}

TEST(Path, KeepsItsTextAndNamesChildren) {
    const DirPath dir(QStringLiteral("/a/b"));
    EXPECT_EQ(dir.toString(), QStringLiteral("/a/b"));
    EXPECT_EQ(dir.child(QStringLiteral("c.txt")), QStringLiteral("/a/b/c.txt"));
    EXPECT_TRUE(FilePath().isEmpty());
}
