#include "agent/sdk/ReplacingFile.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

namespace SDK {

namespace {

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
    std::string name = mFolder + ".corvalent-XXXXXX";
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

int ReplacingFile::SyncFolder() const {
    const FileDescriptor folder(open(mFolder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Some file systems offer no fsync of a folder (EINVAL); they give what they have.
    if (!folder.IsOpen() || (fsync(folder.Get()) != 0 && errno != EINVAL)) {
        return errno;
    }
    return 0;
}

} // namespace SDK
