#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/TempMount.h"
#include "system/evasions/Attempt.h"

namespace SystemTest {
namespace {

using TestSupport::ChildProcess;
using TestSupport::TempDir;
using TestSupport::TempMount;

namespace fs = std::filesystem;

// What the programs of the tests need in order to run.
constexpr const char* LOADER = "/lib64/ld-linux-x86-64.so.2";
constexpr const char* LIBRARY = "/lib/x86_64-linux-gnu/libc.so.6";

class MountEvasion : public Attempt {
protected:
    void SetUp() override {
        if (const std::string reason = TestSupport::WhyNoMount(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
    }

    static ino_t InodeOf(const std::string& path) {
        struct stat file {};
        EXPECT_EQ(stat(path.c_str(), &file), 0) << path;
        return file.st_ino;
    }

    // In a mount namespace of its own, where the file lies at the place of another.
    ChildProcess StartWhereItLiesAt(const std::string& place, const std::string& file) const {
        return Start(place, [&] {
            step::EnterOwnMountNamespace();
            step::BindOver(file, place);
        });
    }
};

// A mount that is taken away with the object, if it has not been before.
class Mounted {
public:
    Mounted(const std::string& source, const std::string& target, const char* type, unsigned long flags,
            const std::string& options = "")
        : mTarget(target) {
        EXPECT_EQ(mount(source.c_str(), target.c_str(), type, flags, options.c_str()), 0) << target;
    }
    ~Mounted() { Remove(); }
    Mounted(const Mounted&) = delete;
    Mounted& operator=(const Mounted&) = delete;

    void Remove() const { umount2(mTarget.c_str(), MNT_DETACH); }

private:
    const std::string mTarget;
};

// Two layers and what they look like together, at "merged".
class Overlay {
public:
    Overlay() {
        for (const char* folder : {"lower", "upper", "work", "merged"}) {
            fs::create_directory(mLayers / folder);
        }
    }

    Mounted Mount(const std::string& upper) const {
        fs::create_directories(mLayers / upper);
        return Mounted("overlay", mLayers / "merged", "overlay", 0,
                       "lowerdir=" + mLayers / "lower" + ",upperdir=" + mLayers / upper +
                           ",workdir=" + mLayers / "work");
    }

    std::string operator/(const std::string& name) const { return mLayers / name; }

private:
    TempMount mLayers;
};

TEST_F(MountEvasion, AnImageAtATrustedPathOfAnotherMountNamespaceIsJudgedByItsContent) {
    Detect();
    ChildProcess process = StartWhereItLiesAt(known, evil);
    ExpectStopped(process, known, evilDigest);
    EXPECT_EQ(ModeOf(known), 0755U);
    EXPECT_EQ(ModeOf(evil), 0755U);
}

TEST_F(MountEvasion, AnImageThatIsTrustedAtThatPathRunsWhateverLiesThereForTheAgent) {
    Detect();
    const std::string trusted = agent.Work() / "trusted";
    fs::rename(known, trusted);
    fs::rename(evil, known);
    ExpectLetGo(StartWhereItLiesAt(known, trusted));
    ChildProcess outside = Start(known);
    ExpectStopped(outside, known, evilDigest);
}

TEST_F(MountEvasion, AnImageThatOnlyAnotherMountNamespaceHasIsJudged) {
    Detect();
    const TempDir place;
    const std::string program = place / "program";
    ChildProcess process = Start(program, [&] {
        step::EnterOwnMountNamespace();
        step::Demand(mount("tmpfs", place.Path().c_str(), "tmpfs", 0, "mode=0755") == 0, "tmpfs");
        fs::copy_file(evil, program);
    });
    ASSERT_FALSE(fs::exists(program));
    ExpectStopped(process, program, evilDigest);
    EXPECT_EQ(agent.CountInLog("isolate file [" + program + "] ret :true kill :true chmod :false"), 1);
}

TEST_F(MountEvasion, AnImageWhoseFileSystemWasTakenAwayIsJudged) {
    Detect();
    ChildProcess process = [&] {
        const TempMount mount;
        fs::copy_file(evil, mount / "program");
        const PausedDaemon paused(agent);
        ChildProcess started = Start(mount / "program");
        umount2(mount.Path().c_str(), MNT_DETACH);
        return started;
    }();
    ExpectStopped(process, "/program", evilDigest);
}

TEST_F(MountEvasion, InAChangedRootAPathIsTheOneThatTheAgentSees) {
    Detect();
    const std::string root = agent.Work() / "jail";
    const std::string inside = root + known;
    for (const std::string& file : {inside, root + LOADER, root + LIBRARY}) {
        fs::create_directories(fs::path(file).parent_path());
    }
    fs::copy_file(evil, inside);
    fs::copy_file(fs::canonical(LOADER), root + LOADER);
    fs::copy_file(fs::canonical(LIBRARY), root + LIBRARY);
    ChildProcess process = Start(known, [&] { step::Demand(chroot(root.c_str()) == 0, "chroot"); });
    ExpectStopped(process, inside, evilDigest);
}

TEST_F(MountEvasion, AFileMountedOverATrustedOneIsJudgedByItsContent) {
    Detect();
    const Mounted over(evil, known, nullptr, MS_BIND);
    ChildProcess process = Start(known);
    ExpectStopped(process, known, evilDigest);
    EXPECT_EQ(ModeOf(evil), 0400U);
    over.Remove();
    EXPECT_EQ(ModeOf(known), 0755U);
    ExpectLetGo(Start(known));
}

TEST_F(MountEvasion, ATrustedProgramStartedFromAnotherPathIsSparedWhereverThatPathLeads) {
    Detect();
    // For the agent the path leads to the trusted program; for the process it is another name of it.
    const TempDir place;
    fs::create_symlink(known, place / "program");
    ChildProcess process = Start(place / "program", [&] {
        step::EnterOwnMountNamespace();
        step::Demand(mount("tmpfs", place.Path().c_str(), "tmpfs", 0, "mode=0755") == 0, "tmpfs");
        place.Write("program", "");
        step::BindOver(known, place / "program");
    });
    ExpectStopped(process, place / "program", knownDigest);
    EXPECT_EQ(ModeOf(known), 0755U);
    ExpectLetGo(Start(known));
}

TEST_F(MountEvasion, InDirectoryModeWhatRunsIsJudgedToo) {
    const TempMount files;
    files.Write("folder/file", "");
    const std::string reader = agent.MakeReader("reader");
    const std::string evilReader = agent.MakeReader("evil reader");
    const std::string digest = Sha256Of(evilReader);
    agent.MakeDetecting({.programs = {reader}}, {.block = true, .dirs = {files / "folder"}});
    agent.WaitForMarks(1);
    ChildProcess process = Start({reader, "-f", files / "folder/file"}, [&] {
        step::EnterOwnMountNamespace();
        step::BindOver(evilReader, reader);
    });
    ExpectStopped(process, reader, digest);
    EXPECT_EQ(ModeOf(reader), 0755U);
}

TEST_F(MountEvasion, TheLayersOfAnOverlayDoNotHideAChange) {
    const Overlay overlay;
    const std::string program = overlay / "merged/program";
    fs::copy_file(known, overlay / "lower/program");
    fs::create_directory(overlay / "second");
    {
        const Mounted mounted = overlay.Mount("upper");
        agent.MakeDetecting({.programs = {known, program}}, {});
        ExpectLetGo(Start(program));
        const ino_t before = InodeOf(program);
        SetLastByteAndRestoreTimes(program, 'U');
        EXPECT_EQ(InodeOf(program), before);
        ExpectReported(Start(program), program, Sha256Of(program));
        SetLastByteAndRestoreTimes(overlay / "upper/program", 'B');
        ExpectReported(Start(program), program, Sha256Of(program));
    }
    CopyOver(overlay / "upper/program", overlay / "second/program");
    SetLastByteAndRestoreTimes(overlay / "second/program", 'S');
    const Mounted mounted = overlay.Mount("second");
    ExpectReported(Start(program), program, Sha256Of(program));
}

} // namespace
} // namespace SystemTest
