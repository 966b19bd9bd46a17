// Chunks that are long enough to go to the disk directly and into the hash from memory.
#include "blobs/blob_store.h"
#include "blobs/chunk_buffers.h"
#include "support/server_test.h"

#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/resource.h>
#include <thread>

namespace halvane::server {

using nlohmann::json;

constexpr std::size_t chunkSize = 2 * 1024 * 1024;

class LongChunks : public ServerTest {
protected:
    void SetUp() override {
        ServerTest::SetUp();
        restart();
    }
    void restart() {
        ASSERT_EQ(stop(), 0);
        start({"--chunk-size", std::to_string(chunkSize)});
    }
    static std::string chunkOf(const std::string& content, int index) {
        return content.substr(static_cast<std::size_t>(index) * chunkSize, chunkSize);
    }
    void put(int upload, const std::string& content, std::initializer_list<int> indices) const {
        for (const int index : indices)
            ASSERT_EQ(putChunk(upload, index, chunkOf(content, index)).status, 200) << index;
    }
    void expectFinalised(int upload, const std::string& content) const {
        ASSERT_EQ(declareSha256(upload, content).status, 200);
        const Reply reply = finalize(upload);
        ASSERT_EQ(reply.status, 200) << reply.body;
        const json file = reply.data().at("file");
        EXPECT_EQ(file.at("sha256"), sha256Text(content));
        EXPECT_TRUE(contentOf(file.at("id")) == content);
    }
    // Whether the server has a staging file open for direct writes.
    bool writesDirectly() const {
        const std::filesystem::path process = "/proc/" + std::to_string(pid());
        for (const auto& entry : std::filesystem::directory_iterator(process / "fd")) {
            std::error_code gone;
            if (std::filesystem::read_symlink(entry, gone).string().find("/staging/") == std::string::npos)
                continue;
            std::ifstream info(process / "fdinfo" / entry.path().filename());
            std::string word;
            while (info >> word && word != "flags:") {
            }
            unsigned flags = 0;
            info >> std::oct >> flags;
            if ((flags & static_cast<unsigned>(O_DIRECT)) != 0)
                return true;
        }
        return false;
    }
    bool fileSystemHasDirectWrites() const {
        const std::string path = temporaryFile("direct");
        return Descriptor(::open(path.c_str(), O_WRONLY | O_CREAT | O_DIRECT | O_CLOEXEC, 0600)).isOpen();
    }
};

TEST_F(LongChunks, AreWrittenDirectlyAndShortOnesAreNot) {
    const std::string small = sampleBytes(chunkSize / 4);
    const int smallId = openUpload("small", small.size()).at("upload_id");
    put(smallId, small, {0});
    EXPECT_FALSE(writesDirectly());
    expectFinalised(smallId, small);

    const std::string content = sampleBytes(chunkSize + 1);
    const int id = openUpload("large", content.size()).at("upload_id");
    put(id, content, {0, 1});
    EXPECT_EQ(writesDirectly(), fileSystemHasDirectWrites());
    expectFinalised(id, content);
}

TEST_F(LongChunks, EveryLengthOfTheLastChunkArrivesWhole) {
    for (const std::size_t last : {std::size_t{1}, std::size_t{4096}, chunkSize / 2, chunkSize / 2 + 1,
                                   chunkSize / 2 + 4096, chunkSize - 1, chunkSize}) {
        const std::string content = sampleBytes(2 * chunkSize + last, static_cast<unsigned>(last));
        const json upload = openUpload("a", content.size());
        putAll(upload, content);
        expectFinalised(upload.at("upload_id"), content);
    }
}

TEST_F(LongChunks, ComeInAnyOrder) {
    const std::string content = sampleBytes(5 * chunkSize + 12'345);
    for (const auto& order :
         {std::initializer_list<int>{5, 4, 3, 2, 1, 0}, {1, 0, 3, 2, 5, 4}, {0, 3, 1, 5, 4, 2}}) {
        const int id = openUpload("a", content.size()).at("upload_id");
        put(id, content, order);
        expectFinalised(id, content);
    }
}

TEST_F(LongChunks, AReplacedOneCountsWithItsNewContent) {
    const std::string content = sampleBytes(4 * chunkSize - 7);
    const std::string other = sampleBytes(4 * chunkSize - 7, 2);
    const int id = openUpload("a", content.size()).at("upload_id");
    put(id, other, {0, 2, 3});
    put(id, content, {0, 1, 2, 3});
    put(id, content, {1, 3}); // once more the same
    expectFinalised(id, content);
}

TEST_F(LongChunks, ADamagedOneDoesNotCountAndIsSentAgain) {
    const std::string content = sampleBytes(2 * chunkSize);
    const int id = openUpload("a", content.size()).at("upload_id");
    const Reply wrong = rawCall("PUT", "/uploads/" + std::to_string(id) + "/chunks/0", chunkOf(content, 1),
                                {{"Halvane-Chunk-Xxh3", xxh3Text(chunkOf(content, 0))}});
    EXPECT_EQ(wrong.errorCode(), 7);
    EXPECT_EQ(get("/uploads/" + std::to_string(id)).data().at("received"), json::array());
    put(id, content, {0, 1});
    expectFinalised(id, content);
}

TEST_F(LongChunks, SurviveAKillAndAreGoneOnWith) {
    const std::string content = sampleBytes(4 * chunkSize + 100);
    const int id = openUpload("a", content.size()).at("upload_id");
    put(id, content, {0, 1, 3});
    kill();
    start({"--chunk-size", std::to_string(chunkSize)});
    EXPECT_EQ(get("/uploads/" + std::to_string(id)).data().at("received").size(), 3U);
    put(id, content, {2, 4});
    expectFinalised(id, content);
}

TEST_F(LongChunks, AFullDiskIsToldAndTheUploadGoesOn) {
    const std::string content = sampleBytes(3 * chunkSize + 5);
    const int id = openUpload("a", content.size()).at("upload_id");
    put(id, content, {0});
    const rlimit small{chunkSize + chunkSize / 2, RLIM_INFINITY};
    ASSERT_EQ(::prlimit(pid(), RLIMIT_FSIZE, &small, nullptr), 0);
    EXPECT_EQ(putChunk(id, 1, chunkOf(content, 1)).errorCode(), 10);
    const rlimit unlimited{RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(::prlimit(pid(), RLIMIT_FSIZE, &unlimited, nullptr), 0);
    put(id, content, {1, 2, 3});
    expectFinalised(id, content);
}

TEST_F(LongChunks, MoreAtOnceThanThereIsMemoryForArriveAllTheSame) {
    const std::string content = sampleBytes(2 * chunkSize);
    const int id = openUpload("last", content.size()).at("upload_id");
    std::vector<std::unique_ptr<HttpClient>> unfinished; // each has a chunk's memory as long as it is open
    for (int i = 0; i < 20; ++i) {
        const int upload = openUpload("a", content.size()).at("upload_id");
        unfinished.push_back(std::make_unique<HttpClient>(port()));
        unfinished.back()->sendRaw("PUT /api/v1/uploads/" + std::to_string(upload) +
                                   "/chunks/0 HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + token() +
                                   "\r\nContent-Length: " + std::to_string(chunkSize) +
                                   "\r\nHalvane-Chunk-Xxh3: " + xxh3Text("") + "\r\n\r\n" +
                                   content.substr(0, 100'000));
    }
    waitUntil([&] { return filesBelow("staging").size() >= unfinished.size(); });
    put(id, content, {0, 1});
    expectFinalised(id, content);
}

TEST(ChunkBuffers, AreAlignedAndBounded) {
    ChunkBuffers buffers(3 * directAlignment);
    const ChunkBuffers::Buffer one = buffers.take(directAlignment);
    ChunkBuffers::Buffer two = buffers.take(2 * directAlignment - 1);
    ASSERT_TRUE(one && two);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(one->data()) % directAlignment, 0U);
    EXPECT_EQ(two->size(), 2 * directAlignment - 1);
    EXPECT_EQ(buffers.take(1), nullptr);
    two.reset();
    EXPECT_NE(buffers.take(1), nullptr); // what is unused makes room for another size
}

TEST(ChunkBuffers, AreUsedAgainAndOutliveTheirPool) {
    auto buffers = std::make_unique<ChunkBuffers>(directAlignment);
    const std::byte* const place = buffers->take(directAlignment)->data();
    const ChunkBuffers::Buffer again = buffers->take(directAlignment);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->data(), place);
    buffers.reset();
    (*again)[0] = std::byte{1};
}

} // namespace halvane::server
