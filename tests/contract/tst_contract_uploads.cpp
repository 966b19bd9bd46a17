// Uploads: the scripted server and the real one behave alike.
#include "ContractFixture.h"

namespace orx::testing {
namespace {

using Method = NetworkRequest::Method;

class UploadsContract : public ContractTest {
protected:
    static QJsonObject fileOf(const Answer& answer) {
        return answer.data()[QStringLiteral("file")].toObject();
    }
    int openOf(qint64 size, const QByteArray& key) const {
        return open(QStringLiteral("run.raw"), size, key).data()[QStringLiteral("upload_id")].toInt();
    }
    int fileCount() const {
        return int(get(QStringLiteral("/folders/1/files")).data()[QStringLiteral("files")].toArray().size());
    }
};
ORX_CONTRACT(UploadsContract);

TEST_P(UploadsContract, AnOpenedUploadDescribesItself) {
    const Answer answer = open(QStringLiteral("run.raw"), 20, "key-1");
    EXPECT_EQ(answer.status, 200);
    const QJsonObject upload = answer.data();
    EXPECT_GT(upload[QStringLiteral("upload_id")].toInt(), 0);
    EXPECT_EQ(upload[QStringLiteral("name")].toString(), QStringLiteral("run.raw"));
    EXPECT_EQ(upload[QStringLiteral("size")].toInt(), 20);
    EXPECT_EQ(upload[QStringLiteral("target_id")].toInt(), Root);
    EXPECT_EQ(upload[QStringLiteral("target_type")].toInt(), 1);
    EXPECT_EQ(upload[QStringLiteral("chunk_size")].toInt(), ChunkSize);
    EXPECT_TRUE(upload[QStringLiteral("received")].toArray().isEmpty());
    EXPECT_TRUE(upload[QStringLiteral("content_sha256")].isNull());
}

TEST_P(UploadsContract, ARepeatedKeyGivesTheSameUploadAsItIsByNow) {
    const int upload = openOf(20, "key-1");
    EXPECT_EQ(putChunk(upload, 1, "89abcdef").status, 200);
    const QJsonObject again = open(QStringLiteral("run.raw"), 20, "key-1").data();
    EXPECT_EQ(again[QStringLiteral("upload_id")].toInt(), upload);
    EXPECT_EQ(again[QStringLiteral("received")].toArray(),
              (QJsonArray{QJsonObject{{QStringLiteral("index"), 1},
                                      {QStringLiteral("xxh3"), QString::fromLatin1(xxh3Hex("89abcdef"))}}}));
    EXPECT_EQ(open(QStringLiteral("run.raw"), 21, "key-1").errorCode(),
              int(HalvaneServerErrorCode::IdempotencyMismatch));
    EXPECT_EQ(get(QStringLiteral("/uploads")).data()[QStringLiteral("uploads")].toArray().size(), 1);
}

TEST_P(UploadsContract, UnknownTargetsAndBadNamesAreRefused) {
    EXPECT_EQ(open(QStringLiteral("run.raw"), 1, "key-1", 99).errorCode(),
              int(HalvaneServerErrorCode::NotFound));
    EXPECT_EQ(open(QStringLiteral("run.raw"), 1, "key-2", 99, 0).errorCode(),
              int(HalvaneServerErrorCode::NotFound));
    EXPECT_EQ(open(QStringLiteral("a/b"), 1, "key-3").errorCode(), int(HalvaneServerErrorCode::InvalidName));
    EXPECT_EQ(open(QStringLiteral("run.raw"), 1, "key-4", Root, 2).errorCode(),
              int(HalvaneServerErrorCode::BadRequest));
    EXPECT_EQ(open(QStringLiteral("run.raw"), -1, "key-5").errorCode(),
              int(HalvaneServerErrorCode::BadRequest));
    EXPECT_TRUE(get(QStringLiteral("/uploads")).data()[QStringLiteral("uploads")].toArray().isEmpty());
}

TEST_P(UploadsContract, ChunksMayComeInAnyOrderAndTwice) {
    const int upload = openOf(20, "key-1");
    EXPECT_EQ(putChunk(upload, 2, "ghij").data()[QStringLiteral("index")].toInt(), 2);
    EXPECT_EQ(putChunk(upload, 0, "xxxxxxxx").status, 200);
    EXPECT_EQ(putChunk(upload, 1, "89abcdef").status, 200);
    EXPECT_EQ(putChunk(upload, 0, "01234567").status, 200); // replaces the earlier one
    EXPECT_EQ(call(Method::Put, QStringLiteral("/uploads/%1/content-sha256").arg(upload), {},
                   {{"Halvane-Content-Sha256", sha256Hex("0123456789abcdefghij")}})
                  .status,
              200);
    const int file = fileOf(finalize(upload, "key-1"))[QStringLiteral("id")].toInt();
    EXPECT_EQ(get(QStringLiteral("/files/%1/versions/1/content").arg(file)).body, "0123456789abcdefghij");
}

TEST_P(UploadsContract, ABadChunkDoesNotCount) {
    const int upload = openOf(12, "key-1");
    const Answer wrongSum = putChunk(upload, 0, "01234567", xxh3Hex("76543210"));
    EXPECT_EQ(wrongSum.status, 422);
    EXPECT_EQ(wrongSum.errorCode(), int(HalvaneServerErrorCode::ChecksumMismatch));
    EXPECT_EQ(putChunk(upload, 0, "0123").errorCode(), int(HalvaneServerErrorCode::ChecksumMismatch));
    EXPECT_EQ(putChunk(upload, 1, "01234567").errorCode(), int(HalvaneServerErrorCode::ChecksumMismatch));
    EXPECT_EQ(putChunk(upload, 2, "0123").errorCode(), int(HalvaneServerErrorCode::BadRequest));
    EXPECT_EQ(call(Method::Put, QStringLiteral("/uploads/%1/chunks/0").arg(upload), "01234567").errorCode(),
              int(HalvaneServerErrorCode::BadRequest));
    EXPECT_TRUE(get(QStringLiteral("/uploads/%1").arg(upload))
                    .data()[QStringLiteral("received")]
                    .toArray()
                    .isEmpty());
}

TEST_P(UploadsContract, AChunkMayCarryTheChecksumOfTheContent) {
    const int upload = openOf(4, "key-1");
    EXPECT_EQ(call(Method::Put, QStringLiteral("/uploads/%1/chunks/0").arg(upload), "0123",
                   {{"Halvane-Chunk-Xxh3", xxh3Hex("0123")}, {"Halvane-Content-Sha256", sha256Hex("0123")}})
                  .status,
              200);
    EXPECT_EQ(get(QStringLiteral("/uploads/%1").arg(upload))
                  .data()[QStringLiteral("content_sha256")]
                  .toString()
                  .toLatin1(),
              sha256Hex("0123"));
    EXPECT_EQ(finalize(upload, "key-1").status, 200);
}

TEST_P(UploadsContract, AnIncompleteUploadIsNotFinalised) {
    const int upload = openOf(12, "key-1");
    EXPECT_EQ(putChunk(upload, 0, "01234567").status, 200);
    EXPECT_EQ(call(Method::Put, QStringLiteral("/uploads/%1/content-sha256").arg(upload), {},
                   {{"Halvane-Content-Sha256", sha256Hex("0123456789ab")}})
                  .status,
              200);
    const Answer early = finalize(upload, "key-1");
    EXPECT_EQ(early.status, 409);
    EXPECT_EQ(early.errorCode(), int(HalvaneServerErrorCode::UploadIncomplete));
    EXPECT_EQ(fileCount(), 0);
    EXPECT_EQ(putChunk(upload, 1, "89ab").status, 200);
    EXPECT_EQ(finalize(upload, "key-1").status, 200); // the failure was not remembered
}

TEST_P(UploadsContract, WithoutTheChecksumOfTheContentNothingIsFinalised) {
    const int upload = openOf(4, "key-1");
    EXPECT_EQ(putChunk(upload, 0, "0123").status, 200);
    EXPECT_EQ(finalize(upload, "key-1").errorCode(), int(HalvaneServerErrorCode::UploadIncomplete));
}

TEST_P(UploadsContract, AWrongChecksumOfTheContentIsRefusedAndCanBePutRight) {
    const int upload = openOf(4, "key-1");
    EXPECT_EQ(putChunk(upload, 0, "0123").status, 200);
    const QString path = QStringLiteral("/uploads/%1/content-sha256").arg(upload);
    EXPECT_EQ(call(Method::Put, path, {}).errorCode(), int(HalvaneServerErrorCode::BadRequest));
    EXPECT_EQ(call(Method::Put, path, {}, {{"Halvane-Content-Sha256", sha256Hex("other")}}).status, 200);
    const Answer refused = finalize(upload, "key-1");
    EXPECT_EQ(refused.status, 422);
    EXPECT_EQ(refused.errorCode(), int(HalvaneServerErrorCode::ChecksumMismatch));
    EXPECT_EQ(fileCount(), 0);
    EXPECT_EQ(call(Method::Put, path, {}, {{"Halvane-Content-Sha256", sha256Hex("0123")}}).status, 200);
    EXPECT_EQ(finalize(upload, "key-1").status, 200);
    EXPECT_EQ(call(Method::Put, path, {}, {{"Halvane-Content-Sha256", sha256Hex("0123")}}).errorCode(),
              int(HalvaneServerErrorCode::UploadGone));
}

TEST_P(UploadsContract, ARepeatedFinalisationGivesTheSameFile) {
    const int upload = openOf(4, "key-1");
    sendAll(upload, "0123");
    const QJsonObject first = fileOf(finalize(upload, "key-1"));
    EXPECT_EQ(first[QStringLiteral("version")].toInt(), 1);
    EXPECT_EQ(first[QStringLiteral("folder_id")].toInt(), Root);
    EXPECT_EQ(first[QStringLiteral("name")].toString(), QStringLiteral("run.raw"));
    EXPECT_EQ(first[QStringLiteral("size")].toInt(), 4);
    EXPECT_EQ(first[QStringLiteral("sha256")].toString().toLatin1(), sha256Hex("0123"));
    EXPECT_EQ(fileOf(finalize(upload, "key-1")), first);
    EXPECT_EQ(fileCount(), 1);
    EXPECT_EQ(finalize(upload, "another-key").errorCode(), int(HalvaneServerErrorCode::UploadGone));
    EXPECT_EQ(finalize(upload, "another-key").status, 410);
}

TEST_P(UploadsContract, AFinalisedUploadIsGone) {
    const int upload = openOf(4, "key-1");
    sendAll(upload, "0123");
    EXPECT_EQ(finalize(upload, "key-1").status, 200);
    EXPECT_EQ(get(QStringLiteral("/uploads/%1").arg(upload)).errorCode(),
              int(HalvaneServerErrorCode::UploadGone));
    EXPECT_EQ(putChunk(upload, 0, "0123").errorCode(), int(HalvaneServerErrorCode::UploadGone));
    EXPECT_TRUE(get(QStringLiteral("/uploads")).data()[QStringLiteral("uploads")].toArray().isEmpty());
}

TEST_P(UploadsContract, WhatBecameOfAnUploadIsKnownByItsKey) {
    EXPECT_EQ(get(QStringLiteral("/uploads/by-key/key-1")).errorCode(),
              int(HalvaneServerErrorCode::NotFound));
    const int upload = openOf(4, "key-1");
    const QJsonObject open = get(QStringLiteral("/uploads/by-key/key-1")).data();
    EXPECT_EQ(open[QStringLiteral("state")].toString(), QStringLiteral("open"));
    EXPECT_EQ(open[QStringLiteral("upload")].toObject()[QStringLiteral("upload_id")].toInt(), upload);
    sendAll(upload, "0123");
    const QJsonObject file = fileOf(finalize(upload, "key-1"));
    const QJsonObject done = get(QStringLiteral("/uploads/by-key/key-1")).data();
    EXPECT_EQ(done[QStringLiteral("state")].toString(), QStringLiteral("finalized"));
    EXPECT_EQ(done[QStringLiteral("file")].toObject(), file);
}

TEST_P(UploadsContract, AnAbandonedUploadIsGone) {
    const int upload = openOf(4, "key-1");
    const QString path = QStringLiteral("/uploads/%1").arg(upload);
    EXPECT_EQ(call(Method::Delete, path).status, 200);
    EXPECT_TRUE(get(QStringLiteral("/uploads")).data()[QStringLiteral("uploads")].toArray().isEmpty());
    EXPECT_NE(putChunk(upload, 0, "0123").errorCode(), 0);
    EXPECT_EQ(fileCount(), 0);
}

TEST_P(UploadsContract, ANewVersionKeepsTheNameOfTheFile) {
    const int file = makeFile(QStringLiteral("run.raw"), "old");
    EXPECT_EQ(addVersion(file, "newer"), 2);
    EXPECT_EQ(get(QStringLiteral("/files/%1").arg(file)).data()[QStringLiteral("name")].toString(),
              QStringLiteral("run.raw"));
    EXPECT_EQ(fileCount(), 1);
}

TEST_P(UploadsContract, AnExpectedVersionThatIsNotTheLastIsAConflict) {
    const int file = makeFile(QStringLiteral("run.raw"), "old");
    addVersion(file, "newer");
    for (const int expected : {1, 2}) {
        const QByteArray key = "expects-" + QByteArray::number(expected);
        const int upload = post(QStringLiteral("/uploads"),
                                {{QStringLiteral("name"), QStringLiteral("run.raw")},
                                 {QStringLiteral("size"), 4},
                                 {QStringLiteral("target_id"), file},
                                 {QStringLiteral("target_type"), 0},
                                 {QStringLiteral("source_modified_at"), QJsonValue()},
                                 {QStringLiteral("expected_version"), expected}},
                                key)
                               .data()[QStringLiteral("upload_id")]
                               .toInt();
        sendAll(upload, "0123");
        const Answer answer = finalize(upload, key);
        EXPECT_EQ(answer.status, expected == 2 ? 200 : 409);
        EXPECT_EQ(answer.errorCode(), expected == 2 ? 0 : int(HalvaneServerErrorCode::VersionConflict));
    }
}

TEST_P(UploadsContract, TheFinalisationChecksItsFields) {
    const int upload = openOf(4, "key-1");
    sendAll(upload, "0123");
    EXPECT_EQ(post(QStringLiteral("/uploads/finalize"), {{QStringLiteral("file_alias"), QString()}}, "key-1")
                  .errorCode(),
              int(HalvaneServerErrorCode::BadRequest));
    EXPECT_EQ(post(QStringLiteral("/uploads/finalize"),
                   {{QStringLiteral("upload_id"), upload},
                    {QStringLiteral("force_data_type"), QStringLiteral("?")}},
                   "key-1")
                  .errorCode(),
              int(HalvaneServerErrorCode::BadRequest));
    EXPECT_EQ(
        post(QStringLiteral("/uploads/finalize"), {{QStringLiteral("upload_id"), 9999}}, "key-2").errorCode(),
        int(HalvaneServerErrorCode::NotFound));
    const QJsonObject body{{QStringLiteral("upload_id"), upload},
                           {QStringLiteral("force_data_type"), QStringLiteral("MS")},
                           {QStringLiteral("unheard_of"), 1}};
    const int file =
        fileOf(post(QStringLiteral("/uploads/finalize"), body, "key-1"))[QStringLiteral("id")].toInt();
    EXPECT_EQ(get(QStringLiteral("/files/%1").arg(file)).data()[QStringLiteral("data_type")].toString(),
              QStringLiteral("MS"));
}

} // namespace
} // namespace orx::testing
