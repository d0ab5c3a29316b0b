#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "framework/Message.h"
#include "framework/Task.h"

namespace Engine {

// What a watch request asks for. A flag is 0 or 1; those named reserved are 0.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming): the interface's name
struct _FileNotifyOpt {
    std::uint8_t add = 0; // place a mark
    std::uint8_t reserved1 = 0;
    std::uint8_t reserved2 = 0;
    std::uint8_t mount = 0; // mark the whole mount that the path lies on, not the directory
    std::uint8_t reserved4 = 0;
    std::uint8_t remove = 0;   // take the path's mark away, whichever kind it is
    std::uint8_t children = 0; // also events on the files in the directory; a mount's mark always has them
    std::uint8_t reserved7 = 0;

    // Processes whose accesses the watcher does not want to hear of; its first request says it for all.
    std::set<std::int32_t> ignoredPids;
    // The most marks that the watcher wants to hold; 0: no limit of its own.
    std::uint64_t maxMarks = 0;
};

// Sent to the task "filenotify_task": place or take away the mark on one path for a watching task, which
// then gets a FileNotifyMessage for each access.
//
// The request is carried out on the sender's thread, before SendDirectMsg returns. Marks belong to one
// task object: those of an earlier task of the same name are gone as soon as the new one asks for its
// first. A mark that cannot be placed is logged with the path and the reason; the others stand.
class FileNotifyWatchMessage : public Framework::Message {
public:
    // Bits of fanotify(7): FAN_OPEN, FAN_MODIFY, FAN_ONDIR and their like.
    using EventMasks = std::vector<std::uint64_t>;

    // The watcher is remembered by name and instance, not by pointer.
    FileNotifyWatchMessage(const Framework::Task* watcher, const std::string& path, const EventMasks& masks,
                           const _FileNotifyOpt& options)
        : mWatcherName(watcher->name()), mWatcherInstance(watcher->GetInstanceId()), mPath(path), mMasks(masks),
          mOptions(options) {}

    const std::string& GetWatcherName() const { return mWatcherName; }
    std::uint64_t GetWatcherInstance() const { return mWatcherInstance; }
    const std::string& GetPath() const { return mPath; }
    const EventMasks& GetEventMasks() const { return mMasks; }
    const _FileNotifyOpt& GetOptions() const { return mOptions; }

private:
    const std::string mWatcherName;
    const std::uint64_t mWatcherInstance;
    const std::string mPath;
    const EventMasks mMasks;
    const _FileNotifyOpt mOptions;
};

} // namespace Engine
