#include <RunSummaries.h>

#include <gtest/gtest.h>

#include <array>
#include <thread>
#include <vector>

using namespace orx;

TEST(Summarise, givesTheSameOnSeveralThreadsAtOnce) {
    const std::array names{"tiny.mzML", "two-scans.mzXML", "wrong-count.mzML", "sqlite-frames.d"};
    const auto read = [&](size_t i) {
        return summarise(QStringLiteral(ORX_TEST_DATA_DIR "/") + QString::fromLatin1(names[i]))
            .valueOr(RunSummary());
    };
    std::array<RunSummary, names.size()> expected;
    for (size_t i = 0; i < names.size(); ++i) {
        expected[i] = read(i);
        EXPECT_GT(expected[i].spectrumCount(), 0) << names[i];
    }
    std::vector<std::array<RunSummary, names.size()>> found(4);
    {
        std::vector<std::jthread> threads;
        for (size_t t = 0; t < found.size(); ++t) {
            threads.emplace_back([&, t] {
                // Each thread begins with another one.
                for (size_t i = 0; i < names.size(); ++i)
                    found[t][(i + t) % names.size()] = read((i + t) % names.size());
            });
        }
    }
    for (const auto& ofThread : found)
        EXPECT_EQ(ofThread, expected);
}
