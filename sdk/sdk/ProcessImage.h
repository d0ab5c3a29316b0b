#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>

namespace SDK {

// Which file an image is, and in which state, as stat(2) tells it. The same from one moment to the next means the
// same content unless somebody changed it in between and hid that: good for a pass over what runs, not for longer.
struct ImageIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t mtimeNs = 0; // since the epoch
    std::int64_t ctimeNs = 0;

    // NOLINTNEXTLINE(modernize-use-nullptr): the tool takes the generated comparison with 0 for a pointer
    auto operator<=>(const ImageIdentity&) const = default;
};

// Holds open the image that a process runs, so that what is read is what runs.
//
// Between a process and the path of its image lies much that can change or differ: the image can be deleted
// or replaced after the start, exist in memory only (memfd_create(2)), or be seen at that path in the process's
// mount namespace alone, while another file lies there in the agent's. While a ProcessImage lives, on its
// thread:
//
//     ProcessUtils::GetProcessExePath(pid)    gives the path of the held image, that of one which was deleted
//                                             as it was before, and "/memfd:NAME" for one in memory
//     FileUtils::GetFileSha256, GetFileHash   asked for that path, read the held image
//
// Nothing else changes; other paths and other threads mean what they always mean. Of several on one thread the
// youngest counts; they end in reverse order, as the variables of a block do. Without effect when the process
// is gone or has no image. Of an image that cannot be opened the path is held, and asking for its digest fails: what
// lies at the path is not taken for it.
//
// Keeps its file system busy for as long as it lives.
class ProcessImage {
public:
    explicit ProcessImage(int pid);
    ~ProcessImage();
    ProcessImage(const ProcessImage&) = delete;
    ProcessImage& operator=(const ProcessImage&) = delete;

    // The image that the calling thread holds of the process; null when it holds none.
    static const ProcessImage* Of(int pid);

    // The image that the calling thread holds and that bears this path; null when there is none.
    static const ProcessImage* At(const std::string& path);

    // Of what the process runs now, which is not opened for it. Nothing when the process is gone or has no image.
    static std::optional<ImageIdentity> Identify(int pid);

    // Of what is held; nothing where that could not be opened.
    std::optional<ImageIdentity> GetIdentity() const;

    // As ProcessUtils::GetProcessExePath gives it.
    const std::string& GetPath() const { return mPath; }

    // Open for reading, at no particular place of the file; -1 when it could not be opened.
    int GetFd() const { return mFd; }

    // Leads to what the process runs now.
    const std::string& GetLink() const { return mLink; }

private:
    const int mPid;
    const ProcessImage* const mOuter;
    std::string mLink;
    int mFd = -1;
    std::string mPath; // empty when there is nothing to hold
};

} // namespace SDK
