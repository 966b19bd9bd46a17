#include "PackingFixture.h"
#include "StagedFile.h"
#include "StagedTree.h"

#include <QFile>

using namespace orx;
using namespace orx::vonk;

namespace {

VonkEntry fileOf(const QString& path, qint64 size = 1) {
    return {path, VonkEntry::Type::File, size, {1'700'000'000, 0}, {}};
}

class StagedTreeTest : public PackingFixture {
protected:
    void SetUp() override {
        PackingFixture::SetUp();
        ASSERT_TRUE(QFile::link(in(), in(QStringLiteral("link"))));
    }
    //! Where the tree is while it is made.
    QString staging() const { return out(names(out()).first()); }
};

TEST_F(StagedTreeTest, SaysBeforehandWhenThereIsNoRoom) {
    const qint64 more = std::numeric_limits<qint64>::max() / 4;
    const auto tree =
        StagedTree::create(out(QStringLiteral("run1")), {fileOf(QStringLiteral("content/a"), more)});
    EXPECT_TRUE(tree.error().is(ErrorCode::StorageFull)) << tree.errorMessage().toStdString();
    const auto file = StagedFile::create(out(QStringLiteral("a")), more);
    EXPECT_TRUE(file.error().is(ErrorCode::StorageFull)) << file.errorMessage().toStdString();
    EXPECT_EQ(names(out()), QStringList());
}

TEST_F(StagedTreeTest, FollowsNoLinkThatIsPlantedOnTheWay) {
    auto tree = StagedTree::create(out(QStringLiteral("run1")), {});
    ASSERT_FALSE(tree.hasError());
    const QStringList before = names(in());
    ASSERT_TRUE(QFile::link(in(), staging() + QStringLiteral("/content")));
    EXPECT_TRUE(tree->begin(fileOf(QStringLiteral("content/a"))).hasError());
    EXPECT_EQ(names(in()), before);
}

TEST_F(StagedTreeTest, FollowsNoLinkThatIsPlantedInThePlaceOfAFile) {
    auto tree = StagedTree::create(out(QStringLiteral("run1")), {});
    ASSERT_FALSE(tree.hasError());
    ASSERT_FALSE(tree->begin({QStringLiteral("content"), VonkEntry::Type::Directory, 0, {}, {}}).hasError());
    ASSERT_TRUE(QFile::link(in(QStringLiteral("made")), staging() + QStringLiteral("/content/a")));
    EXPECT_TRUE(tree->begin(fileOf(QStringLiteral("content/a"))).hasError());
    EXPECT_EQ(names(in()), QStringList{QStringLiteral("link")});
}

TEST_F(StagedTreeTest, LeavesNothingWhenItIsGivenUpAndRemovesNothingBehindLinks) {
    write(in(QStringLiteral("precious")), "x");
    {
        auto tree = StagedTree::create(out(QStringLiteral("run1")), {});
        ASSERT_FALSE(tree.hasError());
        ASSERT_FALSE(tree->begin(fileOf(QStringLiteral("content/a/b"))).hasError());
        ASSERT_FALSE(tree->write(std::span<const char>("x", 1)).hasError());
        ASSERT_TRUE(QFile::link(in(), staging() + QStringLiteral("/content/planted")));
    }
    EXPECT_EQ(names(out()), QStringList());
    EXPECT_EQ(read(in(QStringLiteral("precious"))), "x");
}

} // namespace
