#include <algorithm>
#include <filesystem>

#include <sched.h>
#include <sys/mount.h>

#include "TrustEngineTest.h"

namespace EngineTest {

namespace {

using Names = std::vector<std::string>;

// What is mounted from here on is seen by this thread alone.
bool HaveOwnMounts() {
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

class InterpreterNamesTest : public TrustEngineTest {};

} // namespace

TEST_F(InterpreterNamesTest, AreTheFileNamesOfTheShellsAndPython) {
    const std::string shell = root.Write("shells/myshell", "");
    std::filesystem::create_symlink(shell, root / "link");
    const std::string shells =
        root.Write("etc-shells", "# comment\n\n  " + shell + " \t\r\n/no/such/shell\n" + root / "link" + "\n" +
                                     "relative\n" + std::string(5000, 'x') + "\n/bin/bash");
    if (!HaveOwnMounts() || mount(shells.c_str(), "/etc/shells", nullptr, MS_BIND, nullptr) != 0) {
        GTEST_SKIP() << "/etc/shells cannot be replaced (needs root)";
    }
    const Names expected{"myshell", "myshell", "bash", "python"};
    engine.GetInterpreterName();
    EXPECT_EQ(engine.GetInterpreterNames(), expected);
    engine.GetInterpreterName();
    EXPECT_EQ(engine.GetInterpreterNames(), expected);
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(InterpreterNamesTest, WithoutShellsThereIsOnlyPython) {
    if (!HaveOwnMounts() || mount("none", "/etc", "tmpfs", 0, nullptr) != 0) {
        GTEST_SKIP() << "/etc cannot be hidden (needs root)";
    }
    engine.GetInterpreterName();
    EXPECT_EQ(engine.GetInterpreterNames(), Names{"python"});
}

TEST_F(InterpreterNamesTest, OfThisHostHoldBashAndEndWithPython) {
    engine.GetInterpreterName();
    const Names names = engine.GetInterpreterNames();
    EXPECT_EQ(std::count(names.begin(), names.end(), "bash") > 0, std::filesystem::exists("/etc/shells"));
    EXPECT_EQ(names.back(), "python");
}

} // namespace EngineTest
