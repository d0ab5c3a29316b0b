#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "agent/sdk/FileDescriptor.h"

namespace Engine {

// One access as the kernel reports it (struct fanotify_event_metadata of fanotify(7)).
struct FileAccess {
    std::uint64_t mask = 0;   // FAN_OPEN and its like
    int pid = 0;              // the process; 0 when it lies in another pid namespace
    SDK::FileDescriptor file; // the file that was accessed, opened by the kernel for the reader
};

// One fanotify group: marks on directories and mounts, and the queue of the accesses that they report.
// The one place that talks to the kernel about it.
//
// Who owns which descriptor:
//
//     fanotify_init ──► mFd ─────────────────────────────────────────────► closed by ~FanotifyGroup;
//                                                                          all marks go with it
//     kernel's queue: events hold references to files, no descriptors of ours
//         │ read(2): the kernel opens each file and installs the descriptor in this process, up to
//         │ MAX_BATCH at a time
//         ▼
//     Read: before anything else happens to an event its descriptor becomes a FileAccess::file
//         │   overflow event          has no descriptor
//         │   file cannot be opened   has none; counted in Batch::unreadable
//         ▼
//     Batch::accesses ──► the caller; closed together by Batch::Clear, at the latest when the batch is
//                         read again, or one by one when it goes
//
// A descriptor is therefore never in a message or in a task's queue: whatever becomes of an event, full
// queue, overflow, stop, exception, at most MAX_BATCH are open for each batch, and a watcher has two, which
// it clears when it has sent what waited.
//
// The group only notifies (FAN_CLASS_NOTIF): nobody's file operation ever waits for it. The kernel's
// queue is bounded (fs.fanotify.max_queued_events), and so is the number of marks
// (fs.fanotify.max_user_marks).
//
// Mark and Unmark may be called while another thread reads; otherwise one thread at a time.
class FanotifyGroup {
public:
    static constexpr std::size_t MAX_BATCH = 128;

    // What one mark is on.
    enum class Object { Directory, Mount };

    // What a read took from the queue.
    struct Batch {
        std::vector<FileAccess> accesses;
        std::size_t overflows = 0;  // the queue ran over; how many events are gone is not known
        std::size_t unreadable = 0; // events whose file could not be opened for us

        // Closes the files.
        void Clear();
        std::size_t Size() const { return accesses.size() + overflows + unreadable; }
    };

    // Whether the kernel says for each event why its file could not be opened, which it can since Linux
    // 6.13; events are read one by one where it cannot. `No` does without on any kernel.
    enum class FileErrors { IfPossible, No };

    explicit FanotifyGroup(FileErrors fileErrors = FileErrors::IfPossible) : mFileErrors(fileErrors) {}
    FanotifyGroup(const FanotifyGroup&) = delete;
    FanotifyGroup& operator=(const FanotifyGroup&) = delete;

    // False, and `problem` says why in one line, when the agent may not. Called once.
    bool Open(std::string& problem);

    // For poll(2): readable when Read has something to say. -1 when not open.
    int GetFd() const { return mFd.Get(); }

    // Whether the kernel says for each event why its file could not be opened.
    bool ReportsFileErrors() const { return mEventsPerRead > 1; }

    // How many events wait in the kernel's queue now. None goes but by Read.
    std::size_t CountWaiting() const;

    // Place and take away the mark on what lies at `path`. 0 or an errno value. Links are followed.
    int Mark(Object object, const std::string& path, std::uint64_t mask) const;
    int Unmark(Object object, const std::string& path, std::uint64_t mask) const;

    // Replaces `batch` by the oldest events, `waiting` of them but no more than MAX_BATCH. So many must wait, as
    // CountWaiting said; it counts by walking the queue, under the lock that whoever opens a file in scope needs
    // too, so it is asked once for many reads. Never blocks: a file that cannot be opened at once, because
    // somebody holds a lease on it, counts as unreadable. 0 or an errno value, the batch being what was read
    // before: EPROTO when the kernel's events have another form than this program knows.
    int Read(std::size_t waiting, Batch& batch) const;

private:
    int ChangeMark(unsigned int action, Object object, const std::string& path, std::uint64_t mask) const;

    int ReadOnce(std::size_t events, Batch& batch) const;

    const FileErrors mFileErrors;
    SDK::FileDescriptor mFd;
    std::size_t mEventsPerRead = 1; // 1 where an event that cannot be opened would hide among others
};

} // namespace Engine
