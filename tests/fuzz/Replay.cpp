// Stands in for libFuzzer where there is none: gives a fuzz target the bytes of each file that it is called
// with, or that lies in a folder that it is called with. Exits with 0 when the target has lived through them
// all. A folder without files is a failure, since nothing would have been tested.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/Fuzz.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> ListFiles(const fs::path& place) {
    if (!fs::is_directory(place)) {
        return {place};
    }
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(place)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

// A copy on the heap of just the right size: a sanitizer sees what is read beyond its end.
std::vector<std::uint8_t> ReadBytes(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
        throw std::runtime_error("cannot read " + path.string());
    }
    bytes.shrink_to_fit();
    return bytes;
}

} // namespace

int main(int argc, char** argv) {
    for (const char* place : std::vector<const char*>(argv + 1, argv + argc)) {
        const std::vector<fs::path> files = ListFiles(place);
        if (files.empty()) {
            std::fprintf(stderr, "no files to replay in [%s]\n", place);
            return 1;
        }
        for (const fs::path& file : files) {
            // Before it is tried: if the target does not survive it, this is the last line.
            std::fprintf(stderr, "%s\n", file.c_str());
            const std::vector<std::uint8_t> bytes = ReadBytes(file);
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
        }
    }
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FILE|FOLDER…\n", argv[0]);
        return 2;
    }
    return 0;
}
