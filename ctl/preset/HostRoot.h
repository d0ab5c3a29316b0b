#pragma once

#include <optional>
#include <string>
#include <unordered_map>

namespace Ctl::Preset {

// The root directory of the host that a preset is about: this machine's, or a tree that is mounted or
// unpacked somewhere. Paths "on the host" are absolute and begin at that directory, links included.
//
// Not thread-safe; Locate may be called from any thread.
class HostRoot {
public:
    // Throws Failure when it is no directory that can be opened.
    explicit HostRoot(const std::string& directory);
    ~HostRoot();
    HostRoot(const HostRoot&) = delete;
    HostRoot& operator=(const HostRoot&) = delete;

    // Where a path on the host is found from here.
    std::string Locate(const std::string& path) const { return mPrefix + path; }

    // The path on the host with the links in its folders resolved, though not a link at its end: as the
    // kernel reports it for a program of that host, so that /bin/ls is /usr/bin/ls where /bin is a link.
    // Nothing when there is no such folder. Asks once for each folder.
    std::optional<std::string> Resolve(const std::string& path);

    // The same for a folder, its end included; 0 or an errno value.
    int ResolveFolder(const std::string& folder, std::string& resolved) const;

private:
    int mFd = -1;
    std::string mPrefix; // the directory's real path; empty for "/"
    std::unordered_map<std::string, std::optional<std::string>> mFolders;
};

} // namespace Ctl::Preset
