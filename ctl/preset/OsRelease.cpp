#include "ctl/preset/OsRelease.h"

#include <fstream>

#include "sdk/StrUtils.h"

namespace Ctl::Preset {

namespace {

// The value of `KEY=value`, whose quotes do not count. Of several the last one holds, as in a shell.
std::string FindValue(const std::string& file, const std::string& key) {
    std::ifstream text(file);
    std::string value;
    for (std::string line; std::getline(text, line);) {
        if (line.starts_with(key + "=")) {
            value = SDK::StrUtils::Trim(line.substr(key.size() + 1));
        }
    }
    const bool quoted = value.size() >= 2 && value.front() == value.back() && (value[0] == '"' || value[0] == '\'');
    return quoted ? value.substr(1, value.size() - 2) : value;
}

} // namespace

std::string NameOs(const HostRoot& host) {
    for (const char* file : {"/etc/os-release", "/usr/lib/os-release"}) {
        const std::string path = host.Locate(file);
        const std::string id = FindValue(path, "ID");
        if (!id.empty()) {
            return SDK::StrUtils::Trim(id + " " + FindValue(path, "VERSION_ID"));
        }
    }
    return "linux";
}

} // namespace Ctl::Preset
