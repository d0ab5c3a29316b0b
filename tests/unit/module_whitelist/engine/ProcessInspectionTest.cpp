#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

#include "TrustEngineTest.h"
#include "support/ForeignProcess.h"
#include "utils/ProcessUtils.h"

namespace EngineTest {

namespace {

using namespace AntiransonwareProcessUtils;
using TestSupport::ForeignProcess;

class ProcessInspectionTest : public TrustEngineTest {
protected:
    std::string CopySleep(const std::string& name) const { return CopyProgram("/bin/sleep", name); }
};

} // namespace

// ---- Digest ----------------------------------------------------------------------------------------

TEST_F(ProcessInspectionTest, TheImageDigestCoversNoMoreThanTheLimit) {
    const std::string head(LIMIT_BYTES, 'x');
    std::string hash;
    EXPECT_FALSE(RetrieveImageHash(root.Write("small", "content").c_str(), hash));
    EXPECT_EQ(hash, Digest("content"));
    EXPECT_FALSE(RetrieveImageHash(root.Write("large", head + "tail").c_str(), hash));
    EXPECT_EQ(hash, Digest(head));
}

TEST_F(ProcessInspectionTest, AnImageThatCannotBeReadHasNoDigest) {
    std::string hash = "from before";
    EXPECT_TRUE(RetrieveImageHash((root / "missing").c_str(), hash));
    EXPECT_EQ(hash, "");
    EXPECT_TRUE(log.Records().empty());
}

// ---- Command line ----------------------------------------------------------------------------------

TEST_F(ProcessInspectionTest, TheCommandLineIsTheArgumentsJoinedWithBlanks) {
    const std::string program = CopySleep("tool");
    const ForeignProcess process({.words = {program, "1000", "2000"}});
    ProcessInfo info(process.Pid());
    EXPECT_FALSE(RetreiveProcessCmdLine(info));
    EXPECT_EQ(info.cmdline, program + " 1000 2000");
}

TEST_F(ProcessInspectionTest, TheCommandLineIsCutAtItsLimit) {
    const std::string program = CopyProgram("/bin/bash", "tool");
    const ForeignProcess process({.words = {program, "-c", "read -r line; exit", std::string(8000, 'x')}});
    ProcessInfo info(process.Pid());
    EXPECT_FALSE(RetreiveProcessCmdLine(info));
    EXPECT_EQ(info.cmdline.size(), 4096U);
    EXPECT_EQ(info.cmdline.substr(0, program.size() + 4), program + " -c ");
}

TEST_F(ProcessInspectionTest, TheCommandLineOfAProcessThatIsGoneIsEmpty) {
    ProcessInfo info(NOBODY);
    info.cmdline = "from before";
    EXPECT_TRUE(RetreiveProcessCmdLine(info));
    EXPECT_EQ(info.cmdline, "");
    EXPECT_TRUE(log.Records().empty());
}

// ---- Image and name --------------------------------------------------------------------------------

TEST_F(ProcessInspectionTest, TheImageIsTheProgramThatRuns) {
    const std::string program = CopySleep("tool");
    const ForeignProcess process({.words = {program, "1000"}});
    ProcessInfo info(process.Pid());
    EXPECT_TRUE(RetreiveProcessImage(info));
    EXPECT_EQ(info.path, program);
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(ProcessInspectionTest, TheImageOfAProcessThatIsGoneStaysAsItWas) {
    ProcessInfo info(NOBODY);
    info.path = "/from/before";
    EXPECT_FALSE(RetreiveProcessImage(info));
    EXPECT_EQ(info.path, "/from/before");
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "utils_get_exepath_by_pid failed"), 1);
    const auto record = log.Records().at(0);
    EXPECT_EQ(record.logger, "module_whitelist");
    EXPECT_EQ(record.file, "ProcessUtils.cpp");
    EXPECT_GT(record.line, 0);
}

