#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <fcntl.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"
#include "sdk/PrintableText.h"
#include "support/TempRoot.h"

// What every fuzz target defines: given any bytes it returns 0, or -1 for bytes that it does not want to see
// again, within the time and memory that it is run with. Whatever must not happen ends the process. It throws
// nothing: an exception of the product's would end the process, too.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) noexcept;

namespace Fuzz {

// A finding unless `holds`: says which property of the code under test does not, and ends the process.
inline void Require(bool holds, const char* property, const std::string& detail = "") {
    if (!holds) {
        std::fprintf(stderr, "property violated: %s\n%s\n", property, SDK::PrintableText::Escape(detail).c_str());
        std::abort();
    }
}

inline std::string ToText(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

// The parts of an input that stands for several texts, which the byte 0xFF separates. There is at least one.
inline std::vector<std::string> SplitInput(const std::uint8_t* data, std::size_t size) {
    constexpr char SEPARATOR = '\xFF';
    const std::string text = ToText(data, size);
    std::vector<std::string> parts;
    std::size_t begin = 0;
    for (std::size_t end = text.find(SEPARATOR); end != std::string::npos; end = text.find(SEPARATOR, begin)) {
        parts.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    parts.push_back(text.substr(begin));
    return parts;
}

// Where files of a target may live: in memory if possible, since files are synced as they are written.
inline std::string FolderForFiles() {
    const char* const chosen = std::getenv("TMPDIR");
    if (chosen != nullptr && *chosen != '\0') {
        return chosen;
    }
    return std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp";
}

// Has every record formatted that the code under test logs, whatever its level, and looks whether it would be
// one line of the log.
class LogCheck {
public:
    LogCheck() {
        Poco::Logger::root();
        Poco::Logger::setLevel("", Poco::Message::PRIO_TRACE);
        Poco::Logger::setChannel("", Poco::AutoPtr<Poco::Channel>(new Checker));
    }

private:
    class Checker : public Poco::Channel {
    public:
        void log(const Poco::Message& message) override {
            const std::string line = SDK::PrintableText::Escape(message.getText());
            const bool printable = std::none_of(
                line.begin(), line.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == '\x7F'; });
            Require(printable, "a log record holds no control character", line);
        }
    };
};

// Makes the folder the working directory for one input. The fuzzer's own has to be there again afterwards: it
// is told relative paths.
class WorkingIn {
public:
    explicit WorkingIn(const std::string& folder) : mBefore(open(".", O_PATH | O_DIRECTORY | O_CLOEXEC)) {
        if (!mBefore.IsOpen() || chdir(folder.c_str()) != 0) {
            throw std::runtime_error("cannot work in " + folder);
        }
    }
    ~WorkingIn() { Require(fchdir(mBefore.Get()) == 0, "the working directory can be changed back"); }
    WorkingIn(const WorkingIn&) = delete;
    WorkingIn& operator=(const WorkingIn&) = delete;

private:
    const SDK::FileDescriptor mBefore;
};

} // namespace Fuzz
