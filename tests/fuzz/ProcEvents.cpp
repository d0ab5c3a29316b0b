// Decoding what the proc connector's socket gave (Engine::DecodeProcEvents, DecodeProcAck).

#include <cstring>
#include <span>
#include <vector>

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>

#include "agent/process_collect/ProcEvent.h"
#include "fuzz/Fuzz.h"
#include "modules/ProcsMessage.h"

namespace {

using Bytes = std::vector<std::byte>;
using Engine::ProcEvent;
using Engine::ProcsMessage;

struct Decoded {
    std::vector<ProcEvent> events;
    std::size_t garbled = 0;
};

// A copy of just these bytes, so that a sanitizer sees what is read beyond them.
Decoded Decode(std::span<const std::byte> datagram) {
    const Bytes copy(datagram.begin(), datagram.end());
    Decoded decoded;
    decoded.garbled = Engine::DecodeProcEvents(copy, decoded.events);
    return decoded;
}

template <typename Structure> Structure ReadAt(std::span<const std::byte> bytes, std::size_t offset) {
    Structure structure;
    std::memcpy(&structure, bytes.data() + offset, sizeof structure);
    return structure;
}

template <typename Structure> void Append(Bytes& bytes, const Structure& structure) {
    const auto* const first = reinterpret_cast<const std::byte*>(&structure);
    bytes.insert(bytes.end(), first, first + sizeof structure);
}

bool IsSame(const ProcEvent& a, const ProcEvent& b) {
    return a.kind == b.kind && a.pid == b.pid && a.parentPid == b.parentPid && a.timestampNs == b.timestampNs;
}

bool IsSame(const std::vector<ProcEvent>& a, const std::vector<ProcEvent>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const ProcEvent& x, const ProcEvent& y) { return IsSame(x, y); });
}

// The event of a process in a whole message, the way the kernel's own macros walk over messages.
void TakeExpected(const proc_event& event, Decoded& expected) {
    ProcEvent told{0, 0, 0, event.timestamp_ns};
    bool ofProcess = true;
    if (event.what == proc_event::PROC_EVENT_EXEC) {
        told.kind = ProcsMessage::KIND_EXEC;
        told.pid = event.event_data.exec.process_tgid;
    } else if (event.what == proc_event::PROC_EVENT_FORK) {
        told.kind = ProcsMessage::KIND_FORK;
        told.pid = event.event_data.fork.child_tgid;
        told.parentPid = event.event_data.fork.parent_tgid;
        ofProcess = event.event_data.fork.child_pid == told.pid;
    } else if (event.what == proc_event::PROC_EVENT_EXIT) {
        told.kind = ProcsMessage::KIND_EXIT;
        told.pid = event.event_data.exit.process_tgid;
        ofProcess = event.event_data.exit.process_pid == told.pid;
    }
    if (told.kind == 0 || !ofProcess) {
        return;
    }
    if (told.pid > 0) {
        expected.events.push_back(told);
    } else {
        ++expected.garbled;
    }
}

void TakeMessage(std::span<const std::byte> payload, Decoded& expected) {
    if (payload.size() >= sizeof(cn_msg) + sizeof(proc_event)) {
        const auto header = ReadAt<cn_msg>(payload, 0);
        const bool isOfProcesses = header.id.idx == CN_IDX_PROC && header.id.val == CN_VAL_PROC;
        if (isOfProcesses && header.len >= sizeof(proc_event) && sizeof(cn_msg) + header.len <= payload.size()) {
            TakeExpected(ReadAt<proc_event>(payload, sizeof(cn_msg)), expected);
            return;
        }
    }
    ++expected.garbled;
}

Decoded Expect(std::span<const std::byte> datagram) {
    Decoded expected;
    std::size_t offset = 0;
    while (offset < datagram.size()) {
        const std::size_t left = datagram.size() - offset;
        const auto header = left < sizeof(nlmsghdr) ? nlmsghdr{} : ReadAt<nlmsghdr>(datagram, offset);
        if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > left) {
            ++expected.garbled;
            break;
        }
        if (header.nlmsg_type != NLMSG_NOOP && header.nlmsg_type != NLMSG_ERROR) {
            TakeMessage(datagram.subspan(offset + NLMSG_HDRLEN, header.nlmsg_len - NLMSG_HDRLEN), expected);
        }
        offset += NLMSG_ALIGN(std::size_t{header.nlmsg_len});
    }
    return expected;
}