TEST_F(ProcessInspectionTest, TheNameIsWhatFollowsTheLastSlash) {
    const std::vector<std::pair<std::string, std::string>> names = {
        {"/usr/bin/bash", "bash"}, {"/bash", "bash"}, {"bin/bash", "bash"}, {"/usr/bin/", ""}, {"/", ""}};
    for (const auto& [path, name] : names) {
        ProcessInfo info;
        info.path = path;
        info.name = "from before";
        EXPECT_TRUE(GetProcessNameFromImage(info)) << path;
        EXPECT_EQ(info.name, name) << path;
    }
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(ProcessInspectionTest, AnImageWithoutASlashHasNoName) {
    for (const char* path : {"bash", ""}) {
        ProcessInfo info;
        info.path = path;
        info.name = "from before";
        EXPECT_FALSE(GetProcessNameFromImage(info));
        EXPECT_EQ(info.name, "from before");
        EXPECT_EQ(log.Count(Message::PRIO_ERROR, std::string("Process Image path erros ") + path), 1);
    }
}

// ---- Details ---------------------------------------------------------------------------------------

TEST_F(ProcessInspectionTest, TheDetailsArePathAndDigest) {
    const std::string program = CopySleep("tool");
    const ForeignProcess process({.words = {program, "1000"}});
    ProcessInfo info(process.Pid());
    EXPECT_TRUE(RetrieveProcessDetailInfo(info));
    EXPECT_TRUE(info.detailRetrieved);
    EXPECT_EQ(info.path, program);
    EXPECT_EQ(info.hash, DigestOfFile(program));
    EXPECT_EQ(info.name + info.cmdline, "");
    EXPECT_EQ(info.type, 0);
}

TEST_F(ProcessInspectionTest, AKnownPathIsDigestedWithoutALookAtTheProcess) {
    ProcessInfo info(getpid());
    info.path = root.Write("image", "content");
    RetrieveProcessDetailInfo(info);
    EXPECT_EQ(info.path, root / "image");
    EXPECT_EQ(info.hash, Digest("content"));
    ProcessInfo gone(NOBODY);
    gone.path = root / "image";
    RetrieveProcessDetailInfo(gone);
    EXPECT_EQ(gone.hash, Digest("content"));
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(ProcessInspectionTest, TheDetailsOfAProcessThatIsGoneAreTriedOnce) {
    ProcessInfo info(NOBODY);
    EXPECT_FALSE(RetrieveProcessDetailInfo(info));
    EXPECT_TRUE(info.detailRetrieved);
    EXPECT_EQ(info.path + info.hash, "");
    info.pid = getpid();
    RetrieveProcessDetailInfo(info);
    EXPECT_EQ(info.path + info.hash, "");
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "utils_get_exepath_by_pid failed"), 1);
}

TEST_F(ProcessInspectionTest, DetailsThatAreThereAreNotLookedUpAgain) {
    ProcessInfo info = Record(root.Write("image", "content"), "as it was");
    RetrieveProcessDetailInfo(info);
    EXPECT_EQ(info.hash, "as it was");
}

// ---- Hash check ------------------------------------------------------------------------------------

TEST_F(ProcessInspectionTest, AnUnchangedFilePassesTheHashCheckAndIsDescribed) {
    const std::string path = root.Write("file", "content");
    struct stat status {};
    EXPECT_TRUE(ProcessHashCheck(NOBODY, path.c_str(), Digest("content").c_str(), false, status));
    EXPECT_EQ(status.st_size, 7);
    // Only the first 64 characters count.
    EXPECT_TRUE(ProcessHashCheck(NOBODY, path.c_str(), (Digest("content") + "more").c_str(), false, status));
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(ProcessInspectionTest, AChangedFileFailsTheHashCheckAndIsStillDescribed) {
    const std::string path = root.Write("file", "changed");
    struct stat status {};
    EXPECT_FALSE(ProcessHashCheck(NOBODY, path.c_str(), Digest("content").c_str(), false, status));
    EXPECT_EQ(status.st_size, 7);
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, path + " real:" + Digest("changed") + " expected:" + Digest("content")),
              1);
    EXPECT_EQ(log.Records().size(), 1U);
}

TEST_F(ProcessInspectionTest, AnUppercaseDigestNeverPassesTheHashCheck) {
    std::string expected = Digest("content");
    for (char& character : expected) {
        character = static_cast<char>(character >= 'a' ? character - 'a' + 'A' : character);
    }
    struct stat status {};
    EXPECT_FALSE(ProcessHashCheck(NOBODY, root.Write("file", "content").c_str(), expected.c_str(), false, status));
}

TEST_F(ProcessInspectionTest, AFileThatIsGoneFailsTheHashCheck) {
    const std::string path = root / "missing";
    struct stat status {};
    EXPECT_FALSE(ProcessHashCheck(NOBODY, path.c_str(), Digest("").c_str(), false, status));
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "get sha256 of [" + path + "] failed"), 1);
    EXPECT_EQ(log.Records().size(), 1U);
}

TEST_F(ProcessInspectionTest, TheHashCheckOfAFileCoversNoMoreThanTheLimit) {
    const std::string head(LIMIT_BYTES, 'x');
    struct stat status {};
    EXPECT_TRUE(
        ProcessHashCheck(NOBODY, root.Write("large", head + "tail").c_str(), Digest(head).c_str(), false, status));
}

TEST_F(ProcessInspectionTest, ByItsImageLinkTheFirstPageOfTheProgramIsChecked) {
    const std::string program = CopySleep("tool");
    const ForeignProcess process({.words = {program, "1000"}});
    const std::string firstPage = TestSupport::TempDir::ReadText(program).substr(0, 4096);
    struct stat status {};
    status.st_size = -1;
    EXPECT_TRUE(ProcessHashCheck(process.Pid(), "/named", Digest(firstPage).c_str(), true, status));
    EXPECT_EQ(status.st_size, -1);
    EXPECT_FALSE(ProcessHashCheck(process.Pid(), "/named", DigestOfFile(program).c_str(), true, status));
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "/named real:" + Digest(firstPage) + " expected:" + DigestOfFile(program)),
              1);
}

TEST_F(ProcessInspectionTest, TheImageLinkOfAProcessThatIsGoneFailsTheHashCheck) {
    struct stat status {};
    EXPECT_FALSE(ProcessHashCheck(NOBODY, "/named", Digest("").c_str(), true, status));
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "get sha256 of [/proc/" + std::to_string(NOBODY) + "/exe] failed"), 1);
}

} // namespace EngineTest
