#include "agent/filenotify/FanotifyGroup.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <span>
#include <utility>

#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "agent/filenotify/FanotifyEvents.h"
#include "sdk/Shortage.h"

namespace Engine {

namespace {

// include/uapi/linux/fanotify.h since Linux 6.13: an event whose file cannot be opened carries the
// negative error in place of a descriptor. Without it such an event ends the read, and is seen only when
// it is the first.
constexpr unsigned int REPORT_FD_ERROR = 0x00002000;

constexpr unsigned int GROUP_FLAGS = FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK;
// Non-blocking, so that no read waits for somebody to give up a lease on a file (fcntl(2), F_SETLEASE).
constexpr unsigned int FILE_FLAGS = O_RDONLY | O_LARGEFILE | O_CLOEXEC | O_NONBLOCK;

// Errors of a read of one event that waits, which speak of that event's file and not of the group. The
// event is gone from the queue.
bool IsAboutOneFile(int error) {
    return error != EBADF && error != EFAULT && error != EINVAL;
}

// Makes the event's descriptor the batch's first thing.
void TakeEvent(const fanotify_event_metadata& event, FanotifyGroup::Batch& batch) {
    SDK::FileDescriptor file(event.fd);
    if ((event.mask & FAN_Q_OVERFLOW) != 0) {
        ++batch.overflows;
    } else if (!file.IsOpen()) {
        SDK::Shortage::Note(-event.fd);
        ++batch.unreadable;
    } else {
        batch.accesses.push_back({event.mask, event.pid, std::move(file)});
    }
}

// Closes successive descriptors, all of them ours.
void CloseRun(int first, int last) {
    if (close_range(static_cast<unsigned int>(first), static_cast<unsigned int>(last), 0) == 0) {
        return;
    }
    for (int fd = first; fd <= last; ++fd) {
        close(fd);
    }
}

// The kernel gives the lowest free numbers, so that the files of a batch mostly follow one another.
void CloseAll(std::vector<FileAccess>& accesses) {
    for (auto next = accesses.begin(); next != accesses.end();) {
        const int first = next->file.Release();
        int last = first;
        for (++next; next != accesses.end() && next->file.Get() == last + 1; ++next) {
            last = next->file.Release();
        }
        CloseRun(first, last);
    }
    accesses.clear();
}

} // namespace

void FanotifyGroup::Batch::Clear() {
    CloseAll(accesses);
    overflows = 0;
    unreadable = 0;
}

bool FanotifyGroup::Open(std::string& problem) {
    if (mFileErrors == FileErrors::IfPossible) {
        mFd.Reset(fanotify_init(GROUP_FLAGS | REPORT_FD_ERROR, FILE_FLAGS));
        mEventsPerRead = MAX_BATCH;
    }
    if (mFileErrors == FileErrors::No || (!mFd.IsOpen() && errno == EINVAL)) {
        mFd.Reset(fanotify_init(GROUP_FLAGS, FILE_FLAGS));
        mEventsPerRead = 1;
    }
    if (!mFd.IsOpen()) {
        problem = std::string("fanotify is not available (it needs CAP_SYS_ADMIN): ") + std::strerror(errno);
        return false;
    }
    return true;
}

std::size_t FanotifyGroup::CountWaiting() const {
    int bytes = 0;
    // FIONREAD counts what read(2) would give, and all events have the same size.
    if (ioctl(mFd.Get(), FIONREAD, &bytes) != 0 || bytes < 0) {
        return 0;
    }
    return static_cast<std::size_t>(bytes) / sizeof(fanotify_event_metadata);
}

int FanotifyGroup::Mark(Object object, const std::string& path, std::uint64_t mask) const {
    return ChangeMark(FAN_MARK_ADD, object, path, mask);
}

int FanotifyGroup::Unmark(Object object, const std::string& path, std::uint64_t mask) const {
    return ChangeMark(FAN_MARK_REMOVE, object, path, mask);
}

int FanotifyGroup::ChangeMark(unsigned int action, Object object, const std::string& path, std::uint64_t mask) const {
    const unsigned int kind = object == Object::Mount ? FAN_MARK_MOUNT : FAN_MARK_INODE;
    return fanotify_mark(mFd.Get(), action | kind, mask, AT_FDCWD, path.c_str()) == 0 ? 0 : errno;
}

int FanotifyGroup::Read(std::size_t waiting, Batch& batch) const {
    batch.Clear();
    // Nothing may be thrown between a read and the taking over of its last descriptor.
    batch.accesses.reserve(MAX_BATCH);
    const std::size_t wanted = std::min(waiting, MAX_BATCH);
    while (batch.Size() < wanted) {
        const std::size_t before = batch.Size();
        if (const int error = ReadOnce(std::min(mEventsPerRead, wanted - before), batch); error != 0) {
            return error;
        }
        if (batch.Size() == before) {
            return 0;
        }
    }
    return 0;
}

// Adds what one read gives, while so many events wait.
int FanotifyGroup::ReadOnce(std::size_t events, Batch& batch) const {
    std::array<std::byte, MAX_BATCH * sizeof(fanotify_event_metadata)> buffer; // NOLINT(*-member-init): read fills it
    const ssize_t length = SDK::ReadRetrying(mFd.Get(), buffer.data(), events * sizeof(fanotify_event_metadata));
    if (length < 0) {
        if (!IsAboutOneFile(errno)) {
            return errno;
        }
        SDK::Shortage::Note(errno);
        ++batch.unreadable;
        return 0;
    }
    FanotifyEvents taken(std::span<const std::byte>(buffer).first(static_cast<std::size_t>(length)));
    fanotify_event_metadata event{};
    while (taken.Next(event)) {
        TakeEvent(event, batch);
    }
    return taken.IsAtEnd() ? 0 : EPROTO;
}

} // namespace Engine
