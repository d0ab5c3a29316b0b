#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <unistd.h>

#include "support/TempMount.h"

namespace TestSupport {

// Why no fanotify group that names processes can be had here; empty when one can.
inline std::string WhyNoFanotify() {
    return IsAdministrator() ? "" : "file accesses cannot be watched here (needs root with CAP_SYS_ADMIN)";
}

// What each of this process's descriptors leads to, by its number.
inline std::vector<std::pair<int, std::string>> ListDescriptors() {
    std::vector<std::pair<int, std::string>> descriptors;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        descriptors.emplace_back(std::stoi(entry.path().filename()),
                                 std::filesystem::read_symlink(entry.path(), gone).string());
    }
    return descriptors;
}

inline std::size_t CountDescriptors() {
    return ListDescriptors().size();
}

// The descriptors of this process's fanotify groups.
inline std::vector<int> ListGroups() {
    std::vector<int> groups;
    for (const auto& [fd, target] : ListDescriptors()) {
        if (target == "anon_inode:[fanotify]") {
            groups.push_back(fd);
        }
    }
    return groups;
}

// The kernel's own list of a group's marks: the lines of proc(5)'s fdinfo that begin "fanotify ino:" or
// "fanotify mnt_id:".
inline std::vector<std::string> ListMarks(int group) {
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(group));
    std::vector<std::string> marks;
    for (std::string line; std::getline(info, line);) {
        if (line.starts_with("fanotify ino:") || line.starts_with("fanotify mnt_id:")) {
            marks.push_back(line);
        }
    }
    return marks;
}

// A bound of the kernel's (fanotify(7)): "max_queued_events", "max_user_marks".
inline std::size_t FanotifyLimit(const std::string& name) {
    std::ifstream file("/proc/sys/fs/fanotify/" + name);
    std::size_t limit = 0;
    file >> limit;
    return limit;
}

// So many new files in the directory; their paths.
inline std::vector<std::string> WriteFiles(const TempMount& mount, const std::string& folder, std::size_t count) {
    std::vector<std::string> paths;
    std::filesystem::create_directories(mount / folder);
    for (std::size_t i = 0; i < count; ++i) {
        paths.push_back(mount / folder + "/file" + std::to_string(i));
        std::ofstream(paths.back()) << i;
    }
    return paths;
}

} // namespace TestSupport
