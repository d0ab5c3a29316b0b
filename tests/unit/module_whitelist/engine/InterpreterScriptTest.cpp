#include <filesystem>

#include <fcntl.h>
#include <unistd.h>

#include "TrustEngineTest.h"
#include "support/ForeignProcess.h"
#include "utils/ProcessUtils.h"

namespace EngineTest {

namespace {

using namespace AntiransonwareProcessUtils;
using TestSupport::ForeignProcess;

constexpr const char* WAIT_FOR_INPUT = "echo ready; read -r line\n";

const std::vector<std::string> NAMES = {"bash", "python"};

bool IsInterpreter(const std::string& path, const std::vector<std::string>& names) {
    ProcessInfo info;
    info.path = path;
    return IsInterpreterProcess(info, names);
}

// Holds a file open in this process.
class OpenFile {
public:
    explicit OpenFile(const std::string& path) : mFd(open(path.c_str(), O_RDONLY)) {}
    ~OpenFile() { close(mFd); }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    int Fd() const { return mFd; }

private:
    int mFd;
};

class InterpreterScriptTest : public TrustEngineTest {
protected:
    std::string CopyBash(const std::string& name) const { return CopyProgram("/bin/bash", name); }

    // The record of a running program as events make it, checked for a script. Its program must have
    // been recognised as an interpreter.
    static ProcessInfo Check(const ForeignProcess& process) {
        ProcessInfo info(process.Pid());
        EXPECT_TRUE(RetreiveProcessImage(info));
        EXPECT_TRUE(CheckInterpreterProcess(info, NAMES));
        EXPECT_EQ(info.type, 2);
        EXPECT_TRUE(info.detailRetrieved);
        return info;
    }

    void ExpectScript(const ProcessInfo& info, const std::string& path, const std::string& name,
                      const std::string& content) const {
        EXPECT_EQ(info.path, path);
        EXPECT_EQ(info.name, name);
        EXPECT_EQ(info.hash, Digest(content));
    }
    void ExpectInterpreter(const ProcessInfo& info, const std::string& program) const {
        EXPECT_EQ(info.path, program);
        EXPECT_EQ(info.name, NameOf(program));
        EXPECT_EQ(info.hash, DigestOfFile(program));
    }
    long Found(const std::string& how, const std::string& path, const std::string& end) const {
        return log.Count(Message::PRIO_DEBUG, how + path + end);
    }
    long FoundInCommand(const std::string& path) const { return Found("find shell file:", path, "."); }
    long FoundAmongOpenFiles(const std::string& path) const {
        return Found("find interpreter file from fd [", path, "]");
    }
    // Looks among this process's own open files.
    static bool LookAmongOpenFiles(ProcessInfo& info, const std::vector<std::string>& arguments) {
        info.pid = getpid();
        return GetFileInfoFromFd(info, arguments);
    }
};

} // namespace

// ---- Recognition -----------------------------------------------------------------------------------

TEST_F(InterpreterScriptTest, PythonStandsForEveryNameThatBeginsWithIt) {
    EXPECT_TRUE(IsInterpreter("/usr/bin/python3.9", {"python"}));
    EXPECT_TRUE(IsInterpreter("/usr/bin/python", {"bash", "python"}));
    EXPECT_FALSE(IsInterpreter("/usr/bin/python", {"python3"}));
    EXPECT_FALSE(IsInterpreter("/usr/bin/python3.9", {"python3"}));
    EXPECT_FALSE(IsInterpreter("/usr/bin/pytho", {"python"}));
    EXPECT_FALSE(IsInterpreter("/usr/bin/ipython", {"python"}));
    EXPECT_FALSE(IsInterpreter("/usr/bin/Python3", {"python"}));
}

TEST_F(InterpreterScriptTest, EveryOtherNameMustBeEqual) {
    EXPECT_TRUE(IsInterpreter("/bin/bash", {"bash"}));
    EXPECT_FALSE(IsInterpreter("/bin/bash", {"Bash", "bas", "bash5"}));
    EXPECT_FALSE(IsInterpreter("/bin/bash5", {"bash"}));
    EXPECT_FALSE(IsInterpreter("/bin/bash", {}));
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(InterpreterScriptTest, RecognitionSetsTheNameInAnyCase) {
    ProcessInfo info;
    info.path = "/bin/tool";
    EXPECT_FALSE(IsInterpreterProcess(info, {}));
    EXPECT_EQ(info.name, "tool");
    info.path = "bash";
    EXPECT_FALSE(IsInterpreterProcess(info, {"bash", "tool"}));
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "Process Image path erros bash"), 1);
}

