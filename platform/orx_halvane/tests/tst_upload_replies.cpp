#include <HalvaneUploadReplies.h>
#include <NetworkError.h>

#include <QJsonDocument>

#include <gtest/gtest.h>

using namespace orx;

namespace {

QJsonObject object(const char* text) {
    return QJsonDocument::fromJson(text).object();
}

TEST(UploadReplies, ReadAnUpload) {
    const auto reply = HalvaneUploadReply::parse(
        object(R"({"upload_id": 5, "size": 20000000, "chunk_size": 8388608, "more": true,
                   "received": [{"index": 0, "xxh3": "aa"}, {"index": 2, "xxh3": "bb"}]})"));
    ASSERT_TRUE(reply) << qPrintable(reply.errorMessage());
    EXPECT_EQ(reply->uploadId, 5);
    EXPECT_EQ(reply->size, 20'000'000);
    EXPECT_EQ(reply->chunkSize, 8'388'608);
    EXPECT_EQ(reply->received, (QHash<int, QByteArray>{{0, "aa"}, {2, "bb"}}));
}

TEST(UploadReplies, ReadTheStateOfAnUpload) {
    const auto open = HalvaneUploadState::parse(object(
        R"({"state": "open", "upload": {"upload_id": 5, "size": 0, "chunk_size": 8, "received": []}})"));
    ASSERT_TRUE(open) << qPrintable(open.errorMessage());
    EXPECT_FALSE(open->finalized);
    EXPECT_EQ(open->upload.uploadId, 5);
    const auto finalized = HalvaneUploadState::parse(
        object(R"({"state": "finalized", "file": {"id": 12, "version": 3, "size": 7, "sha256": "cc"}})"));
    ASSERT_TRUE(finalized) << qPrintable(finalized.errorMessage());
    EXPECT_TRUE(finalized->finalized);
    EXPECT_EQ(finalized->file.reference, (HalvaneApiReference{12, 3}));
    EXPECT_EQ(finalized->file.sha256, QStringLiteral("cc"));
}

class UnusableStates : public testing::TestWithParam<const char*> {};

TEST_P(UnusableStates, AreInvalidReplies) {
    const auto state = HalvaneUploadState::parse(object(GetParam()));
    ASSERT_TRUE(state.hasError());
    EXPECT_TRUE(state.error().is(ErrorDomain::Network, int(NetworkErrorCode::InvalidReply)));
    EXPECT_FALSE(state.errorMessage().isEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Texts, UnusableStates,
    testing::Values(
        "{}", R"({"state": "lost"})", R"({"state": 1})", R"({"state": "open"})",
        R"({"state": "open", "upload": {"upload_id": 0, "size": 0, "chunk_size": 8, "received": []}})",
        R"({"state": "open", "upload": {"upload_id": 5, "size": 1.5, "chunk_size": 8, "received": []}})",
        R"({"state": "open", "upload": {"upload_id": 5, "size": 1, "chunk_size": 8}})",
        R"({"state": "open", "upload": {"upload_id": 5, "size": 1, "chunk_size": 8, "received": [7]}})",
        R"({"state": "open", "upload": {"upload_id": 5, "size": 1, "chunk_size": 8, "received": [{"index": 0}]}})",
        R"({"state": "finalized", "upload": {}})",
        R"({"state": "finalized", "file": {"id": 0, "version": 3, "size": 7, "sha256": "cc"}})",
        R"({"state": "finalized", "file": {"id": 12, "version": 0, "size": 7, "sha256": "cc"}})",
        R"({"state": "finalized", "file": {"id": 12, "version": 3, "size": 7}})"));

} // namespace
