#include "growth/TrustList.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>

namespace Bench {

namespace {

constexpr std::size_t PATH_BYTES = 97;
constexpr std::size_t FILES_A_FOLDER = 300;

std::string Hexadecimal(std::mt19937_64& random, std::size_t digits) {
    std::string text;
    while (text.size() < digits) {
        text += "0123456789abcdef"[random() % 16];
    }
    return text;
}

} // namespace

std::vector<TrustEntry> MakeEntries(const std::string& folder, std::size_t count) {
    std::mt19937_64 random(42);
    std::vector<TrustEntry> entries;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string name = "program-" + Hexadecimal(random, 9);
        std::string path = folder + "/usr/lib/x86_64-linux-gnu/package-" + std::to_string(i / FILES_A_FOLDER) + "-";
        path += std::string(PATH_BYTES - std::min(PATH_BYTES, path.size() + 1 + name.size()), 'x') + "/" + name;
        entries.push_back({path, name, Hexadecimal(random, 64)});
    }
    return entries;
}

std::size_t CountStringBytes(const std::vector<TrustEntry>& entries) {
    std::size_t bytes = 0;
    for (const TrustEntry& entry : entries) {
        bytes += entry.path.size() + entry.name.size() + entry.hash.size();
    }
    return bytes;
}

std::string ToDocument(std::vector<TrustEntry> entries) {
    std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.path < b.path; });
    std::string text;
    for (const TrustEntry& entry : entries) {
        text += text.empty() ? R"({"process_info":[)" : ",";
        text += R"({"hash":")" + entry.hash + R"(","name":")" + entry.name + R"(","path":")" + entry.path +
                R"(","size":1,"type":1})";
    }
    return text + "]}";
}

void MakeFiles(const std::vector<TrustEntry>& entries) {
    for (const TrustEntry& entry : entries) {
        std::filesystem::create_directories(std::filesystem::path(entry.path).parent_path());
        std::ofstream(entry.path) << 'x';
    }
}

} // namespace Bench
