#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"
#include "support/TempMount.h"
#include "system/evasions/Attempt.h"

namespace SystemTest {
namespace {

using SDK::FileDescriptor;
using TestSupport::ChildProcess;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

constexpr std::uintmax_t DIGESTED_BYTES = 10485760;

class ImageEvasion : public Attempt {
protected:
    void Replace(const std::string& path, const std::string& byCopyOf) const {
        const std::string copy = agent.Work() / "replacement";
        CopyOver(byCopyOf, copy);
        fs::rename(copy, path);
    }

    // What the agent takes for the digest of the file, of zeros behind its end up to the limit.
    std::string DigestOfTheBeginning(const std::string& path) const {
        const std::string beginning = agent.Work() / "beginning";
        CopyOver(path, beginning);
        fs::resize_file(beginning, DIGESTED_BYTES);
        return Sha256Of(beginning);
    }

    // Has the server vouch for a program as it is now.
    void Vouch(const std::string& program, const std::string& digest) {
        Json::Value entry = MakeEntry(program);
        entry["hash"] = digest;
        ASSERT_EQ(agent.Command("whitelist_10001", MakeListDocument({entry})).status, 0);
    }

    int CountExecs() const { return agent.Status()["counters"]["events.exec"].asInt(); }

    // Returns once the digest of the program is known to the agent and the file is not read again.
    void StartUntilRemembered(const std::string& program) const {
        ASSERT_TRUE(WaitFor([&] {
            const Json::Value before = agent.Status()["counters"];
            const ChildProcess process = Start(program);
            Json::Value after;
            WaitFor([&] {
                after = agent.Status()["counters"];
                return after["digest.hit"] != before["digest.hit"] || after["digest.miss"] != before["digest.miss"];
            });
            return after["digest.hit"] != before["digest.hit"];
        }));
    }
};

// Without a new time of any kind, where the file system lets it.
void ChangeLastByteThroughMapping(const std::string& path) {
    const auto size = static_cast<std::size_t>(fs::file_size(path));
    const FileDescriptor file(open(path.c_str(), O_RDWR | O_CLOEXEC));
    void* const mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
    ASSERT_NE(mapping, MAP_FAILED);
    // Read first: what the kernel maps for that can be written to without its noticing on some file systems.
    volatile char& last = static_cast<char*>(mapping)[size - 1];
    ASSERT_NE(last, 'X');
    last = 'X';
    munmap(mapping, size);
}

TEST_F(ImageEvasion, AnImageDeletedAfterItsStartIsJudgedByItsContent) {
    Detect();
    ChildProcess process = [&] {
        const PausedDaemon paused(agent);
        ChildProcess started = Start(evil);
        fs::remove(evil);
        return started;
    }();
    ExpectStopped(process, evil, evilDigest);
}

TEST_F(ImageEvasion, ATrustedImageThatAnUpgradeReplacedStaysTrustedWhileItRuns) {
    Detect();
    const ChildProcess process = [&] {
        const PausedDaemon paused(agent);
        ChildProcess started = Start(known);
        Replace(known, evil);
        return started;
    }();
    ExpectLetGo(process);
}

TEST_F(ImageEvasion, AnImageInMemoryIsJudgedByItsContent) {
    Detect();
    const FileDescriptor memory(memfd_create("nothing to see", MFD_CLOEXEC));
    const std::string content = TestSupport::TempDir::ReadText(evil);
    ASSERT_EQ(write(memory.Get(), content.data(), content.size()), static_cast<ssize_t>(content.size()));
    ChildProcess process = Start(known, [&] {
        std::array<char*, 3> argv = {const_cast<char*>("known"), const_cast<char*>(FOR_A_MINUTE), nullptr};
        fexecve(memory.Get(), argv.data(), environ);
        step::Demand(false, "fexecve");
    });
    ExpectStopped(process, "/memfd:nothing to see", evilDigest);
}

TEST_F(ImageEvasion, AnImageReplacedAfterItsStartIsJudgedByWhatRuns) {
    Detect();
    const std::string original = agent.Work() / "original";
    fs::copy_file(known, original);
    ChildProcess process = [&] {
        const PausedDaemon paused(agent);
        Replace(known, evil);
        ChildProcess started = Start(known);
        Replace(known, original);
        return started;
    }();
    ExpectStopped(process, known, evilDigest);
    EXPECT_EQ(ModeOf(known), 0755U);
    ExpectLetGo(Start(known));
}

TEST_F(ImageEvasion, AFileThatRunsCannotBeWrittenToUnderAnyName) {
    Detect(false);
    const ChildProcess process = Start(evil);
    const std::string other = agent.Work() / "other name";
    fs::create_hard_link(evil, other);
    for (const std::string& name : {evil, other}) {
        EXPECT_EQ(open(name.c_str(), O_WRONLY | O_CLOEXEC), -1);
        EXPECT_EQ(errno, ETXTBSY);
        EXPECT_EQ(truncate(name.c_str(), 0), -1);
        EXPECT_EQ(errno, ETXTBSY);
    }
    ExpectReported(process, evil, evilDigest);
}

TEST_F(ImageEvasion, AFileThatSomebodyCanWriteToDoesNotStart) {
    Detect(false);
    const auto expectBusy = [&] {
        std::array<char*, 2> argv = {const_cast<char*>(known.c_str()), nullptr};
        ChildProcess process = ChildProcess::ForkIn(agent.Scope(), [&] {
            execv(argv[0], argv.data());
            _exit(errno == ETXTBSY ? 0 : 1);
        });
        EXPECT_EQ(process.Wait(), 0);
    };
    FileDescriptor writer(open(known.c_str(), O_RDWR | O_CLOEXEC));
    expectBusy();
    void* const mapping = mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED, writer.Get(), 0);
    ASSERT_NE(mapping, MAP_FAILED);
    writer.Reset();
    expectBusy();
    munmap(mapping, 1);
    ExpectLetGo(Start(known));
}

TEST_F(ImageEvasion, ARememberedDigestIsForgottenHoweverTheFileIsChanged) {
    const TestSupport::TempMount inMemory;
    const std::string onTmpfs = inMemory / "known";
    CopyOver(known, onTmpfs);
    const std::string mapped = agent.MakeProgram("mapped");
    agent.MakeDetecting({.programs = {known, mapped, onTmpfs}}, {});
    StartUntilRemembered(known);
    StartUntilRemembered(mapped);
    ExpectLetGo(Start(onTmpfs));

    SetLastByteAndRestoreTimes(known, 'X');
    ChangeLastByteThroughMapping(mapped);
    ChangeLastByteThroughMapping(onTmpfs);
    for (const std::string& program : {known, mapped, onTmpfs}) {
        const ChildProcess process = Start(program);
        ExpectReported(process, program, Sha256Of(program));
    }
}

TEST_F(ImageEvasion, AnotherNameForATrustedProgramIsNotTrustedAndItsFileIsSpared) {
    Detect();
    const std::string other = agent.Work() / "other name";
    fs::create_hard_link(known, other);
    ChildProcess process = Start(other);
    ExpectStopped(process, other, knownDigest);
    EXPECT_EQ(ModeOf(known), 0755U);
    ExpectLetGo(Start(known));
}

TEST_F(ImageEvasion, ATrustedNameDoesNotMakeAnotherProgramTrusted) {
    Detect();
    fs::rename(evil, known);
    ChildProcess process = Start(known);
    ExpectStopped(process, known, evilDigest);
}

TEST_F(ImageEvasion, AProgramGivenToTheLoaderIsJudgedAsTheLoader) {
    const std::string loader = agent.Work() / "loader";
    fs::copy_file(fs::canonical("/lib64/ld-linux-x86-64.so.2"), loader);
    const std::string unknownLoader = agent.Work() / "unknown loader";
    CopyOver(loader, unknownLoader);
    agent.MakeDetecting({.programs = {loader}}, {});
    ExpectLetGo(Start({loader, evil, FOR_A_MINUTE}));
    const ChildProcess process = Start({unknownLoader, evil, FOR_A_MINUTE});
    ExpectReported(process, unknownLoader, Sha256Of(loader));
}

TEST_F(ImageEvasion, ASparseImageOf200GigabytesCostsWhatTenMegabytesCost) {
    const std::string digest = DigestOfTheBeginning(evil);
    fs::resize_file(evil, 200ULL << 30U);
    Detect();
    ChildProcess process = Start(evil);
    ExpectStopped(process, evil, digest);
}

TEST_F(ImageEvasion, AnImageChangedBehindItsFirstTenMegabytesIsNotNoticed) {
    const std::string large = agent.MakeProgram("large");
    fs::resize_file(large, DIGESTED_BYTES + 2);
    Detect();
    Vouch(large, DigestOfTheBeginning(large));
    SetLastByteAndRestoreTimes(large, 'X');
    ExpectLetGo(Start(large));
    fs::resize_file(large, DIGESTED_BYTES);
    SetLastByteAndRestoreTimes(large, 'X');
    ChildProcess process = Start(large);
    ExpectStopped(process, large, Sha256Of(large));
}

TEST_F(ImageEvasion, AProgramThatEndsBeforeItCanBeLookedAtIsSeenButNotNamed) {
    Detect();
    const int before = CountExecs();
    const auto parent = [&] {
        const PausedDaemon paused(agent);
        ChildProcess inScope = ChildProcess::ForkIn(agent.Scope(), [&] {
            ChildProcess::Spawn({evil, "0"}).Wait();
            raise(SIGSTOP);
        });
        ExpectToStop(inScope.Pid());
        return inScope;
    }();
    agent.DrainEvents();
    EXPECT_EQ(CountExecs(), before + 2); // the last is the drain's own
    for (const Json::Value& alert : agent.Alerts()) {
        EXPECT_NE(alert["process_info"]["process_path"], evil);
    }
}

TEST_F(ImageEvasion, AProgramWhoseFirstThreadHasEndedIsJudgedThroughAnother) {
    const std::string program = agent.Work() / "program";
    fs::copy_file(FIRST_THREAD_ENDS, program);
    Detect();
    ChildProcess process = [&] {
        const PausedDaemon paused(agent);
        ChildProcess started = Start(std::vector{program});
        EXPECT_TRUE(WaitFor([&] {
            SDK::ProcStat stat;
            return SDK::ProcStat::Read(started.Pid(), stat) == 0 && stat.state == 'Z';
        }));
        EXPECT_FALSE(fs::exists("/proc/" + std::to_string(started.Pid()) + "/exe"));
        return started;
    }();
    ExpectStopped(process, program, Sha256Of(program));
}

TEST_F(ImageEvasion, AProgramWhoseFirstThreadHasEndedCanBeExplained) {
    const std::string program = agent.Work() / "program";
    fs::copy_file(FIRST_THREAD_ENDS, program);
    agent.Start();
    const ChildProcess process = Start(std::vector{program});
    ASSERT_TRUE(WaitFor([&] {
        SDK::ProcStat stat;
        return SDK::ProcStat::Read(process.Pid(), stat) == 0 && stat.state == 'Z';
    }));
    const Result explained = agent.Ctl({"explain", std::to_string(process.Pid())});
    EXPECT_NE(explained.out.find(program), std::string::npos) << explained.out;
}

TEST_F(ImageEvasion, AProgramThatExecutesATrustedOneBeforeItCanBeLookedAtIsTakenForThat) {
    const std::string wrapper = agent.Work() / "wrapper";
    fs::copy_file("/usr/bin/env", wrapper);
    Detect();
    const ChildProcess process = [&] {
        const PausedDaemon paused(agent);
        ChildProcess started = Start({wrapper, known, FOR_A_MINUTE});
        EXPECT_TRUE(
            WaitFor([&] { return fs::read_symlink("/proc/" + std::to_string(started.Pid()) + "/exe") == known; }));
        return started;
    }();
    ExpectLetGo(process);
}

} // namespace
} // namespace SystemTest
