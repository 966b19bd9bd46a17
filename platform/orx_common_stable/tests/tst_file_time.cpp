#include <FileTime.h>

#include <gtest/gtest.h>

using namespace orx;

namespace {

TEST(FileTime, IsCountedInNanosecondsAsFarAsTheNumberGoes) {
    constexpr qint64 last = std::numeric_limits<qint64>::max();
    constexpr qint64 first = std::numeric_limits<qint64>::min();
    const struct {
        timespec time;
        qint64 nanoseconds;
    } rows[] = {{{0, 0}, 0},
                {{1, 5}, 1'000'000'005},
                {{-1, 999'999'999}, -1},
                {{9'223'372'036, 854'775'807}, last},
                {{9'223'372'036, 854'775'808}, last},
                {{10'413'792'000, 0}, last}, // the year 2300
                {{-10'413'792'000, 0}, first}};
    for (const auto& [time, nanoseconds] : rows)
        EXPECT_EQ(nanosecondsOf(time), nanoseconds) << time.tv_sec << ' ' << time.tv_nsec;
}

} // namespace
