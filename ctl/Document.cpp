#include "ctl/Document.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <vector>

#include "ctl/Failure.h"

namespace Ctl {

namespace {

constexpr std::size_t MAX_BYTES = 64U << 20U;
constexpr std::size_t CHUNK_BYTES = 1U << 16U;

std::string ReadAll(std::istream& input, const std::string& name) {
    std::string text;
    std::vector<char> chunk(CHUNK_BYTES);
    errno = 0;
    while (input) {
        input.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        text.append(chunk.data(), static_cast<std::size_t>(input.gcount()));
        if (text.size() > MAX_BYTES) {
            throw Failure("[" + name + "] is larger than " + std::to_string(MAX_BYTES) + " bytes");
        }
    }
    if (input.bad()) {
        throw Failure("cannot read [" + name + "]: " + std::strerror(errno));
    }
    return text;
}

} // namespace

std::string ReadDocument(const std::string& file) {
    if (file == "-") {
        return ReadAll(std::cin, "standard input");
    }
    std::ifstream input(file, std::ios::binary);
    if (!input) {
        throw Failure("cannot open [" + file + "]: " + std::strerror(errno));
    }
    return ReadAll(input, file);
}

} // namespace Ctl