TEST_F(InterpreterScriptTest, WhatIsNoInterpreterIsLeftAloneButForItsName) {
    ProcessInfo info(getpid());
    info.path = "/bin/tool";
    EXPECT_FALSE(CheckInterpreterProcess(info, NAMES));
    EXPECT_EQ(info.name, "tool");
    EXPECT_EQ(info.path, "/bin/tool");
    EXPECT_EQ(info.type, 0);
    EXPECT_FALSE(info.detailRetrieved);
    EXPECT_EQ(info.hash + info.cmdline, "");
}

// ---- The command line ------------------------------------------------------------------------------

TEST_F(InterpreterScriptTest, ARelativeScriptIsFoundInTheWorkingDirectory) {
    const std::string script = root.Write("home/script.py", WAIT_FOR_INPUT);
    const ForeignProcess process({.words = {CopyBash("python"), "script.py"}, .folder = root / "home"});
    ASSERT_TRUE(process.AwaitLine());
    ExpectScript(Check(process), script, "script.py", WAIT_FOR_INPUT);
    EXPECT_EQ(FoundInCommand(script), 1);
}

TEST_F(InterpreterScriptTest, OptionsAreNoFilesSoTheScriptBehindThemIsFound) {
    const std::string script = root.Write("opt/a.sh", WAIT_FOR_INPUT);
    const ForeignProcess process({.words = {CopyBash("bash"), "-x", script, "argument"}});
    ASSERT_TRUE(process.AwaitLine());
    const ProcessInfo info = Check(process);
    ExpectScript(info, script, "a.sh", WAIT_FOR_INPUT);
    EXPECT_EQ(info.cmdline, root / "programs/bash -x " + script + " argument");
}

TEST_F(InterpreterScriptTest, ARelativePathIsNotNormalised) {
    root.Write("home/s.sh", WAIT_FOR_INPUT);
    const ForeignProcess process({.words = {CopyBash("bash"), "./s.sh"}, .folder = root / "home"});
    ASSERT_TRUE(process.AwaitLine());
    ExpectScript(Check(process), root / "home/./s.sh", "s.sh", WAIT_FOR_INPUT);
}

TEST_F(InterpreterScriptTest, TheFirstArgumentThatIsAFileWins) {
    const std::string first = root.Write("first.sh", WAIT_FOR_INPUT);
    const std::string second = root.Write("second.sh", "exit\n");
    const ForeignProcess process({.words = {CopyBash("bash"), first, second}});
    ASSERT_TRUE(process.AwaitLine());
    ExpectScript(Check(process), first, "first.sh", WAIT_FOR_INPUT);

    ProcessInfo info(getpid());
    EXPECT_TRUE(GetFileInfoFromCmd(info, {first, root / "missing", root.Path(), second, first}));
    ExpectScript(info, second, "second.sh", "exit\n");
}

TEST_F(InterpreterScriptTest, InTheRootDirectoryThePrefixIsItsPathAndASlash) {
    const ForeignProcess process({.words = {CopyBash("bash"), "-c", WAIT_FOR_INPUT}, .folder = "/"});
    ASSERT_TRUE(process.AwaitLine());
    ProcessInfo info(process.Pid());
    EXPECT_TRUE(GetFileInfoFromCmd(info, {"bash", "etc/passwd"}));
    ExpectScript(info, "//etc/passwd", "passwd", TestSupport::TempDir::ReadText("/etc/passwd"));
}

