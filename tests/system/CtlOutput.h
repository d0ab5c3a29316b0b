#pragma once

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sdk/JsonUtils.h"
#include "system/Agent.h"

// What the operator's program printed, read and compared.
namespace SystemTest {

inline Json::Value Parse(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text, value), 0) << text;
    return value;
}

// One value a line.
inline std::vector<Json::Value> ParseLines(const std::string& text) {
    std::vector<Json::Value> values;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        values.push_back(Parse(line));
    }
    return values;
}

// Its status, nothing on standard output, one line that says what and why.
inline void ExpectFailure(const Result& result, int status, const std::string& part) {
    EXPECT_EQ(result.status, status) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, testing::StartsWith("corvalentctl: "));
    EXPECT_THAT(result.err, testing::HasSubstr(part));
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
}

} // namespace SystemTest
