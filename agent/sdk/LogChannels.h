#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

namespace SDK {

// Every record is one line, its text escaped (PrintableText), so that text from outside can be told from
// the record that it imitates.

// Writes records to standard error, one line each; as the journal's channel does when journald reads
// there. Thread-safe.
Poco::AutoPtr<Poco::Channel> MakeConsoleChannel();

// Writes records to standard error in the form that journald understands: "<N>" with syslog's severity N,
// then logger, source file and line, and the text; journald adds the time. A record that is longer than
// journald takes a line to be is several lines, each with the same beginning, so that no part of its text
// ever stands where a severity is looked for. Thread-safe.
Poco::AutoPtr<Poco::Channel> MakeJournalChannel();

// Whether standard error is a stream to journald. systemd names the device and inode of that in
// JOURNAL_STREAM (systemd.exec(5)); a child that redirected its standard error has inherited the
// variable, but not the stream.
bool IsStandardErrorJournal();

// Writes records to a file with rotation by size. While it cannot be written, records are lost, which is
// counted, said once on standard error and, when it can be written again, in the file. Thread-safe.
Poco::AutoPtr<Poco::Channel> MakeFileChannel(const std::string& path, std::uint64_t maxBytes, int files);

// How many records have been lost so, since the start of the process.
std::uint64_t CountLostRecords();

// The channel of every logger that the registry hands out: it passes each record on to whatever
// channel the root logger has at that moment, so that loggers need not be visited when it changes.
class RootForwarder : public Poco::Channel {
public:
    // Without visible effect while the root's own channel leads to standard error already.
    void AlsoToConsole() { mConsole.store(true, std::memory_order_relaxed); }

    void log(const Poco::Message& message) override;

private:
    std::atomic<bool> mConsole{false};
};

// Tells the forwarders whether the root logger's channel includes standard error.
void SetRootWritesToConsole(bool writes);

} // namespace SDK
