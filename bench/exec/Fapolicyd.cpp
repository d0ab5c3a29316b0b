#include "exec/Fapolicyd.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sstream>
#include <stdexcept>

#include <sys/mount.h>

#include "exec/Subject.h"
#include "support/WaitFor.h"
#include "system/Agent.h"

namespace Bench {

namespace fs = std::filesystem;

namespace {

constexpr const char* DAEMON = "/usr/sbin/fapolicyd";
// Where it looks, whatever it is told.
constexpr std::array<const char*, 3> ITS_FOLDERS{"/etc/fapolicyd", "/var/lib/fapolicyd", "/run/fapolicyd"};

void Mount(const char* source, const std::string& target, const char* type, unsigned long flags) {
    if (mount(source, target.c_str(), type, flags, nullptr) != 0) {
        throw std::runtime_error("cannot mount " + target + ": " + std::strerror(errno));
    }
}

void EnterOwnNamespace() {
    static const bool entered = unshare(CLONE_NEWNS) == 0;
    if (!entered) {
        throw std::runtime_error("no mount namespace of its own for fapolicyd");
    }
    Mount("none", "/", nullptr, MS_REC | MS_PRIVATE);
}

// It watches every file system of the kind.
void ExpectNoRamfs() {
    std::ifstream mounts("/proc/self/mounts");
    for (std::string line; std::getline(mounts, line);) {
        if (line.find(" ramfs ") != std::string::npos) {
            throw std::runtime_error("there is another ramfs, which fapolicyd would watch: " + line);
        }
    }
}

} // namespace

bool Fapolicyd::IsInstalled() {
    return fs::exists(DAEMON);
}

Fapolicyd::Fapolicyd(const std::string& integrity, const std::vector<std::string>& programs) {
    EnterOwnNamespace();
    ExpectNoRamfs();
    Mount("bench", mWatched.Path(), "ramfs", MS_NOSUID | MS_NODEV);
    for (const std::string& program : programs) {
        fs::copy_file(program, PathOf(program));
    }
    Configure(integrity, programs);
    Start();
}

Fapolicyd::~Fapolicyd() {
    mDaemon->Signal(SIGTERM);
    mDaemon->WaitForEnd(TestSupport::DEADLINE);
    mDaemon.reset();
    umount2(mWatched.Path().c_str(), MNT_DETACH);
    for (const char* folder : ITS_FOLDERS) {
        umount2(folder, MNT_DETACH);
    }
}

std::string Fapolicyd::PathOf(const std::string& program) const {
    return mWatched / fs::path(program).filename().string();
}

std::uint64_t Fapolicyd::ReadCpuNs() const {
    return Bench::ReadCpuNs(mDaemon->GetPid());
}

void Fapolicyd::Configure(const std::string& integrity, const std::vector<std::string>& programs) const {
    for (const char* folder : ITS_FOLDERS) {
        const std::string own = mFiles / fs::path(folder).parent_path().filename().string();
        fs::create_directories(own);
        fs::create_directories(folder);
        Mount(own.c_str(), folder, nullptr, MS_BIND);
    }
    mFiles.Write("etc/fapolicyd.conf", "permissive = 1\nnice_val = 0\nq_size = 2048\nuid = root\ngid = root\n"
                                       "do_stat_report = 0\ndetailed_report = 0\ndb_max_size = 50\n"
                                       "subj_cache_size = 1549\nobj_cache_size = 8191\nwatch_fs = ramfs\n"
                                       "trust = file\nintegrity = " +
                                           integrity + "\nsyslog_format = rule,dec,perm,pid,exe,:,path,trust\n");
    mFiles.Write("etc/compiled.rules", "allow perm=execute all : trust=1\nallow perm=open all : all\n"
                                       "deny perm=execute all : all\n");
    std::ostringstream trust;
    for (const std::string& program : programs) {
        trust << PathOf(program) << ' ' << fs::file_size(program) << ' ' << SystemTest::Sha256Of(program) << '\n';
    }
    mFiles.Write("etc/fapolicyd.trust", trust.str());
}

// In the foreground, saying what it denies, which is nothing.
void Fapolicyd::Start() {
    mDaemon = std::make_unique<SystemTest::Program>(std::vector<std::string>{DAEMON, "--debug-deny", "--permissive"},
                                                    mFiles / "daemon");
    const auto said = [&] { return mDaemon->GetErrors() + mDaemon->GetOutput(); };
    if (!TestSupport::WaitFor(
            [&] { return mDaemon->HasEnded() || said().find("Starting to listen") != std::string::npos; }) ||
        mDaemon->HasEnded()) {
        throw std::runtime_error("fapolicyd does not start: " + said());
    }
}

} // namespace Bench
