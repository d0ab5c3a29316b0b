#include "utils/config.h"

#include <cstdio>
#include <fstream>
#include <vector>

#include <sys/stat.h>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include "sdk/FileUtils.h"
#include "sdk/ModuleLog.h"
#include "sdk/StrUtils.h"
#include "utils/Constants.h"

namespace utils::config {

namespace {

SDK::ModuleLog moduleLog(Engine::LOGGER_NAME);

// The name in a header line as the reader understands it. False for a header that names nothing:
// without a "]" or with nothing in front of it.
bool ReadSectionName(const std::string& line, std::string& name) {
    const std::size_t close = line.find(']');
    if (close == std::string::npos || close == 1) {
        return false;
    }
    name = SDK::StrUtils::Trim(line.substr(1, close - 1));
    return true;
}

bool ReadEntry(const std::string& line, std::string& key, std::string& value) {
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos || equals == 0) {
        return false;
    }
    key = SDK::StrUtils::Trim(line.substr(0, equals));
    value = SDK::StrUtils::Trim(line.substr(equals + 1));
    return true;
}

// False when the file exists but cannot be read. A file that is missing, empty or not a regular one
// has no lines.
bool ReadLines(const std::string& path, std::vector<std::string>& lines) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size <= 0) {
        return true;
    }
    std::string content;
    if (SDK::FileUtils::ReadFile(path, content, Engine::MAX_FILE_BYTES) != 0) {
        return false;
    }
    boost::algorithm::split(lines, content, boost::algorithm::is_any_of("\n"));
    return true;
}

bool IsEntryOf(const std::string& line, const std::string& key) {
    const std::size_t equals = line.find('=');
    return equals != std::string::npos && SDK::StrUtils::Trim(line.substr(0, equals)) == key;
}

// The file's new text: the lines with the entry set.
std::string Rebuild(const std::vector<std::string>& lines, const std::string& section, const std::string& key,
                    const std::string& value) {
    const std::string header = "[" + section + "]";
    const std::string entry = key + "=" + value;
    std::string text;
    bool inSection = false;
    bool done = false;
    for (const std::string& raw : lines) {
        const std::string line = SDK::StrUtils::Trim(raw);
        if (!line.empty() && line[0] != '#' && !done) {
            if (line[0] == '[') {
                if (inSection) {
                    text += entry + "\n";
                    done = true;
                } else {
                    inSection = line == header;
                }
            } else if (inSection && IsEntryOf(line, key)) {
                text += entry + "\n";
                done = true;
                continue;
            }
        }
        text += line + "\n";
    }
    if (!done) {
        if (!inSection) {
            text += header + "\n";
        }
        text += entry + "\n";
    }
    return text;
}

} // namespace

bool get_config_str(const char* path, const char* section, const char* key, std::string& value) {
    // Opening a FIFO would wait, and a device may have no end.
    if (path == nullptr || !SDK::FileUtils::IsFile(path)) {
        return false;
    }
    std::ifstream file(path);
    if (!file) {
        return false;
    }
    bool inSection = false;
    std::string raw;
    while (std::getline(file, raw)) {
        const std::string line = SDK::StrUtils::Trim(raw);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        if (line[0] == '[') {
            std::string name;
            if (!ReadSectionName(line, name)) {
                continue;
            }
            if (inSection) {
                return false;
            }
            inSection = name == section;
            continue;
        }
        std::string entryKey;
        std::string entryValue;
        if (inSection && ReadEntry(line, entryKey, entryValue) && entryKey == key) {
            value = entryValue;
            return true;
        }
    }
    return false;
}

bool get_config_int(const char* path, const char* section, const char* key, int& value) {
    std::string text;
    int number = 0;
    // The documented conversion is that of "%d".
    // NOLINTNEXTLINE(cert-err34-c)
    if (!get_config_str(path, section, key, text) || std::sscanf(text.c_str(), "%d", &number) != 1) {
        return false;
    }
    value = number;
    return true;
}

bool get_config_bool(const char* path, const char* section, const char* key, bool& value) {
    std::string text;
    if (!get_config_str(path, section, key, text) || (text != "true" && text != "false")) {
        return false;
    }
    value = text == "true";
    return true;
}

bool set_config_str(const char* path, const char* section, const char* key, const char* value) {
    const std::string file = path == nullptr ? "" : path;
    std::vector<std::string> lines;
    if (!ReadLines(file, lines)) {
        moduleLog.Error("read [%s] failed.", file);
        return false;
    }
    if (SDK::FileUtils::WriteFile(file, Rebuild(lines, section, key, value), false) != 0) {
        moduleLog.Error("write config [%s] failed.", file);
        return false;
    }
    return true;
}

bool set_config_int(const char* path, const char* section, const char* key, int value) {
    char text[64];
    if (std::snprintf(text, sizeof(text), "%d", value) < 1) {
        return false;
    }
    return set_config_str(path, section, key, text);
}

bool set_config_bool(const char* path, const char* section, const char* key, bool value) {
    return set_config_str(path, section, key, value ? "true" : "false");
}

} // namespace utils::config
