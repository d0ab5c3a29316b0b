#include "agent/sdk/ImagePath.h"

#include <array>
#include <cerrno>
#include <climits>
#include <memory>
#include <string_view>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include "sdk/Shortage.h"

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

std::string ImageLink(int pid) {
    return "/proc/" + std::to_string(pid) + "/exe";
}

std::optional<std::string> FindOtherImageLink(int pid) {
    const std::string folder = "/proc/" + std::to_string(pid) + "/task/";
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(folder.c_str()), closedir);
    if (!listing) {
        Shortage::Note(errno);
    }
    while (const dirent* thread = listing ? readdir(listing.get()) : nullptr) {
        std::string link = folder + thread->d_name + "/exe";
        struct stat image {};
        if (thread->d_name[0] != '.' && stat(link.c_str(), &image) == 0) {
            return link;
        }
    }
    return std::nullopt;
}

bool StatImage(int pid, struct stat& image) {
    if (stat(ImageLink(pid).c_str(), &image) == 0) {
        return true;
    }
    if (errno != ENOENT) {
        return false;
    }
    const std::optional<std::string> link = FindOtherImageLink(pid);
    return link && stat(link->c_str(), &image) == 0;
}

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