// The datagram by which the kernel would tell of the event.
Bytes Encode(const ProcEvent& told) {
    nlmsghdr netlink{};
    netlink.nlmsg_len = NLMSG_HDRLEN + sizeof(cn_msg) + sizeof(proc_event);
    netlink.nlmsg_type = NLMSG_DONE;
    cn_msg connector{};
    connector.id = {CN_IDX_PROC, CN_VAL_PROC};
    connector.len = sizeof(proc_event);
    proc_event event{};
    event.timestamp_ns = told.timestampNs;
    if (told.kind == ProcsMessage::KIND_EXEC) {
        event.what = proc_event::PROC_EVENT_EXEC;
        event.event_data.exec.process_tgid = told.pid;
    } else if (told.kind == ProcsMessage::KIND_FORK) {
        event.what = proc_event::PROC_EVENT_FORK;
        event.event_data.fork.child_pid = event.event_data.fork.child_tgid = told.pid;
        event.event_data.fork.parent_tgid = told.parentPid;
    } else {
        event.what = proc_event::PROC_EVENT_EXIT;
        event.event_data.exit.process_pid = event.event_data.exit.process_tgid = told.pid;
    }
    Bytes bytes;
    Append(bytes, netlink);
    Append(bytes, connector);
    Append(bytes, event);
    return bytes;
}

// A request's number is the acknowledgement's less one, so each number that occurs is worth a try.
void CheckAck(std::span<const std::byte> datagram) {
    if (datagram.size() < NLMSG_HDRLEN + sizeof(cn_msg) + sizeof(proc_event)) {
        return;
    }
    const auto connector = ReadAt<cn_msg>(datagram, NLMSG_HDRLEN);
    const auto event = ReadAt<proc_event>(datagram, NLMSG_HDRLEN + sizeof(cn_msg));
    int error = 4711;
    const bool found = Engine::DecodeProcAck(datagram, connector.ack - 1, error);
    if (!found) {
        Fuzz::Require(error == 4711, "without an answer the error is untouched");
    } else if (ReadAt<nlmsghdr>(datagram, 0).nlmsg_len == datagram.size()) {
        Fuzz::Require(event.what == proc_event::PROC_EVENT_NONE && error == static_cast<int>(event.event_data.ack.err),
                      "an answer is an event of no kind, and the error its own");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) noexcept {
    const std::span<const std::byte> datagram(reinterpret_cast<const std::byte*>(data), size);
    const Decoded decoded = Decode(datagram);
    const Decoded expected = Expect(datagram);
    Fuzz::Require(IsSame(decoded.events, expected.events), "the events are those in the bytes, in their order");
    Fuzz::Require(decoded.garbled == expected.garbled, "every message that is not understood is counted");

    std::vector<ProcEvent> appended{{ProcsMessage::KIND_EXIT, 7, 0, 9}};
    Engine::DecodeProcEvents(datagram, appended);
    Fuzz::Require(appended.size() == decoded.events.size() + 1 && appended[0].pid == 7, "events are appended");

    Bytes together;
    for (const ProcEvent& event : decoded.events) {
        Fuzz::Require(event.pid > 0, "an event is of a process");
        const Bytes alone = Encode(event);
        const Decoded again = Decode(alone);
        Fuzz::Require(again.garbled == 0 && again.events.size() == 1 && IsSame(again.events[0], event),
                      "an event told anew is the same");
        together.insert(together.end(), alone.begin(), alone.end());
    }
    const Decoded again = Decode(together);
    Fuzz::Require(again.garbled == 0 && IsSame(again.events, decoded.events), "so are all in one datagram");
    CheckAck(datagram);
    return 0;
}
