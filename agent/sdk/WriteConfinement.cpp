#include "agent/sdk/WriteConfinement.h"

#include <cstdint>

#include <fcntl.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"

namespace SDK {

namespace {

// include/uapi/linux/landlock.h of Linux 6.2; older headers do not have it.
constexpr std::uint64_t ACCESS_TRUNCATE = 1ULL << 14U;

// From which version of the interface on the kernel knows a right.
constexpr int VERSION_WITH_REFER = 2;
constexpr int VERSION_WITH_TRUNCATE = 3;

constexpr std::uint64_t TO_A_FILE = LANDLOCK_ACCESS_FS_WRITE_FILE;
constexpr std::uint64_t TO_A_FOLDER = LANDLOCK_ACCESS_FS_REMOVE_DIR | LANDLOCK_ACCESS_FS_REMOVE_FILE |
                                      LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG;
constexpr std::uint64_t NOWHERE = LANDLOCK_ACCESS_FS_MAKE_CHAR | LANDLOCK_ACCESS_FS_MAKE_SOCK |
                                  LANDLOCK_ACCESS_FS_MAKE_FIFO | LANDLOCK_ACCESS_FS_MAKE_BLOCK |
                                  LANDLOCK_ACCESS_FS_MAKE_SYM;

bool Allow(const FileDescriptor& rules, const char* path, std::uint64_t access) {
    const FileDescriptor place(open(path, O_PATH | O_CLOEXEC));
    landlock_path_beneath_attr rule{};
    rule.allowed_access = access;
    rule.parent_fd = place.Get();
    return place.IsOpen() && syscall(SYS_landlock_add_rule, rules.Get(), LANDLOCK_RULE_PATH_BENEATH, &rule, 0) == 0;
}

} // namespace

bool ConfineWritesToTemporaryFiles() {
    const auto version = syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
    const std::uint64_t truncate = version >= VERSION_WITH_TRUNCATE ? ACCESS_TRUNCATE : 0;
    const std::uint64_t refer = version >= VERSION_WITH_REFER ? LANDLOCK_ACCESS_FS_REFER : 0;
    landlock_ruleset_attr handled{};
    handled.handled_access_fs = TO_A_FILE | TO_A_FOLDER | NOWHERE | truncate | refer;
    const FileDescriptor rules(static_cast<int>(syscall(SYS_landlock_create_ruleset, &handled, sizeof(handled), 0)));
    return rules.IsOpen() && Allow(rules, "/tmp", TO_A_FILE | TO_A_FOLDER | truncate | refer) &&
           Allow(rules, "/dev/null", TO_A_FILE | truncate) && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           syscall(SYS_landlock_restrict_self, rules.Get(), 0) == 0;
}

} // namespace SDK
