#include <Quantities.h>

#include <gtest/gtest.h>

#include <utility>

using namespace halvane::host;

namespace {

QString text(const char* characters) {
    return QString::fromUtf8(characters);
}

} // namespace

TEST(Quantities, SizesCountInPowersOf1024) {
    const std::pair<const char*, qint64> cases[] = {
        {"0", 0},
        {"4096", 4096},
        {"1k", 1024},
        {"500M", qint64(500) * 1024 * 1024},
        {"20G", qint64(20) * 1024 * 1024 * 1024},
        {"3t", qint64(3) * 1024 * 1024 * 1024 * 1024},
        {"9223372036854775807", std::numeric_limits<qint64>::max()},
    };
    for (const auto& [written, bytes] : cases) {
        const auto parsed = parseSize(text(written));
        ASSERT_FALSE(parsed.hasError()) << written;
        EXPECT_EQ(parsed.value(), bytes) << written;
    }
}

TEST(Quantities, WhatIsNoSizeIsRefusedWithTheForms) {
    for (const char* written : {"", "G", "-1", "+1", "1.5G", "20 G", " 20G", "20GB", "20X", "0x10", "1e3",
                                "\u0663", "9223372036854775808", "8388608T", "99999999999999999999G"}) {
        const auto parsed = parseSize(text(written));
        ASSERT_TRUE(parsed.hasError()) << written;
        EXPECT_TRUE(parsed.error().is(orx::ErrorCode::InvalidArgument)) << written;
        EXPECT_TRUE(parsed.errorMessage().contains(text("500M"))) << written;
    }
}

TEST(Quantities, AgesHaveAUnit) {
    using namespace std::chrono_literals;
    const std::pair<const char*, std::chrono::seconds> cases[] = {
        {"0s", 0s}, {"90s", 90s}, {"30m", 30min}, {"12h", 12h}, {"30d", 30 * 24h}, {"8W", 56 * 24h}};
    for (const auto& [written, seconds] : cases) {
        const auto parsed = parseAge(text(written));
        ASSERT_FALSE(parsed.hasError()) << written;
        EXPECT_EQ(parsed.value(), seconds) << written;
    }
}

TEST(Quantities, WhatIsNoAgeIsRefusedWithTheForms) {
    for (const char* written :
         {"", "d", "30", "-1d", "1.5h", "30 d", "30y", "9223372036854775807w", "100000w"}) {
        const auto parsed = parseAge(text(written));
        ASSERT_TRUE(parsed.hasError()) << written;
        EXPECT_TRUE(parsed.error().is(orx::ErrorCode::InvalidArgument)) << written;
        EXPECT_TRUE(parsed.errorMessage().contains(text("30d"))) << written;
    }
}
