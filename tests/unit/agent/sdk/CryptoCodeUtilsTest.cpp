#include <cstddef>
#include <regex>
#include <set>

#include <gtest/gtest.h>

#include "sdk/CryptoCodeUtils.h"

using SDK::CryptoCodeUtils;

TEST(Uuid, HasTheFormOfVersionFour) {
    const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    for (int i = 0; i < 200; ++i) {
        const std::string uuid = CryptoCodeUtils::GenerateUUID();
        EXPECT_TRUE(std::regex_match(uuid, form)) << uuid;
    }
}

TEST(Uuid, IsFreshEveryTime) {
    constexpr std::size_t COUNT = 10000;
    std::set<std::string> seen;
    for (std::size_t i = 0; i < COUNT; ++i) {
        seen.insert(CryptoCodeUtils::GenerateUUID());
    }
    EXPECT_EQ(seen.size(), COUNT);
}
