#include <cstring>
#include <vector>

#include <gtest/gtest.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>

#include "agent/process_collect/ProcEvent.h"
#include "modules/ProcsMessage.h"

using Engine::ProcEvent;
using Engine::ProcsMessage;

namespace {

using Bytes = std::vector<std::byte>;

template <typename Structure> void Append(Bytes& bytes, const Structure& structure) {
    const std::size_t end = bytes.size();
    bytes.resize(end + sizeof structure);
    std::memcpy(bytes.data() + end, &structure, sizeof structure);
}

// A datagram as the kernel sends it; `spoil` may change the headers first.
template <typename Spoil> Bytes MakeDatagram(const proc_event& event, const Spoil& spoil) {
    nlmsghdr netlink{};
    netlink.nlmsg_len = NLMSG_HDRLEN + sizeof(cn_msg) + sizeof(proc_event);
    netlink.nlmsg_type = NLMSG_DONE;
    cn_msg connector{};
    connector.id = {CN_IDX_PROC, CN_VAL_PROC};
    connector.len = sizeof(proc_event);
    spoil(netlink, connector);
    Bytes bytes;
    Append(bytes, netlink);
    Append(bytes, connector);
    Append(bytes, event);
    return bytes;
}

Bytes MakeDatagram(const proc_event& event) {
    return MakeDatagram(event, [](nlmsghdr&, cn_msg&) {});
}

proc_event Exec(int thread, int process) {
    proc_event event{};
    event.what = proc_event::PROC_EVENT_EXEC;
    event.timestamp_ns = 77;
    event.event_data.exec.process_pid = thread;
    event.event_data.exec.process_tgid = process;
    return event;
}

proc_event Fork(int childThread, int childProcess) {
    proc_event event{};
    event.what = proc_event::PROC_EVENT_FORK;
    event.event_data.fork.parent_pid = 11; // a thread of process 10
    event.event_data.fork.parent_tgid = 10;
    event.event_data.fork.child_pid = childThread;
    event.event_data.fork.child_tgid = childProcess;
    return event;
}

proc_event Exit(int thread, int process) {
    proc_event event{};
    event.what = proc_event::PROC_EVENT_EXIT;
    event.event_data.exit.process_pid = thread;
    event.event_data.exit.process_tgid = process;
    return event;
}

struct Decoded {
    std::vector<ProcEvent> events;
    std::size_t garbled = 0;
};

Decoded Decode(const Bytes& bytes) {
    Decoded decoded;
    decoded.garbled = Engine::DecodeProcEvents(bytes, decoded.events);
    return decoded;
}

} // namespace

TEST(ProcEventTest, AnExecNamesTheProcessAlsoWhenAThreadDidIt) {
    const Decoded decoded = Decode(MakeDatagram(Exec(43, 42)));
    ASSERT_EQ(decoded.events.size(), 1u);
    EXPECT_EQ(decoded.events[0].kind, ProcsMessage::KIND_EXEC);
    EXPECT_EQ(decoded.events[0].pid, 42);
    EXPECT_EQ(decoded.events[0].timestampNs, 77u);
    EXPECT_EQ(decoded.garbled, 0u);
}

TEST(ProcEventTest, AForkOfAProcessNamesChildAndParentProcess) {
    const Decoded decoded = Decode(MakeDatagram(Fork(42, 42)));
    ASSERT_EQ(decoded.events.size(), 1u);
    EXPECT_EQ(decoded.events[0].kind, ProcsMessage::KIND_FORK);
    EXPECT_EQ(decoded.events[0].pid, 42);
    EXPECT_EQ(decoded.events[0].parentPid, 10);
}

TEST(ProcEventTest, AnExitOfAProcessIsTold) {
    const Decoded decoded = Decode(MakeDatagram(Exit(42, 42)));
    ASSERT_EQ(decoded.events.size(), 1u);
    EXPECT_EQ(decoded.events[0].kind, ProcsMessage::KIND_EXIT);
    EXPECT_EQ(decoded.events[0].pid, 42);
}

TEST(ProcEventTest, BeginAndEndOfAThreadAreNoEventsAndNotGarbled) {
    for (const proc_event& event : {Fork(43, 42), Exit(43, 42)}) {
        const Decoded decoded = Decode(MakeDatagram(event));
        EXPECT_TRUE(decoded.events.empty());
        EXPECT_EQ(decoded.garbled, 0u);
    }
}

