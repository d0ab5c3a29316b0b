#include "agent/sdk/ImagePath.h"

#include <array>
#include <cerrno>
#include <climits>
#include <string_view>

#include <sys/stat.h>
#include <unistd.h>

namespace SDK {

namespace {

constexpr std::string_view DELETED = " (deleted)";

bool LeadToOneFile(const std::string& one, const std::string& other) {
    struct stat first {};
    struct stat second {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

} // namespace

int ReadLink(const std::string& link, std::string& target) {
    std::array<char, PATH_MAX> buffer; // NOLINT(*-member-init): readlink fills what is used
    const ssize_t length = readlink(link.c_str(), buffer.data(), buffer.size());
    if (length < 0) {
        return errno;
    }
    target.assign(buffer.data(), static_cast<std::size_t>(length));
    return 0;
}

int ReadImagePath(const std::string& link, std::string& path) {
    std::string target;
    const int result = ReadLink(link, target);
    if (result != 0) {
        return result;
    }
    if (target.ends_with(DELETED) && !LeadToOneFile(link, target)) {
        target.resize(target.size() - DELETED.size());
    }
    path = std::move(target);
    return 0;
}

} // namespace SDK
