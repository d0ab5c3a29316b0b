#pragma once

#include <filesystem>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sdk/JsonUtils.h"
#include "support/TempRoot.h"

// What an agent leaves on the disk, looked at while it does not run.
namespace SystemTest {

inline std::set<std::string> NamesIn(const std::string& folder) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

// Whether a file of that name is one that was being written when the agent was killed.
inline bool IsTemporary(const std::string& name) {
    return name.starts_with(".corvalent-");
}

// The state files and nothing else, each as it is written.
inline void ExpectWhole(const TestSupport::TempDir& root, const std::set<std::string>& names) {
    EXPECT_THAT(names,
                testing::IsSubsetOf({"agent.json", "policy.json", "desired.json", "modwhitelist.ini", "whitelist.data",
                                     "arsserverproc.data", "osPresetProcess.dat", "servicePresetProcess.dat"}));
    for (const std::string& name : names) {
        const std::string text = root.Read("conf/" + name);
        Json::Value document;
        EXPECT_TRUE(name == "modwhitelist.ini" || text.empty() || SDK::JsonUtils::ParseJsonStr(text, document) == 0)
            << name << ": " << text;
    }
    // Blank lines count for nothing.
    const std::string state = root.Read("conf/modwhitelist.ini");
    EXPECT_THAT(state, testing::AnyOf("", testing::MatchesRegex("\\[Driver\\]\nLearnTime=[0-9]+\n+LearnMod=[0-3]\n+")));
}

// After an orderly end.
inline void ExpectWholeStateFiles(const TestSupport::TempDir& root) {
    ExpectWhole(root, NamesIn(root / "conf"));
}

} // namespace SystemTest