TEST(ProcEventTest, EventsOfOtherKindsAreDropped) {
    for (const auto kind : {proc_event::PROC_EVENT_NONE, proc_event::PROC_EVENT_UID, proc_event::PROC_EVENT_COMM,
                            proc_event::PROC_EVENT_COREDUMP}) {
        proc_event event = Exec(42, 42);
        event.what = kind;
        const Decoded decoded = Decode(MakeDatagram(event));
        EXPECT_TRUE(decoded.events.empty()) << kind;
        EXPECT_EQ(decoded.garbled, 0u);
    }
}

TEST(ProcEventTest, EveryCutShortDatagramIsCountedAndGivesNothing) {
    const Bytes whole = MakeDatagram(Exec(42, 42));
    for (std::size_t size = 1; size < whole.size(); ++size) {
        const Decoded decoded = Decode(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
        EXPECT_TRUE(decoded.events.empty()) << size;
        EXPECT_EQ(decoded.garbled, 1u) << size;
    }
    EXPECT_EQ(Decode({}).garbled, 0u);
}

TEST(ProcEventTest, LengthsThatAreNotTrueAreCounted) {
    const auto decodeSpoiled = [](auto spoil) { return Decode(MakeDatagram(Exec(42, 42), spoil)); };
    const Decoded results[] = {
        decodeSpoiled([](nlmsghdr& netlink, cn_msg&) { netlink.nlmsg_len = 0; }),
        decodeSpoiled([](nlmsghdr& netlink, cn_msg&) { netlink.nlmsg_len = 15; }),
        decodeSpoiled([](nlmsghdr& netlink, cn_msg&) { netlink.nlmsg_len += 1; }),
        decodeSpoiled([](nlmsghdr& netlink, cn_msg&) { netlink.nlmsg_len = 0xffffffff; }),
        decodeSpoiled([](nlmsghdr&, cn_msg& connector) { connector.len -= 1; }),
        decodeSpoiled([](nlmsghdr&, cn_msg& connector) { connector.len = 0xffff; }),
    };
    for (const Decoded& decoded : results) {
        EXPECT_TRUE(decoded.events.empty());
        EXPECT_EQ(decoded.garbled, 1u);
    }
}

TEST(ProcEventTest, MessagesOfAnotherConnectorAreCounted) {
    const Decoded decoded =
        Decode(MakeDatagram(Exec(42, 42), [](nlmsghdr&, cn_msg& connector) { connector.id.idx = 9; }));
    EXPECT_TRUE(decoded.events.empty());
    EXPECT_EQ(decoded.garbled, 1u);
}

TEST(ProcEventTest, APidThatNoProcessCanHaveIsCounted) {
    for (const int pid : {0, -1}) {
        const Decoded decoded = Decode(MakeDatagram(Exec(pid, pid)));
        EXPECT_TRUE(decoded.events.empty());
        EXPECT_EQ(decoded.garbled, 1u);
    }
}

TEST(ProcEventTest, SeveralMessagesInOneDatagramAreReadInOrderAtAnyAlignment) {
    Bytes bytes = MakeDatagram(Fork(42, 42));
    const Bytes second = MakeDatagram(Exec(42, 42));
    bytes.insert(bytes.end(), second.begin(), second.end());
    bytes.insert(bytes.begin(), std::byte{0});
    std::vector<ProcEvent> events;
    EXPECT_EQ(Engine::DecodeProcEvents(std::span(bytes).subspan(1), events), 0u);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].kind, ProcsMessage::KIND_FORK);
    EXPECT_EQ(events[1].kind, ProcsMessage::KIND_EXEC);
}

TEST(ProcEventTest, TheAnswerToARequestIsKnownByItsNumber) {
    proc_event ack{};
    ack.what = proc_event::PROC_EVENT_NONE;
    ack.event_data.ack.err = 13;
    const Bytes bytes = MakeDatagram(ack, [](nlmsghdr&, cn_msg& connector) { connector.ack = 501; });
    int error = -1;
    EXPECT_FALSE(Engine::DecodeProcAck(bytes, 501, error));
    EXPECT_EQ(error, -1);
    EXPECT_TRUE(Engine::DecodeProcAck(bytes, 500, error));
    EXPECT_EQ(error, 13);
}

TEST(ProcEventTest, AnEventIsNoAnswer) {
    const Bytes bytes = MakeDatagram(Exec(42, 42), [](nlmsghdr&, cn_msg& connector) { connector.ack = 501; });
    int error = -1;
    EXPECT_FALSE(Engine::DecodeProcAck(bytes, 500, error));
}
