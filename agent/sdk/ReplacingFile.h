#pragma once

#include <cstddef>
#include <string>

#include "agent/sdk/FileDescriptor.h"

namespace SDK {

// A file that is replaced in one step: what is written goes to a temporary file in the
// destination's folder, which Commit makes durable and renames over the destination.
//
//     Open      ->  the temporary file exists, mode 0600, the destination is untouched
//     Commit    ->  the destination is the new file, the temporary name is gone
//     destroyed without a Commit that succeeded  ->  the temporary file is gone, the destination as it was
//
// After a crash at any point the destination is the old file or the new one, whole; a temporary file
// (".corvalent-" and six more characters) may be left, for RemoveLeftovers. Results are 0 or an errno value.
class ReplacingFile {
public:
    explicit ReplacingFile(const std::string& destination);
    ~ReplacingFile();
    ReplacingFile(const ReplacingFile&) = delete;
    ReplacingFile& operator=(const ReplacingFile&) = delete;

    int Open();
    int Write(const char* data, std::size_t length);
    int Commit();

    // Deletes the temporary files that a process which was killed has left in the folder. Only for a folder in
    // which no file is being replaced.
    static void RemoveLeftovers(const std::string& folder);

private:
    int SyncFolder() const;

    const std::string mDestination;
    const std::string mFolder;
    std::string mTemporary; // empty: there is none
    FileDescriptor mFile;
};

} // namespace SDK
