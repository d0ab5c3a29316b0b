#include "agent/sdk/ClaimedFiles.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/sdk/FileDescriptor.h"

namespace SDK {

namespace {

const std::string FOLDER = "/tmp/";

// How often a name is fought for.
constexpr int MAX_ATTEMPTS = 100;

bool IsTemporaryOfThisProcess(const std::string& path) {
    return path.starts_with(FOLDER) && path.find('/', FOLDER.size()) == std::string::npos &&
           path.ends_with("." + std::to_string(getpid()));
}

} // namespace

ClaimedFiles::ClaimedFiles(const std::vector<std::string>& words) {
    for (const std::string& word : words) {
        mHeld = mHeld && (!IsTemporaryOfThisProcess(word) || Claim(word));
    }
}

ClaimedFiles::~ClaimedFiles() {
    for (const File& file : mFiles) {
        struct stat now {};
        const bool known = lstat(file.path.c_str(), &now) == 0;
        if (known && now.st_dev == file.device && now.st_ino == file.inode && now.st_size == 0) {
            unlink(file.path.c_str());
        }
    }
}

bool ClaimedFiles::Claim(const std::string& path) {
    constexpr int FLAGS = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    for (int attempt = 0; attempt < MAX_ATTEMPTS; ++attempt) {
        if (unlink(path.c_str()) != 0 && errno != ENOENT) {
            return false;
        }
        const FileDescriptor made(open(path.c_str(), FLAGS, S_IRUSR | S_IWUSR));
        struct stat file {};
        if (made.IsOpen() && fstat(made.Get(), &file) == 0) {
            mFiles.push_back({path, file.st_dev, file.st_ino});
            return true;
        }
        if (errno != EEXIST) {
            return false;
        }
    }
    return false;
}

} // namespace SDK
