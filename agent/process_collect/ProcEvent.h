#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace Engine {

// One event of a whole process, as the kernel told it.
struct ProcEvent {
    unsigned int kind = 0; // ProcsMessage::Kind
    int pid = 0;
    int parentPid = 0;             // of a fork; otherwise 0
    std::uint64_t timestampNs = 0; // CLOCK_MONOTONIC, when it happened
};

// Decodes what was read from the proc connector: netlink messages (netlink(7)) that each hold a
// connector message (include/uapi/linux/connector.h) with a struct proc_event
// (include/uapi/linux/cn_proc.h). Pure functions on untrusted bytes; the bytes need no alignment.

// Appends the exec of a process, the fork of a process and the exit of a process to `events`; what
// the kernel tells of single threads and of anything else is dropped. Returns how many messages were
// not understood: cut short, of another connector, or with a length that is not true.
std::size_t DecodeProcEvents(std::span<const std::byte> datagram, std::vector<ProcEvent>& events);

// Finds the kernel's answer to a request that was numbered `request`: true, and `error` is 0 or the
// errno value that the kernel refused with.
bool DecodeProcAck(std::span<const std::byte> datagram, std::uint32_t request, int& error);

} // namespace Engine
