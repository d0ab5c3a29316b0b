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
// Invariant: the kernel has a mark for each object in mUses, with all that its paths asked for, unless
// the object has been removed from the file system, when its mark went with it. It has no others, but
// for that of a directory or mount whose last path came to lead elsewhere: it stays as long as the group.
//
// One thread at a time.
class Marks {
public:
    explicit Marks(const FanotifyGroup& group) : mGroup(group) {}

    // Marks what lies at the path now, also when the path had a mark on something else that lay there
    // before. 0 or an errno value.
    int Add(FanotifyGroup::Object object, const std::string& path, std::uint64_t mask);

    // Forgets the path, and takes the mark away when no other path needs it. A path without a mark is
    // left alone. 0 or an errno value, the path being forgotten all the same: ENOENT when what was marked
    // no longer lies there.
    int Remove(const std::string& path);

    std::size_t Count() const { return mPaths.size(); }

private:
    // What a mark is on: a mount by its id, a directory by its device and inode.
    struct Target {
        FanotifyGroup::Object object = FanotifyGroup::Object::Directory;
        std::uint64_t device = 0;
        std::uint64_t number = 0;

        // NOLINTNEXTLINE(modernize-use-nullptr): the tool takes the generated comparison with 0 for a pointer
        auto operator<=>(const Target&) const = default;
    };

    // The paths that lead to one target.
    struct Uses {
        std::size_t paths = 0;  // never 0 in the map
        std::uint64_t mask = 0; // all that they asked for
    };

    static int Identify(FanotifyGroup::Object object, const std::string& path, Target& target);

    // One path less leads to the target: the mask of the mark that nobody needs any more, or 0.
    std::uint64_t CountDown(const Target& target);

    const FanotifyGroup& mGroup;
    std::map<std::string, Target> mPaths;
    std::map<Target, Uses> mUses;
};

} // namespace Engine
