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

// FIPS 180-4, the examples of its algorithm.
TEST(TextDigest, IsTheSha256OfAllItsBytes) {
    EXPECT_EQ(CryptoCodeUtils::GetSha256(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(CryptoCodeUtils::GetSha256("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_NE(CryptoCodeUtils::GetSha256(std::string("a\0b", 3)), CryptoCodeUtils::GetSha256("a"));
}
