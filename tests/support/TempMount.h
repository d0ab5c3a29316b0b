#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "support/TempRoot.h"

namespace TestSupport {

// True for root, unless a container has taken from it what watching and mounting need.
inline bool IsAdministrator() {
    return geteuid() == 0 && prctl(PR_CAPBSET_READ, CAP_SYS_ADMIN) == 1;
}

// Why no TempMount can be made here; empty when one can.
inline std::string WhyNoMount() {
    return IsAdministrator() ? "" : "file systems cannot be mounted here (needs root with CAP_SYS_ADMIN)";
}

// A file system in memory (tmpfs) of the test's own, mounted on a TempDir, and the only mount that a
// test may have watched as a whole. At the end it is unmounted with all it holds; a file on it that is
// still open keeps it alive for that long, invisibly.
class TempMount {
public:
    // Holds as many bytes as `size` says, in the form of tmpfs(5): "8m".
    explicit TempMount(const std::string& size = "50%") {
        const std::string options = "nr_inodes=0,mode=0755,size=" + size;
        if (mount("corvalent-test", Path().c_str(), "tmpfs", FLAGS, options.c_str()) != 0) {
            throw std::runtime_error("no file system can be mounted on " + Path() + ": " + std::strerror(errno));
        }
    }
    ~TempMount() { umount2(Path().c_str(), MNT_DETACH); }
    // Only while nobody has a file open for writing.
    void SetReadOnly(bool readOnly) const {
        if (mount("corvalent-test", Path().c_str(), "tmpfs", MS_REMOUNT | FLAGS | (readOnly ? MS_RDONLY : 0),
                  nullptr) != 0) {
            throw std::runtime_error(Path() + " cannot be remounted: " + std::strerror(errno));
        }
    }

    // Takes all the room that there is, until MakeRoom.
    void Fill() const {
        constexpr std::size_t PIECE_BYTES = 4096;
        const std::string piece(PIECE_BYTES, 'x');
        const int fd = open(Ballast().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        while (write(fd, piece.data(), piece.size()) > 0) {
        }
        close(fd);
    }
    void MakeRoom() const { unlink(Ballast().c_str()); }

    TempMount(const TempMount&) = delete;
    TempMount& operator=(const TempMount&) = delete;

    // As those of the TempDir.
    const std::string& Path() const { return mDir.Path(); }
    std::string operator/(const std::string& name) const { return mDir / name; }
    std::string Write(const std::string& name, const std::string& content) const { return mDir.Write(name, content); }
    std::string Read(const std::string& name) const { return mDir.Read(name); }

private:
    static constexpr unsigned long FLAGS = MS_NOSUID | MS_NODEV;

    std::string Ballast() const { return mDir / "ballast"; }

    TempDir mDir;
};

} // namespace TestSupport