TEST_F(InterpreterScriptTest, TheInterpreterItselfIsNotLookedAt) {
    ProcessInfo info(getpid());
    EXPECT_FALSE(GetFileInfoFromCmd(info, {root.Write("script.sh", "")}));
    EXPECT_FALSE(GetFileInfoFromCmd(info, {}));
    EXPECT_EQ(info.path, "");
}

TEST_F(InterpreterScriptTest, RunsOfBlanksSeparateArgumentsOnce) {
    const std::string script = root.Write("script.sh", "exit\n");
    ProcessInfo info(getpid());
    info.path = root.Write("bash", "an image");
    info.cmdline = "bash   -x  " + script;
    EXPECT_TRUE(CheckInterpreterProcess(info, NAMES));
    ExpectScript(info, script, "script.sh", "exit\n");
}

TEST_F(InterpreterScriptTest, AScriptThatCannotBeReadHasNoDigest) {
    // A regular file to stat(2), but there is nothing mapped at its beginning.
    ProcessInfo info(getpid());
    info.hash = "of the interpreter";
    EXPECT_TRUE(GetFileInfoFromCmd(info, {"bash", "/proc/self/mem"}));
    EXPECT_EQ(info.path, "/proc/self/mem");
    EXPECT_EQ(info.name, "mem");
    EXPECT_EQ(info.hash, "");
}

TEST_F(InterpreterScriptTest, TheScriptsDigestCoversNoMoreThanTheLimit) {
    const std::string head(LIMIT_BYTES, '#');
    ProcessInfo info(getpid());
    EXPECT_TRUE(GetFileInfoFromCmd(info, {"bash", root.Write("large.sh", head + "tail")}));
    EXPECT_EQ(info.hash, Digest(head));
}

// ---- No script -------------------------------------------------------------------------------------

TEST_F(InterpreterScriptTest, AnInlineProgramKeepsTheInterpretersIdentity) {
    const std::filesystem::path python = "/usr/bin/python3";
    if (!std::filesystem::exists(python)) {
        GTEST_SKIP() << "there is no " << python;
    }
    const std::string program = std::filesystem::canonical(python);
    const ForeignProcess process(
        {.words = {program, "-c", "import sys; print('ready', flush=True); sys.stdin.read()"}, .folder = "/proc"});
    ASSERT_TRUE(process.AwaitLine());
    const ProcessInfo info = Check(process);
    ExpectInterpreter(info, program);
    EXPECT_EQ(
        log.Count(Message::PRIO_DEBUG, "get of /proc/" + std::to_string(process.Pid()) + "/fd/. link path failed."), 1);
}

TEST_F(InterpreterScriptTest, AnInterpreterWithoutArgumentsKeepsItsIdentity) {
    const std::string program = CopyBash("bash");
    const ForeignProcess process({.words = {program}});
    ExpectInterpreter(Check(process), program);
}

TEST_F(InterpreterScriptTest, WithoutACommandLineTheInterpretersIdentityIsKept) {
    ProcessInfo info(NOBODY);
    info.path = root.Write("bash", "an image");
    EXPECT_TRUE(CheckInterpreterProcess(info, NAMES));
    ExpectInterpreter(info, root / "bash");
    EXPECT_EQ(info.type, 2);
    EXPECT_TRUE(info.detailRetrieved);
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(InterpreterScriptTest, DetailsThatAreThereAreNotLookedUpAgain) {
    ProcessInfo info = Record(root.Write("bash", "an image"), "as it was");
    info.pid = NOBODY;
    EXPECT_TRUE(CheckInterpreterProcess(info, NAMES));
    EXPECT_EQ(info.hash, "as it was");
}

TEST_F(InterpreterScriptTest, WithoutAWorkingDirectoryTheOpenFilesAreTried) {
    ProcessInfo info(NOBODY);
    info.cmdline = "bash script.sh";
    EXPECT_FALSE(GetInterpreterInfo(info));
    const auto records = log.Records();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].priority, Message::PRIO_DEBUG);
    EXPECT_EQ(records[0].text, "get of proc [5000000] cwd link path failed.");
    EXPECT_EQ(records[1].priority, Message::PRIO_DEBUG);
    EXPECT_EQ(records[1].text, "opendir /proc/5000000/fd/ error.");
}

