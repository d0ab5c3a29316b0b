#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "agent/filenotify/FanotifyGroup.h"

namespace Engine {

// The marks of one group by the paths that they were asked for with. Several paths may lead to one
// directory or mount; its mark goes with the last of them.
//
// Invariant: the kernel has a mark for exactly the objects in mUses, unless one has been removed from
// the file system, when its mark went with it.
//
// One thread at a time.
class Marks {
public:
    explicit Marks(const FanotifyGroup& group) : mGroup(group) {}

    // Marks what lies at the path; a path that has a mark keeps it. 0 or an errno value.
    int Add(FanotifyGroup::Object object, const std::string& path, std::uint64_t mask);

    // Forgets the path, and takes the mark away when no other path needs it. A path without a mark is
    // left alone. 0 or an errno value, the path being forgotten all the same.
    int Remove(const std::string& path);

    std::size_t Count() const { return mPaths.size(); }

private:
    // What a mark is on: a mount by its id, a directory by its device and inode.
    struct Target {
        FanotifyGroup::Object object = FanotifyGroup::Object::Directory;
        std::uint64_t device = 0;
        std::uint64_t number = 0;

        auto operator<=>(const Target&) const = default;
    };

    struct Marked {
        Target target;
        std::uint64_t mask = 0;
    };

    static int Identify(FanotifyGroup::Object object, const std::string& path, Target& target);

    const FanotifyGroup& mGroup;
    std::map<std::string, Marked> mPaths;
    std::map<Target, std::size_t> mUses; // how many paths lead to it; never 0
};

} // namespace Engine
