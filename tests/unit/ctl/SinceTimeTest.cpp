#include "ctl/SinceTime.h"

#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

namespace {

constexpr std::int64_t NOW = 1767225600; // 2026-01-01 00:00:00 UTC
constexpr std::int64_t REFUSED = -1;

std::int64_t Since(const std::string& text, const char* zone = "UTC") {
    setenv("TZ", zone, 1);
    tzset();
    std::int64_t seconds = REFUSED;
    const bool understood = Ctl::ParseSince(text, NOW, seconds);
    EXPECT_EQ(understood, seconds != REFUSED) << text;
    return seconds;
}

TEST(SinceTimeTest, SecondsSinceTheEpoch) {
    EXPECT_EQ(Since("0"), 0);
    EXPECT_EQ(Since("1700000000"), 1700000000);
}

TEST(SinceTimeTest, HowLongAgo) {
    EXPECT_EQ(Since("30s"), NOW - 30);
    EXPECT_EQ(Since("10m"), NOW - 600);
    EXPECT_EQ(Since("2h"), NOW - 7200);
    EXPECT_EQ(Since("1d"), NOW - 86400);
    EXPECT_EQ(Since("100000d"), 0); // before the epoch there is nothing
}

TEST(SinceTimeTest, LocalTime) {
    EXPECT_EQ(Since("2026-01-01"), NOW);
    EXPECT_EQ(Since("2025-12-31 23:59:59"), NOW - 1);
    EXPECT_EQ(Since("2025-12-31T23:59:59"), NOW - 1);
    EXPECT_EQ(Since("2026-01-01", "CET-1"), NOW - 3600);
    // Summer time follows from the date.
    EXPECT_EQ(Since("2026-07-01 02:00:00", "Europe/Berlin"), Since("2026-07-01"));
}

TEST(SinceTimeTest, AnythingElseIsRefused) {
    for (const char* text : {"", "yesterday", "-5", "5x", "m", "10 m", "99999999999999999999", "9999999999999999d",
                             "2026-13-01", "2026-02-30", "2026-01-01 25:00:00", "2026-01-01x", "1969-01-01"}) {
        EXPECT_EQ(Since(text), REFUSED) << text;
    }
}

} // namespace