// ---- Open files ------------------------------------------------------------------------------------

TEST_F(InterpreterScriptTest, AScriptThatLeftItsDirectoryIsFoundAmongTheOpenFiles) {
    const std::string text = std::string("cd /\n") + WAIT_FOR_INPUT;
    const std::string script = root.Write("home/script.sh", text);
    const ForeignProcess process({.words = {CopyBash("bash"), "script.sh"}, .folder = root / "home"});
    ASSERT_TRUE(process.AwaitLine());
    ExpectScript(Check(process), script, "script.sh", text);
    EXPECT_EQ(FoundAmongOpenFiles(script), 1);
    EXPECT_EQ(FoundInCommand(script), 0);
}

TEST_F(InterpreterScriptTest, AnyArgumentMayNameTheOpenFileEvenTheFirst) {
    const OpenFile file(root.Write("script.sh", "exit\n"));
    ProcessInfo info;
    EXPECT_FALSE(LookAmongOpenFiles(info, {"bash", "script", root / "script.sh", "./script.sh"}));
    EXPECT_EQ(info.path, "");
    EXPECT_TRUE(LookAmongOpenFiles(info, {"script.sh"}));
    ExpectScript(info, root / "script.sh", "script.sh", "exit\n");
}

TEST_F(InterpreterScriptTest, OfTwoOpenFilesTheFirstInDirectoryOrderIsTaken) {
    const OpenFile first(root.Write("1/script.sh", "first"));
    const OpenFile second(root.Write("2/script.sh", "second"));
    ASSERT_LT(first.Fd(), second.Fd());
    ProcessInfo info;
    EXPECT_TRUE(LookAmongOpenFiles(info, {"bash", "script.sh"}));
    ExpectScript(info, root / "1/script.sh", "script.sh", "first");
}

TEST_F(InterpreterScriptTest, AnOpenFileThatWasDeletedIsNotTaken) {
    const std::string path = root.Write("script.sh", "exit\n");
    const OpenFile file(path);
    std::filesystem::remove(path);
    ProcessInfo info;
    EXPECT_FALSE(LookAmongOpenFiles(info, {"bash", "script.sh"}));
    // What the kernel appends is not part of the name, though it is of the path.
    root.Write("script.sh (deleted)", "another file");
    EXPECT_TRUE(LookAmongOpenFiles(info, {"bash", "script.sh"}));
    ExpectScript(info, root / "script.sh (deleted)", "script.sh", "another file");
}

TEST_F(InterpreterScriptTest, PipesDirectoriesAndDevicesAreNoScripts) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const OpenFile folder(root / "conf");
    const OpenFile device("/dev/null");
    ProcessInfo info;
    EXPECT_FALSE(LookAmongOpenFiles(info, {"bash", "conf", "null", "pipe"}));
    close(ends[0]);
    close(ends[1]);
    const std::string directory = "/proc/" + std::to_string(getpid()) + "/fd/";
    EXPECT_EQ(log.Count(Message::PRIO_DEBUG, "get of " + directory + ". link path failed."), 1);
    EXPECT_EQ(log.Count(Message::PRIO_DEBUG, "get of " + directory + ".. link path failed."), 1);
    EXPECT_EQ(log.Records().size(), 2U);
}

} // namespace EngineTest
