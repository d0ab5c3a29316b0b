#include "ctl/Document.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"
#include "ctl/Failure.h"
#include "ctl/Output.h"
#include "sdk/FileUtils.h"

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

void WriteNewDocument(const std::string& file, const std::string& text) {
    constexpr mode_t READABLE = 0644;
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, READABLE);
    if (fd < 0) {
        throw Failure("cannot make [" + file + "]: " + std::strerror(errno));
    }
    int error = SDK::WriteFully(fd, text.data(), text.size());
    if (close(fd) != 0 && error == 0) {
        error = errno;
    }
    if (error != 0) {
        unlink(file.c_str());
        throw Failure("cannot write [" + file + "]: " + std::strerror(error));
    }
}

void WriteDocument(const std::string& file, const std::string& text) {
    if (file == "-") {
        std::cout << text;
        FlushOutput();
        return;
    }
    CheckDestination(file);
    if (const int error = SDK::FileUtils::WriteFile(file, text, false); error != 0) {
        throw Failure("cannot write [" + file + "]: " + std::strerror(error));
    }
}

void CheckDestination(const std::string& file) {
    struct stat info {};
    if (file != "-" && stat(file.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        throw Failure("cannot write [" + file + "]: it is no regular file");
    }
}

} // namespace Ctl
