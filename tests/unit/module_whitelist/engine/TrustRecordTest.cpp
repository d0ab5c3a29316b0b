#include "TrustRecord.h"

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace EngineTest {
namespace {

using Engine::ProcessInfo;
using Engine::TrustRecord;
using Engine::TrustRecordSet;

const std::string DIGEST = "00ff0123456789abcdeffedcba98765432100123456789abcdef0123456789ab";

ProcessInfo Info(const std::string& path, const std::string& name, const std::string& hash) {
    ProcessInfo info;
    info.path = path;
    info.name = name;
    info.hash = hash;
    info.type = Engine::MATCH_PATH;
    info.size = 1LL << 40;
    return info;
}

void ExpectKept(const ProcessInfo& info) {
    const TrustRecord record(info);
    EXPECT_EQ(record.GetPath(), info.path);
    EXPECT_TRUE(record.HasHash(info.hash));
    const ProcessInfo kept = record.Expand();
    EXPECT_EQ(kept.path, info.path);
    EXPECT_EQ(kept.name, info.name);
    EXPECT_EQ(kept.hash, info.hash);
    EXPECT_EQ(kept.type, info.type);
    EXPECT_EQ(kept.size, info.size);
}

TEST(TrustRecordTest, KeepsAnEntryWhateverItsTexts) {
    const std::string withNul("/bin/a\0b", 8);
    for (const std::string& hash :
         {DIGEST, std::string(), std::string("short"), std::string(64, 'A'), std::string(64, 'g'), DIGEST + "00"}) {
        ExpectKept(Info("/usr/bin/tool", "tool", hash));
        ExpectKept(Info("/usr/bin/tool", "another name", hash));
        ExpectKept(Info("/usr/bin/tool", "", hash));
        ExpectKept(Info("", "", hash));
        ExpectKept(Info("tool", "longer than tool", hash));
        ExpectKept(Info(withNul, withNul, hash));
    }
}

TEST(TrustRecordTest, KeepsNothingOfAProcess) {
    ProcessInfo info = Info("/usr/bin/tool", "tool", DIGEST);
    info.pid = 7;
    info.cmdline = "tool --flag";
    info.trusted = true;
    const ProcessInfo kept = TrustRecord(info).Expand();
    EXPECT_EQ(kept.pid, 0);
    EXPECT_TRUE(kept.cmdline.empty());
    EXPECT_FALSE(kept.trusted);
}

TEST(TrustRecordTest, ComparesHashesAsTexts) {
    const TrustRecord digest(Info("/a", "a", DIGEST));
    std::string upper = DIGEST;
    upper[2] = 'F';
    for (const std::string& other : {std::string(), upper, DIGEST.substr(1), DIGEST + "0", std::string(64, '0')}) {
        EXPECT_FALSE(digest.HasHash(other)) << other;
    }
    const TrustRecord text(Info("/a", "a", upper));
    EXPECT_TRUE(text.HasHash(upper));
    EXPECT_FALSE(text.HasHash(DIGEST));
}

TEST(TrustRecordTest, ASetHasTheOrderOfAMapByPath) {
    const std::vector<std::string> paths = {"/b", "/a/\xC3\xA4", "/a/z", "", "/a", "/a.sh", "/b"};
    std::map<std::string, int> expected;
    TrustRecordSet records;
    for (const std::string& path : paths) {
        expected[path];
        records.emplace(Info(path, "name", DIGEST));
    }
    ASSERT_EQ(records.size(), expected.size());
    auto record = records.begin();
    for (const auto& [path, unused] : expected) {
        EXPECT_EQ((record++)->GetPath(), path);
    }
    EXPECT_NE(records.find("/a.sh"), records.end());
    EXPECT_EQ(records.find("/a.s"), records.end());
}

} // namespace
} // namespace EngineTest
