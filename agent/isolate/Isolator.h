#pragma once

#include <cstdint>
#include <string>

namespace Engine {

// What isolating a process and its file came to; the flags say what was done.
struct IsolationResult {
    bool refused = false;
    bool killed = false;
    bool madeUnexecutable = false;
    std::uint64_t killedNs = 0; // when the signal had been sent (CLOCK_MONOTONIC), if `killed`
};

// Kills processes and takes the execute permission from files. The one place of the agent that does.
//
// It owns a pidfd and an O_PATH descriptor while Isolate runs, and keeps nothing. It must not decide
// whom to isolate; it only refuses those that nobody may isolate:
//
//     pid 0 and below        would address a group, or everybody
//     pid 1                  the system's end
//     kernel threads
//     the agent itself and its ancestors, whose end would end the agent
//     processes outside Framework::Scope
//
//     pidfd_open → refusals → image remembered → pidfd_send_signal → path opened → chmod → both closed
//
// Within the handling of an event about the process its pidfd is the one that was opened before anybody
// judged (Framework::HandledEvent); otherwise it is opened first of all. Either way the process is asked once
// more whether it is still there after the refusals were checked by pid, so that a pid that was reused
// between the judgement and the signal is never hit.
class Isolator {
public:
    // Kills `pid` when `kill` is set, at once. Makes the regular file at `path` readable by its owner
    // only (0400) when `chmod` is set and that file is the image that the process runs; a path that
    // leads to anything else (it was replaced, means another file in the process's mount namespace, or
    // is a script's) is left alone. A path that no longer leads anywhere counts as done when the image
    // has no name any more: nothing is left to start. A process that is refused keeps its file as it is.
    //
    // Also left alone is an image that may be a trusted program under another name, so that nobody has
    // the agent take a program from the host by starting it from a path that is not trusted: one with
    // further hard links, and one to which the path leads through a symbolic link. The kernel names an
    // image without links, so in the agent's mount namespace the path is not the image's own then.
    //
    // One log record for a refusal and one for each act that failed. Any thread.
    static IsolationResult Isolate(int pid, const std::string& path, bool kill, bool chmod);
};

} // namespace Engine
