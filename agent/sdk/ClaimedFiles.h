#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace SDK {

// The temporary files that a command is given to write to. Their names can be guessed and /tmp is everybody's,
// so they are taken before the command runs: whatever somebody put there is removed, and an empty file that
// belongs to this process's user alone lies in its place. In a folder with the sticky bit nobody else can
// replace that.
//
// A temporary file of this process is a path directly in /tmp that ends in "." and this process's id.
class ClaimedFiles {
public:
    explicit ClaimedFiles(const std::vector<std::string>& words);
    // Removes the files that are as empty as they were made.
    ~ClaimedFiles();
    ClaimedFiles(const ClaimedFiles&) = delete;
    ClaimedFiles& operator=(const ClaimedFiles&) = delete;

    // False when a name could not be had: it is a folder, or somebody keeps taking it.
    bool AreHeld() const { return mHeld; }

private:
    struct File {
        std::string path;
        dev_t device;
        ino_t inode;
    };

    bool Claim(const std::string& path);

    std::vector<File> mFiles;
    bool mHeld = true;
};

} // namespace SDK
