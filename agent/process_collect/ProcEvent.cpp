#include "agent/process_collect/ProcEvent.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>

#include "modules/ProcsMessage.h"

namespace Engine {

namespace {

using Bytes = std::span<const std::byte>;

// Copies a kernel structure from the front of `bytes`, which must be long enough.
template <typename Structure> Structure CopyFront(Bytes bytes) {
    Structure copy;
    std::memcpy(&copy, bytes.data(), sizeof copy);
    return copy;
}

// What a connector message of the process events holds.
struct Content {
    std::uint32_t ack = 0;
    proc_event event{};
};

// The kernel always sends a whole proc_event, whatever its kind, and nothing behind it that matters.
std::optional<Content> ReadConnectorMessage(Bytes payload) {
    if (payload.size() < sizeof(cn_msg)) {
        return std::nullopt;
    }
    const auto header = CopyFront<cn_msg>(payload);
    const Bytes data = payload.subspan(sizeof(cn_msg));
    if (header.id.idx != CN_IDX_PROC || header.id.val != CN_VAL_PROC || header.len < sizeof(proc_event) ||
        header.len > data.size()) {
        return std::nullopt;
    }
    return Content{header.ack, CopyFront<proc_event>(data)};
}

// Calls `handle` with the content of every netlink message in the datagram; returns how many had none
// that could be read. Messages of netlink itself are passed over.
template <typename Handle> std::size_t ForEachContent(Bytes datagram, const Handle& handle) {
    std::size_t garbled = 0;
    while (!datagram.empty()) {
        if (datagram.size() < sizeof(nlmsghdr)) {
            return garbled + 1;
        }
        const auto header = CopyFront<nlmsghdr>(datagram);
        if (header.nlmsg_len < NLMSG_HDRLEN || header.nlmsg_len > datagram.size()) {
            return garbled + 1;
        }
        if (header.nlmsg_type != NLMSG_NOOP && header.nlmsg_type != NLMSG_ERROR) {
            const auto content = ReadConnectorMessage(datagram.subspan(NLMSG_HDRLEN, header.nlmsg_len - NLMSG_HDRLEN));
            if (content) {
                handle(*content);
            } else {
                ++garbled;
            }
        }
        const std::size_t aligned = (std::size_t{header.nlmsg_len} + NLMSG_ALIGNTO - 1) & ~(NLMSG_ALIGNTO - 1UL);
        datagram = datagram.subspan(std::min(aligned, datagram.size()));
    }
    return garbled;
}

// The event of a whole process that the kernel's event is, if it is one. The kernel calls a thread's
// id "pid" and the process's "tgid".
std::optional<ProcEvent> ToProcessEvent(const proc_event& event) {
    switch (event.what) {
    case proc_event::PROC_EVENT_EXEC:
        return ProcEvent{ProcsMessage::KIND_EXEC, event.event_data.exec.process_tgid, 0, event.timestamp_ns};
    case proc_event::PROC_EVENT_FORK: {
        const auto& fork = event.event_data.fork;
        if (fork.child_pid != fork.child_tgid) {
            return std::nullopt;
        }
        return ProcEvent{ProcsMessage::KIND_FORK, fork.child_tgid, fork.parent_tgid, event.timestamp_ns};
    }
    case proc_event::PROC_EVENT_EXIT: {
        const auto& exit = event.event_data.exit;
        if (exit.process_pid != exit.process_tgid) {
            return std::nullopt;
        }
        return ProcEvent{ProcsMessage::KIND_EXIT, exit.process_tgid, 0, event.timestamp_ns};
    }
    default:
        return std::nullopt;
    }
}

} // namespace

std::size_t DecodeProcEvents(std::span<const std::byte> datagram, std::vector<ProcEvent>& events) {
    std::size_t impossible = 0;
    const std::size_t garbled = ForEachContent(datagram, [&](const Content& content) {
        const std::optional<ProcEvent> event = ToProcessEvent(content.event);
        if (!event) {
            return;
        }
        if (event->pid <= 0) {
            ++impossible;
            return;
        }
        events.push_back(*event);
    });
    return garbled + impossible;
}

bool DecodeProcAck(std::span<const std::byte> datagram, std::uint32_t request, int& error) {
    bool found = false;
    ForEachContent(datagram, [&](const Content& content) {
        // The kernel acknowledges with an event of no kind whose ack is the request's plus one.
        if (content.event.what == proc_event::PROC_EVENT_NONE && content.ack == request + 1) {
            error = static_cast<int>(content.event.event_data.ack.err);
            found = true;
        }
    });
    return found;
}

} // namespace Engine
