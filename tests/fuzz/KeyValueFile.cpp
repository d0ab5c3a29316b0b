// The key-value file: any file, then any sequence of writes (parts of the input: the file, then SECTION KEY
// VALUE for each write).

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/Fuzz.h"
#include "utils/config.h"

namespace {

using Lines = std::vector<std::string>;

// The reader's strings are NUL-terminated.
struct Write {
    std::string section;
    std::string key;
    std::string value;
};

std::string Trim(const std::string& text) {
    const auto isSpace = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
    const auto first = std::find_if_not(text.begin(), text.end(), isSpace);
    const auto last = std::find_if_not(text.rbegin(), std::make_reverse_iterator(first), isSpace).base();
    return {first, last};
}

// The lines of a text, trimmed; what is behind the last line feed is one, too.
Lines ToLines(const std::string& text) {
    Lines lines;
    std::size_t begin = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        lines.push_back(Trim(text.substr(begin, end - begin)));
        begin = end + 1;
    }
    lines.push_back(Trim(text.substr(begin)));
    return lines;
}

// ---- The format ------------------------------------------------------------------------------------

// The name in a header as readers take it.
std::optional<std::string> ReadHeader(const std::string& line) {
    const std::size_t close = line.find(']');
    if (line.empty() || line[0] != '[' || close == std::string::npos || close == 1) {
        return std::nullopt;
    }
    return Trim(line.substr(1, close - 1));
}

std::optional<std::pair<std::string, std::string>> ReadEntry(const std::string& line) {
    const std::size_t equals = line.find('=');
    if (line.empty() || line[0] == '#' || line[0] == '[' || equals == std::string::npos || equals == 0) {
        return std::nullopt;
    }
    return std::pair(Trim(line.substr(0, equals)), Trim(line.substr(equals + 1)));
}

struct Entry {
    std::string section;
    std::string key;
    std::string value;
};

// What a file holds to its readers: of each section its first occurrence, of each key in it the first.
std::vector<Entry> ReadAll(const std::string& text) {
    std::vector<Entry> entries;
    std::set<std::string> sectionsSeen;
    std::set<std::pair<std::string, std::string>> keysSeen;
    std::optional<std::string> section;
    for (const std::string& line : ToLines(text)) {
        if (const auto name = ReadHeader(line)) {
            section = sectionsSeen.insert(*name).second ? name : std::nullopt;
        } else if (const auto entry = ReadEntry(line);
                   section && entry && keysSeen.insert({*section, entry->first}).second) {
            entries.push_back({*section, entry->first, entry->second});
        }
    }
    return entries;
}

// Names and values that come back as they were written: nothing in them means anything to the format.
bool IsPlain(const Write& write) {
    const auto isTrimmedLine = [](const std::string& text) {
        return text == Trim(text) && text.find('\n') == std::string::npos;
    };
    return isTrimmedLine(write.section) && isTrimmedLine(write.key) && isTrimmedLine(write.value) &&
           !write.section.empty() && write.section.find(']') == std::string::npos && !write.key.empty() &&
           write.key.find('=') == std::string::npos && write.key[0] != '#' && write.key[0] != '[';
}

// Readers accept headers of a section that writers do not know, and answer from the first.
bool IsHiddenFromReaders(const Lines& lines, const std::string& section) {
    const auto first =
        std::find_if(lines.begin(), lines.end(), [&](const std::string& line) { return ReadHeader(line) == section; });
    return first != lines.end() && *first != "[" + section + "]";
}

// ---- The checks ------------------------------------------------------------------------------------

std::optional<std::string> Get(const std::string& path, const std::string& section, const std::string& key) {
    std::string value = "untouched";
    const bool found = utils::config::get_config_str(path.c_str(), section.c_str(), key.c_str(), value);
    Fuzz::Require(found || value == "untouched", "what is not found leaves the value alone");
    return found ? std::optional(value) : std::nullopt;
}

