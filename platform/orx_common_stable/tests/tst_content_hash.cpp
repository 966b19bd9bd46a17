#include <ContentHash.h>

#include <gtest/gtest.h>

using namespace orx;

namespace {

TEST(ContentHash, GivesTheDigestsOfTheStandard) {
    ContentHash hash;
    EXPECT_EQ(hash.hexDigest(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    hash.add("a", 1);
    EXPECT_TRUE(ContentHash::isHexDigest(hash.hexDigest()));
    hash.add("bc", 2);
    EXPECT_EQ(hash.hexDigest(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    hash.reset();
    EXPECT_EQ(hash.hexDigest(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(ContentHash, TellsDigestsFromOtherTexts) {
    EXPECT_TRUE(ContentHash::isHexDigest(QByteArray(64, 'a')));
    EXPECT_FALSE(ContentHash::isHexDigest(QByteArray(63, 'a')));
    EXPECT_FALSE(ContentHash::isHexDigest(QByteArray(64, 'A')));
    EXPECT_FALSE(ContentHash::isHexDigest(QByteArray(64, 'g')));
    EXPECT_FALSE(ContentHash::isHexDigest(QByteArray()));
}

TEST(ChunkHash, IsTheCanonicalFormWhateverThePieces) {
    EXPECT_EQ(ChunkHash::of(QByteArray()), "99aa06d3014798d86001c324468d497f");
    ChunkHash pieces;
    pieces.add("ab", 2);
    pieces.add("c", 1);
    EXPECT_EQ(pieces.hexDigest(), "06b05ab6733a618578af5f94892f3950");
    EXPECT_EQ(ChunkHash::of("abc"), pieces.hexDigest());
}

} // namespace
