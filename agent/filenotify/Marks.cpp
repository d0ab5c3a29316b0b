#include "agent/filenotify/Marks.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace Engine {

int Marks::Add(FanotifyGroup::Object object, const std::string& path, std::uint64_t mask) {
    Target target;
    if (const int error = Identify(object, path, target); error != 0) {
        return error;
    }
    if (const int error = mGroup.Mark(object, path, mask); error != 0) {
        return error;
    }
    Uses& uses = mUses[target];
    ++uses.paths;
    uses.mask |= mask;
    if (const auto [known, isNew] = mPaths.try_emplace(path, target); !isNew) {
        // A mark on something else that lay there before has gone with it, or is out of this path's reach.
        CountDown(std::exchange(known->second, target));
    }
    return 0;
}

int Marks::Remove(const std::string& path) {
    const auto found = mPaths.find(path);
    if (found == mPaths.end()) {
        return 0;
    }
    const Target target = found->second;
    mPaths.erase(found);
    const std::uint64_t mask = CountDown(target);
    if (mask == 0) {
        return 0;
    }
    Target now;
    if (const int error = Identify(target.object, path, now); error != 0) {
        return error;
    }
    return now == target ? mGroup.Unmark(target.object, path, mask) : ENOENT;
}

std::uint64_t Marks::CountDown(const Target& target) {
    const auto uses = mUses.find(target);
    if (--uses->second.paths > 0) {
        return 0;
    }
    const std::uint64_t mask = uses->second.mask;
    mUses.erase(uses);
    return mask;
}

int Marks::Identify(FanotifyGroup::Object object, const std::string& path, Target& target) {
    struct statx status {};
    const unsigned int wanted = object == FanotifyGroup::Object::Mount ? STATX_MNT_ID : STATX_INO;
    if (statx(AT_FDCWD, path.c_str(), AT_STATX_SYNC_AS_STAT, wanted, &status) != 0) {
        return errno;
    }
    target.object = object;
    if (object == FanotifyGroup::Object::Mount) {
        target.number = status.stx_mnt_id;
    } else {
        target.device = makedev(status.stx_dev_major, status.stx_dev_minor);
        target.number = status.stx_ino;
    }
    return 0;
}

} // namespace Engine
