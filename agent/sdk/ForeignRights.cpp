#include "agent/sdk/ForeignRights.h"

#include <array>
#include <cstdio>

#include <unistd.h>

namespace SDK {

namespace {

std::string OctalMode(mode_t mode) {
    constexpr mode_t ALL_BITS = 07777;
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned int>(mode & ALL_BITS));
    return text.data();
}

} // namespace

std::string FindForeignRights(const std::string& path, const struct stat& file) {
    if (file.st_uid != 0 && file.st_uid != geteuid()) {
        return path + " belongs to user " + std::to_string(file.st_uid);
    }
    if ((file.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return path + " has mode " + OctalMode(file.st_mode);
    }
    return "";
}

} // namespace SDK
