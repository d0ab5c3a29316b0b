#include "agent/sdk/LogChannels.h"

#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

#include <Poco/FileChannel.h>
#include <Poco/Formatter.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>

#include "agent/sdk/FileDescriptor.h"
#include "sdk/PrintableText.h"

namespace SDK {

namespace {

// Time in UTC, priority, logger, source file and line, text.
constexpr const char* LINE_PATTERN = "%Y-%m-%dT%H:%M:%S.%iZ %p %s %U:%u %t";

std::atomic<bool> rootWritesToConsole{false};

// A line for people and for files.
class LineFormatter : public Poco::Formatter {
public:
    void format(const Poco::Message& message, std::string& line) override {
        mPattern.format(Poco::Message(message, PrintableText::Escape(message.getText())), line);
    }

private:
    Poco::PatternFormatter mPattern{LINE_PATTERN};
};

class StandardErrorChannel : public Poco::Channel {
public:
    // One write a line, so that the lines of several threads and processes do not mix.
    void log(const Poco::Message& message) override {
        const std::string line = message.getText() + "\n";
        WriteFully(STDERR_FILENO, line.data(), line.size());
    }
};

class JournalChannel : public Poco::Channel {
public:
    // One write a record, for the same reason.
    void log(const Poco::Message& message) override {
        const char* file = message.getSourceFile();
        const std::string beginning = "<" + std::to_string(ToSyslogSeverity(message.getPriority())) + ">" +
                                      message.getSource() + " " + (file == nullptr ? "" : file) + ":" +
                                      std::to_string(message.getSourceLine()) + " ";
        const std::string text = PrintableText::Escape(message.getText());
        std::string lines;
        std::size_t taken = 0;
        do {
            const std::size_t length = MeasurePiece(text, taken);
            lines.append(beginning).append(text, taken, length).append("\n");
            taken += length;
        } while (taken < text.size());
        WriteFully(STDERR_FILENO, lines.data(), lines.size());
    }

private:
    // Well below what journald takes for one line (LineMax of journald.conf(5), 48 KiB).
    static constexpr std::size_t MAX_PIECE_BYTES = 16384;

    // How many bytes from there on go into one line; a character of UTF-8 is not cut in two.
    static std::size_t MeasurePiece(const std::string& text, std::size_t from) {
        constexpr unsigned char CONTINUATION_MASK = 0xC0;
        constexpr unsigned char CONTINUATION = 0x80;
        constexpr std::size_t MAX_CHARACTER_BYTES = 4;
        if (text.size() - from <= MAX_PIECE_BYTES) {
            return text.size() - from;
        }
        std::size_t length = MAX_PIECE_BYTES;
        while (length > MAX_PIECE_BYTES - MAX_CHARACTER_BYTES &&
               (static_cast<unsigned char>(text[from + length]) & CONTINUATION_MASK) == CONTINUATION) {
            --length;
        }
        return length;
    }

    // Poco's fatal (1) and critical (2) are syslog's alert (1) and critical (2), and so on down to
    // debug (7); only trace (8) has no counterpart.
    static int ToSyslogSeverity(Poco::Message::Priority priority) {
        constexpr int SYSLOG_DEBUG = 7;
        return priority > SYSLOG_DEBUG ? SYSLOG_DEBUG : static_cast<int>(priority);
    }
};

} // namespace

Poco::AutoPtr<Poco::Channel> MakeConsoleChannel() {
    if (IsStandardErrorJournal()) {
        return MakeJournalChannel();
    }
    return new Poco::FormattingChannel(Poco::AutoPtr<LineFormatter>(new LineFormatter),
                                       Poco::AutoPtr<StandardErrorChannel>(new StandardErrorChannel));
}

Poco::AutoPtr<Poco::Channel> MakeJournalChannel() {
    return new JournalChannel;
}

bool IsStandardErrorJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat info {};
    if (stream == nullptr || fstat(STDERR_FILENO, &info) != 0) {
        return false;
    }
    return stream == std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
}

Poco::AutoPtr<Poco::Channel> MakeFileChannel(const std::string& path, std::uint64_t maxBytes, int files) {
    Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(path));
    file->setProperty(Poco::FileChannel::PROP_ROTATION, std::to_string(maxBytes));
    file->setProperty(Poco::FileChannel::PROP_ARCHIVE, "number");
    file->setProperty(Poco::FileChannel::PROP_PURGECOUNT, std::to_string(files));
    return new Poco::FormattingChannel(Poco::AutoPtr<LineFormatter>(new LineFormatter), file);
}

void RootForwarder::log(const Poco::Message& message) {
    if (mConsole.load(std::memory_order_relaxed) && !rootWritesToConsole.load(std::memory_order_relaxed)) {
        static Poco::AutoPtr<Poco::Channel> console = MakeConsoleChannel();
        console->log(message);
    }
    Poco::AutoPtr<Poco::Channel> target(Poco::Logger::root().getChannel());
    if (target) {
        target->log(message);
    }
}

void SetRootWritesToConsole(bool writes) {
    rootWritesToConsole.store(writes, std::memory_order_relaxed);
}

} // namespace SDK
