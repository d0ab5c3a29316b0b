#include "ctl/preset/Verification.h"

#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/ctl/preset/FakeHost.h"

namespace Ctl::Preset {
namespace {

class VerificationTest : public testing::Test {
protected:
    VerificationTest() : root(host.Path()) {
        for (const char* name : {"/opt/a", "/opt/b", "/opt/c"}) {
            host.AddProgram(name);
        }
        entries = ToEntries(ConductSurvey(root, {"/opt"}, 2), "os");
    }

    std::vector<std::string> States() const {
        std::vector<std::string> states;
        for (const Finding& finding : CompareWithDisk(root, entries, 2)) {
            states.emplace_back(NameOf(finding.state));
        }
        return states;
    }

    TestSupport::FakeHost host;
    HostRoot root;
    std::vector<Entry> entries;
};

TEST_F(VerificationTest, AnUntouchedHostIsOk) {
    EXPECT_THAT(States(), testing::ElementsAre("ok", "ok", "ok"));
    EXPECT_THAT(FindNew(ConductSurvey(root, {"/opt"}, 2), entries), testing::IsEmpty());
}

TEST_F(VerificationTest, EveryEntryIsTold) {
    host.Add("/opt/a", "#!/bin/sh\n");
    std::filesystem::remove(host / "opt/b");
    std::filesystem::remove(host / "opt/c");
    std::filesystem::create_directory(host / "opt/c");
    entries.push_back({"relative", std::string(64, 'a'), "", ""});
    const std::vector<Finding> findings = CompareWithDisk(root, entries, 2);
    EXPECT_THAT(States(), testing::ElementsAre("changed", "missing", "unreadable", "unreadable"));
    EXPECT_EQ(findings[0].expected, entries[0].sha256);
    EXPECT_EQ(findings[0].found, ConductSurvey(root, {"/opt"}, 1).executables[0].sha256);
    EXPECT_EQ(findings[2].reason, "Is a directory");
    EXPECT_EQ(findings[3].reason, "no absolute path");
}

TEST_F(VerificationTest, AnExecutableIsNewWhenNoEntryHasItsDigestOrItsPath) {
    host.Add("/opt/copy-of-a", host.Read("opt/a"));
    host.AddProgram("/opt/new");
    host.Add("/opt/b", "#!/bin/changed");
    const std::vector<Finding> added = FindNew(ConductSurvey(root, {"/opt"}, 2), entries);
    ASSERT_EQ(added.size(), 1U);
    EXPECT_EQ(added[0].path, "/opt/new");
    EXPECT_EQ(added[0].state, Finding::NEW);
    EXPECT_EQ(added[0].expected, "");
}

} // namespace
} // namespace Ctl::Preset