void RequireEntries(const std::string& path, const std::vector<Entry>& entries, const Write* written) {
    for (const Entry& entry : entries) {
        if (written == nullptr || entry.section != written->section || entry.key != written->key) {
            Fuzz::Require(Get(path, entry.section.c_str(), entry.key.c_str()) == entry.value ||
                              entry.section.find('\0') != std::string::npos ||
                              entry.key.find('\0') != std::string::npos,
                          "every entry that was not written reads as before",
                          entry.section + "/" + entry.key + "=" + entry.value);
        }
    }
}

// The numeric and truth readers say no more than the text does.
void CheckTypedReaders(const std::string& path, const std::vector<Entry>& entries) {
    for (const Entry& entry : entries) {
        const std::string key = entry.key;
        bool flag = false;
        const bool isFlag = utils::config::get_config_bool(path.c_str(), entry.section.c_str(), key.c_str(), flag);
        const std::optional<std::string> text = Get(path, entry.section, key);
        Fuzz::Require(isFlag == (text == "true" || text == "false") && flag == (text == "true"),
                      "only true and false are truth values");
        int number = 0;
        if (utils::config::get_config_int(path.c_str(), entry.section.c_str(), key.c_str(), number)) {
            Fuzz::Require(text && text->find_first_of("0123456789") != std::string::npos, "a number has digits");
        }
    }
}

// The text that a write makes of a file: the old lines, in their order, with the entry in the place of one, at
// the end of its section or, with a header ahead of it, at the end of the file.
std::string Expect(const std::string& before, const Write& write) {
    const std::string entry = write.key + "=" + write.value;
    const auto isKey = [&](const std::string& line) {
        const std::size_t equals = line.find('=');
        return line[0] != '#' && equals != std::string::npos && Trim(line.substr(0, equals)) == write.key;
    };
    Lines lines = before.empty() ? Lines{} : ToLines(before);
    const auto header = std::find(lines.begin(), lines.end(), "[" + write.section + "]");
    if (header == lines.end()) {
        lines.insert(lines.end(), {"[" + write.section + "]", entry});
    } else {
        const auto end = std::find_if(header + 1, lines.end(), [](const auto& line) { return line[0] == '['; });
        const auto old = std::find_if(header + 1, end, isKey);
        if (old != end) {
            *old = entry;
        } else {
            lines.insert(end, entry);
        }
    }
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

void DoWrite(const TestSupport::TempDir& folder, const std::string& path, const Write& write) {
    const std::string before = folder.Read("file");
    Fuzz::Require(
        utils::config::set_config_str(path.c_str(), write.section.c_str(), write.key.c_str(), write.value.c_str()),
        "a small file can be written");
    const std::string after = folder.Read("file");
    Fuzz::Require(after == Expect(before, write), "every line but the entry's is kept", after);
    if (!IsPlain(write)) {
        return;
    }
    RequireEntries(path, ReadAll(before), &write);
    if (!IsHiddenFromReaders(ToLines(before), write.section)) {
        Fuzz::Require(Get(path, write.section, write.key) == write.value, "a read gives what was written",
                      write.section + "/" + write.key + "=" + write.value);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) noexcept {
    constexpr std::size_t MAX_WRITES = 16;
    static const Fuzz::LogCheck log;
    static const TestSupport::TempDir folder(Fuzz::FolderForFiles());
    const std::vector<std::string> parts = Fuzz::SplitInput(data, size);
    const std::string path = folder.Write("file", parts[0]);
    RequireEntries(path, ReadAll(parts[0]), nullptr);
    CheckTypedReaders(path, ReadAll(parts[0]));
    for (std::size_t i = 1; i + 2 < parts.size() && i < 3 * MAX_WRITES; i += 3) {
        DoWrite(folder, path, {parts[i].c_str(), parts[i + 1].c_str(), parts[i + 2].c_str()});
    }
    return 0;
}
