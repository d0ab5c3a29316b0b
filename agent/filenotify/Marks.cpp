#include "agent/filenotify/Marks.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace Engine {

int Marks::Add(FanotifyGroup::Object object, const std::string& path, std::uint64_t mask) {
    if (mPaths.count(path) != 0) {
        return 0;
    }
    Marked marked{{}, mask};
    if (const int error = Identify(object, path, marked.target); error != 0) {
        return error;
    }
    if (const int error = mGroup.Mark(object, path, mask); error != 0) {
        return error;
    }
    mPaths.emplace(path, marked);
    ++mUses[marked.target];
    return 0;
}

int Marks::Remove(const std::string& path) {
    const auto found = mPaths.find(path);
    if (found == mPaths.end()) {
        return 0;
    }
    const Marked marked = found->second;
    mPaths.erase(found);
    const auto uses = mUses.find(marked.target);
    if (--uses->second > 0) {
        return 0;
    }
    mUses.erase(uses);
    return mGroup.Unmark(marked.target.object, path, marked.mask);
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
