#include "agent/sdk/ReplacingFile.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace SDK {

namespace {

constexpr const char* PREFIX = ".corvalent-";
constexpr const char* PLACES = "XXXXXX"; // for mkostemp(3) to fill in

bool IsTemporaryName(const std::string& name) {
    const std::string prefix = PREFIX;
    return name.starts_with(prefix) && name.size() == prefix.size() + std::string(PLACES).size();
}

std::string FolderOf(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? "./" : path.substr(0, slash + 1);
}

} // namespace

ReplacingFile::ReplacingFile(const std::string& destination)
    : mDestination(destination), mFolder(FolderOf(destination)) {}

ReplacingFile::~ReplacingFile() {
    if (!mTemporary.empty()) {
        unlink(mTemporary.c_str());
    }
}

int ReplacingFile::Open() {
    std::string name = mFolder + PREFIX + PLACES;
    mFile.Reset(mkostemp(name.data(), O_CLOEXEC));
    if (!mFile.IsOpen()) {
        return errno;
    }
    mTemporary = name;
    return 0;
}

int ReplacingFile::Write(const char* data, std::size_t length) {
    return WriteFully(mFile.Get(), data, length);
}

int ReplacingFile::Commit() {
    if (fsync(mFile.Get()) != 0 || rename(mTemporary.c_str(), mDestination.c_str()) != 0) {
        return errno;
    }
    mTemporary.clear();
    return SyncFolder();
}

void ReplacingFile::RemoveLeftovers(const std::string& folder) {
    namespace fs = std::filesystem;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        std::error_code failed;
        if (IsTemporaryName(entry->path().filename().string()) && entry->is_regular_file(failed)) {
            unlink(entry->path().c_str());
        }
    }
}

int ReplacingFile::SyncFolder() const {
    const FileDescriptor folder(open(mFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Some file systems offer no fsync of a folder (EINVAL); they give what they have.
    if (!folder.IsOpen() || (fsync(folder.Get()) != 0 && errno != EINVAL)) {
        return errno;
    }
    return 0;
}

} // namespace SDK
