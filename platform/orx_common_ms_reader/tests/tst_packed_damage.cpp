#include "PackingFixture.h"
#include "SmallWriter.h"

#include <QDir>

using namespace orx;
using namespace orx::vonk;

namespace {

class BothVersions : public PackingFixture, public ::testing::WithParamInterface<int> {
protected:
    QString put(const QByteArray& bytes) const {
        const QString path = out(QStringLiteral("run1.raw.vonk"));
        write(path, bytes);
        return path;
    }
};

INSTANTIATE_TEST_SUITE_P(Version, BothVersions, ::testing::Values(1, 2));

TEST_P(BothVersions, EveryChangedByteIsFoundOrChangesNothing) {
    const QByteArray whole = smallSample(GetParam()).bytes();
    const QString path = put(whole);
    Vonk original(path);
    ASSERT_FALSE(original.open().hasError());
    ASSERT_FALSE(original.unpack(out(QStringLiteral("right"))).hasError());
    // Version 1 has no directories, and what is made for the files gets the time of the day.
    const auto rightTree = tree(out(QStringLiteral("right")), Times::OfFiles);
    const VonkMetadata right = original.metadata();
    int unnoticed = 0;
    for (qsizetype at = 0; at < whole.size(); ++at) {
        // Each bit by itself, and all of them.
        for (const int flip : {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80, 0xff}) {
            QByteArray changed = whole;
            changed[at] = char(changed[at] ^ flip);
            put(changed);
            Vonk vonk(path);
            if (vonk.open().hasError() || vonk.validate(Vonk::Check::Full).hasError())
                continue;
            ++unnoticed;
            EXPECT_EQ(vonk.metadata(), right) << "byte " << at;
            ASSERT_FALSE(vonk.unpack(out(QStringLiteral("changed"))).hasError()) << "byte " << at;
            EXPECT_EQ(tree(out(QStringLiteral("changed")), Times::OfFiles), rightTree) << "byte " << at;
            ASSERT_TRUE(QDir(out(QStringLiteral("changed"))).removeRecursively());
        }
    }
    // Version 1 has no digest of the frames themselves, and zstd passes over an unused bit of each.
    EXPECT_EQ(unnoticed > 0, GetParam() == 1);
}

TEST_P(BothVersions, EveryTruncationIsFoundQuickly) {
    const QByteArray whole = smallSample(GetParam()).bytes();
    for (qsizetype size = 0; size < whole.size(); ++size)
        EXPECT_TRUE(checked(put(whole.left(size)), Vonk::Check::Quick).hasError()) << size;
    EXPECT_TRUE(checked(put(whole + 'x'), Vonk::Check::Quick).hasError());
    EXPECT_TRUE(checked(put(whole + whole), Vonk::Check::Quick).hasError());
    EXPECT_FALSE(checked(put(whole), Vonk::Check::Quick).hasError());
}

} // namespace
