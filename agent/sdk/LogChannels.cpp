#include "agent/sdk/LogChannels.h"

#include <chrono>
#include <cstdlib>
#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <Poco/Exception.h>
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

std::atomic<std::uint64_t> lostRecords{0};

// A file that cannot be written for a while, because the disk is full, say.
//
//     written  ->  a record cannot be written: said on standard error, once; the file is closed
//     closed   ->  records are counted; once in RETRY_INTERVAL the file is opened again, and says first how
//                  many are missing
//
// Poco's own channel tells nobody, and writes what is left of a lost record when it opens the file anew; closed at
// once, it forgets that.
class PersistentFileChannel : public Poco::Channel {
public:
    PersistentFileChannel(const std::string& path, std::uint64_t maxBytes, int files)
        : mPath(path), mFile(new Poco::FileChannel(path)),
          mLines(new Poco::FormattingChannel(Poco::AutoPtr<LineFormatter>(new LineFormatter), mFile)) {
        mFile->setProperty(Poco::FileChannel::PROP_ROTATION, std::to_string(maxBytes));
        mFile->setProperty(Poco::FileChannel::PROP_ARCHIVE, "number");
        mFile->setProperty(Poco::FileChannel::PROP_PURGECOUNT, std::to_string(files));
    }

    void log(const Poco::Message& message) override {
        const std::lock_guard<std::mutex> guard(mMutex);
        if ((mMissing > 0 && !Resume()) || !Write(message)) {
            Miss();
        }
    }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds RETRY_INTERVAL{1};

    bool Write(const Poco::Message& message) {
        try {
            mLines->log(message);
            return true;
        } catch (const Poco::Exception& error) {
            mReason = error.displayText();
        }
        mFile->close();
        mNextTry = Clock::now() + RETRY_INTERVAL;
        return false;
    }

    bool Resume() {
        if (Clock::now() < mNextTry) {
            return false;
        }
        mNextTry = Clock::now() + RETRY_INTERVAL;
        const Poco::Message note("log",
                                 std::to_string(mMissing) +
                                     " records are missing here: the log could not be written (" + mReason + ")",
                                 Poco::Message::PRIO_ERROR, "LogChannels.cpp", __LINE__);
        if (!EndTornLine() || !Write(note)) {
            return false;
        }
        mMissing = 0;
        return true;
    }

    // The record that failed may have been written in part.
    bool EndTornLine() const {
        const FileDescriptor file(::open(mPath.c_str(), O_RDWR | O_APPEND | O_CLOEXEC));
        char last = '\n';
        const off_t size = file.IsOpen() ? lseek(file.Get(), 0, SEEK_END) : 0;
        if (size > 0 && pread(file.Get(), &last, 1, size - 1) != 1) {
            return false;
        }
        return last == '\n' || WriteFully(file.Get(), "\n", 1) == 0;
    }

    void Miss() {
        lostRecords.fetch_add(1, std::memory_order_relaxed);
        if (++mMissing == 1) {
            const std::string line =
                "corvalent: the log [" + mPath +
                "] cannot be written, records are lost until it can: " + PrintableText::Escape(mReason) + "\n";
            WriteFully(STDERR_FILENO, line.data(), line.size());
        }
    }

    const std::string mPath;
    std::mutex mMutex; // guards what follows it
    Poco::AutoPtr<Poco::FileChannel> mFile;
    Poco::AutoPtr<Poco::FormattingChannel> mLines;
    std::uint64_t mMissing = 0;
    std::string mReason;
    Clock::time_point mNextTry;
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
    return new PersistentFileChannel(path, maxBytes, files);
}

std::uint64_t CountLostRecords() {
    return lostRecords.load(std::memory_order_relaxed);
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
