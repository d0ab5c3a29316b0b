#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "agent/sdk/FileDescriptor.h"
#include "agent/sdk/LogChannels.h"
#include "agent/sdk/LogSetup.h"
#include "sdk/LoggerUtils.h"
#include "sdk/ModuleLog.h"
#include "sdk/StrUtils.h"
#include "support/LogRecorder.h"
#include "support/TempMount.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

using Poco::Message;
using SDK::LoggerUtils;
using SDK::LogSettings;
using SDK::SetUpLogging;
using TestSupport::LogRecorder;
using TestSupport::TempDir;
using namespace std::string_literals;

namespace {

SDK::ModuleLog moduleLog("log_test");

LogSettings FileIn(const TempDir& dir) {
    LogSettings settings;
    settings.filePath = dir / "agent.log";
    return settings;
}

std::vector<std::string> Lines(const std::string& text) {
    return SDK::StrUtils::EasySplit(text, "\n");
}

void ExpectLine(const std::string& line, const std::string& form) {
    EXPECT_TRUE(std::regex_match(line, std::regex(form))) << line;
}

constexpr const char* TIME = "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z";

Message MakeMessage(const std::string& logger, const std::string& text, Message::Priority priority) {
    return Message(logger, text, priority, "Source.cpp", 12);
}

// Collects what is written to standard error in its time.
class StandardError {
public:
    StandardError() { testing::internal::CaptureStderr(); }
    ~StandardError() { Take(); }
    StandardError(const StandardError&) = delete;
    StandardError& operator=(const StandardError&) = delete;

    std::string Take() {
        if (mTaken) {
            return "";
        }
        mTaken = true;
        return testing::internal::GetCapturedStderr();
    }

private:
    bool mTaken = false;
};

} // namespace

TEST(LogFile, ARecordIsOneLine) {
    const TempDir dir;
    ASSERT_EQ(SetUpLogging(FileIn(dir)), 0);
    moduleLog.Error("file [%s] is bad", "a\nb\xff");
    moduleLog.Information("second");
    const std::vector<std::string> lines = Lines(dir.Read("agent.log"));
    ASSERT_EQ(lines.size(), 2U);
    ExpectLine(lines[0], std::string(TIME) + R"( Error log_test LogSetupTest\.cpp:\d+ file \[a\\nb\\xff\] is bad)");
    ExpectLine(lines[1], std::string(TIME) + R"( Information log_test LogSetupTest\.cpp:\d+ second)");
}

TEST(LogFile, IsOnlyForItsOwner) {
    const TempDir dir;
    ASSERT_EQ(SetUpLogging(FileIn(dir)), 0);
    moduleLog.Error("x");
    struct stat info {};
    ASSERT_EQ(stat((dir / "agent.log").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600U);
}

TEST(LogFile, IsContinuedNotReplaced) {
    const TempDir dir;
    dir.Write("agent.log", "earlier\n");
    ASSERT_EQ(SetUpLogging(FileIn(dir)), 0);
    moduleLog.Error("later");
    EXPECT_EQ(Lines(dir.Read("agent.log")).size(), 2U);
    EXPECT_EQ(dir.Read("agent.log").rfind("earlier\n", 0), 0U);
}

TEST(LogFile, RotatesAndKeepsAsManyFilesAsAllowed) {
    const TempDir dir;
    LogSettings settings = FileIn(dir);
    settings.maxBytes = 2000;
    settings.files = 2;
    ASSERT_EQ(SetUpLogging(settings), 0);
    for (int i = 0; i < 200; ++i) {
        moduleLog.Error("record number %d", i);
    }
    EXPECT_NE(dir.Read("agent.log").find("record number 199\n"), std::string::npos);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.Path()), std::filesystem::directory_iterator()), 3);
    for (const auto& entry : std::filesystem::directory_iterator(dir.Path())) {
        EXPECT_LT(entry.file_size(), 2300U) << entry.path();
    }
}

TEST(LogFile, TakesRecordsOfManyThreads) {
    const TempDir dir;
    ASSERT_EQ(SetUpLogging(FileIn(dir)), 0);
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            for (int n = 0; n < 100; ++n) {
                moduleLog.Error("thread %d record %d end", i, n);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::vector<std::string> lines = Lines(dir.Read("agent.log"));
    EXPECT_EQ(lines.size(), 400U);
    for (const std::string& line : lines) {
        ExpectLine(line, std::string(TIME) + R"( Error log_test LogSetupTest\.cpp:\d+ thread \d record \d+ end)");
    }
}

TEST(LogLevel, MayBeANameOrANumber) {
    const TempDir dir;
    LogSettings settings = FileIn(dir);
    settings.level = "warning";
    ASSERT_EQ(SetUpLogging(settings), 0);
    moduleLog.Warning("w1");
    moduleLog.Notice("n1");
    settings.level = "5";
    ASSERT_EQ(SetUpLogging(settings), 0);
    moduleLog.Notice("n2");
    moduleLog.Information("i2");
    const std::vector<std::string> lines = Lines(dir.Read("agent.log"));
    ASSERT_EQ(lines.size(), 2U);
    ExpectLine(lines[0], ".* w1");
    ExpectLine(lines[1], ".* n2");
}

TEST(LogLevel, HoldsForLoggersToCome) {
    const TempDir dir;
    LogSettings settings = FileIn(dir);
    settings.level = "debug";
    ASSERT_EQ(SetUpLogging(settings), 0);
    Poco::Logger* logger = LoggerUtils::GetInstance()->GetModuleLogger("log_test_later", false);
    ASSERT_NE(logger, nullptr);
    EXPECT_TRUE(logger->debug());
    EXPECT_FALSE(logger->trace());
    logger->log(MakeMessage("log_test_later", "text", Message::PRIO_DEBUG));
    EXPECT_EQ(Lines(dir.Read("agent.log")).size(), 1U);
}

TEST(SetUpLogging, RefusesWhatCannotWorkAndChangesNothing) {
    const TempDir dir;
    ASSERT_EQ(SetUpLogging(FileIn(dir)), 0);

    LogSettings wrong = FileIn(dir);
    wrong.level = "loud";
    EXPECT_EQ(SetUpLogging(wrong), EINVAL);
    wrong.level = "";
    EXPECT_EQ(SetUpLogging(wrong), EINVAL);
    wrong = FileIn(dir);
    wrong.files = 0;
    EXPECT_EQ(SetUpLogging(wrong), EINVAL);
    wrong = FileIn(dir);
    wrong.maxBytes = 0;
    EXPECT_EQ(SetUpLogging(wrong), EINVAL);
    wrong = FileIn(dir);
    wrong.filePath = dir / "missing/agent.log";
    EXPECT_EQ(SetUpLogging(wrong), ENOENT);
    wrong.filePath = dir.Path();
    EXPECT_EQ(SetUpLogging(wrong), EISDIR);

    moduleLog.Error("still here");
    EXPECT_EQ(Lines(dir.Read("agent.log")).size(), 1U);
}

TEST(LogConsole, TakesTheSameLinesAsTheFile) {
    unsetenv("JOURNAL_STREAM");
    const TempDir dir;
    StandardError console;
    LogSettings settings = FileIn(dir);
    settings.console = true;
    ASSERT_EQ(SetUpLogging(settings), 0);
    moduleLog.Error("to both");
    EXPECT_EQ(console.Take(), dir.Read("agent.log"));
    EXPECT_EQ(Lines(dir.Read("agent.log")).size(), 1U);
}

TEST(LogConsole, IsSilentUnlessAskedFor) {
    const TempDir dir;
    StandardError console;
    ASSERT_EQ(SetUpLogging(FileIn(dir)), 0);
    moduleLog.Error("to the file");
    EXPECT_EQ(console.Take(), "");
}

TEST(LogConsole, SpeaksToTheJournalInItsOwnForm) {
    StandardError console;
    struct stat info {};
    ASSERT_EQ(fstat(STDERR_FILENO, &info), 0);
    setenv("JOURNAL_STREAM", (std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino)).c_str(), 1);
    LogSettings settings;
    settings.console = true;
    settings.level = "trace";
    ASSERT_EQ(SetUpLogging(settings), 0);
    moduleLog.Error("a\nb");
    moduleLog.Trace("fine");
    const std::vector<std::string> lines = Lines(console.Take());
    ASSERT_EQ(lines.size(), 2U);
    ExpectLine(lines[0], R"(<3>log_test LogSetupTest\.cpp:\d+ a\\nb)");
    ExpectLine(lines[1], R"(<7>log_test LogSetupTest\.cpp:\d+ fine)");
}

TEST(LogConsole, AnInheritedJournalVariableForAnotherStreamIsIgnored) {
    StandardError console;
    setenv("JOURNAL_STREAM", "1:1", 1);
    LogSettings settings;
    settings.console = true;
    ASSERT_EQ(SetUpLogging(settings), 0);
    moduleLog.Error("text");
    ExpectLine(Lines(console.Take()).at(0), std::string(TIME) + " Error .* text");
}

namespace {

// Standard error led to one end of a socket pair, as systemd leads a service's to journald; what journald
// would read comes out of the other. JOURNAL_STREAM means that stream unless a test sets it otherwise.
class Journal {
public:
    Journal() {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        mRead.Reset(ends[0]);
        const SDK::FileDescriptor written(ends[1]);
        mOld.Reset(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
        EXPECT_EQ(dup2(written.Get(), STDERR_FILENO), STDERR_FILENO);
        struct stat info {};
        EXPECT_EQ(fstat(STDERR_FILENO, &info), 0);
        setenv("JOURNAL_STREAM", (std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino)).c_str(), 1);
    }
    ~Journal() {
        dup2(mOld.Get(), STDERR_FILENO);
        unsetenv("JOURNAL_STREAM");
    }
    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    // What has been written so far.
    std::vector<std::string> Read() const {
        std::string text;
        std::array<char, 65536> buffer{};
        for (;;) {
            const ssize_t count = recv(mRead.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (count <= 0) {
                return Lines(text);
            }
            text.append(buffer.data(), static_cast<std::size_t>(count));
        }
    }

private:
    SDK::FileDescriptor mRead;
    SDK::FileDescriptor mOld;
};

} // namespace

TEST(LogJournal, TakesTheFilesPlaceWhenJournaldReadsStandardError) {
    const TempDir dir;
    const Journal journal;
    ASSERT_EQ(SetUpLogging(FileIn(dir)), 0);
    moduleLog.Error("to the journal");
    const std::vector<std::string> lines = journal.Read();
    ASSERT_EQ(lines.size(), 1U);
    ExpectLine(lines[0], R"(<3>log_test LogSetupTest\.cpp:\d+ to the journal)");
    EXPECT_EQ(dir.Read("agent.log"), "<missing>");
}

TEST(LogJournal, EachPriorityIsASeverityOfSyslog) {
    const TempDir dir;
    const Journal journal;
    LogSettings settings = FileIn(dir);
    settings.level = "trace";
    ASSERT_EQ(SetUpLogging(settings), 0);
    moduleLog.Fatal("x");
    moduleLog.Error("x");
    moduleLog.Warning("x");
    moduleLog.Notice("x");
    moduleLog.Information("x");
    moduleLog.Debug("x");
    moduleLog.Trace("x");
    std::string severities;
    for (const std::string& line : journal.Read()) {
        severities += line.substr(0, 3);
    }
    EXPECT_EQ(severities, "<1><3><4><5><6><7><7>");
}

TEST(LogJournal, ARecordOfManyLinesIsOneAndForgesNothing) {
    const TempDir dir;
    const Journal journal;
    ASSERT_EQ(SetUpLogging(FileIn(dir)), 0);
    moduleLog.Information("%s", "first\n<0>daemon Daemon.cpp:1 forged\r\nPRIORITY=0\0_UID=0"s);
    const std::vector<std::string> lines = journal.Read();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].substr(0, 3), "<6>");
    EXPECT_NE(lines[0].find(R"(first\n<0>daemon Daemon.cpp:1 forged\r\nPRIORITY=0\x00_UID=0)"), std::string::npos);
}

TEST(LogJournal, ARecordTooLongForALineIsSeveralOfTheSameSeverity) {
    const TempDir dir;
    const Journal journal;
    ASSERT_EQ(SetUpLogging(FileIn(dir)), 0);
    std::string text;
    while (text.size() < 60000) {
        text += "<0>\xC3\xA9";
    }
    moduleLog.Warning("%s", text);
    std::string joined;
    const std::vector<std::string> lines = journal.Read();
    ASSERT_EQ(lines.size(), 4U);
    for (const std::string& line : lines) {
        EXPECT_LT(line.size(), 20000U);
        const std::string beginning = "<4>log_test LogSetupTest.cpp:";
        ASSERT_TRUE(line.starts_with(beginning));
        const std::string piece = line.substr(line.find(' ', beginning.size()) + 1);
        // No character is cut in two.
        EXPECT_NE(static_cast<unsigned char>(piece.front()), 0xA9);
        joined += piece;
    }
    EXPECT_EQ(joined, text);
}

TEST(LogJournal, TheConsoleAddsNothingToIt) {
    const TempDir dir;
    const Journal journal;
    LogSettings settings = FileIn(dir);
    settings.console = true;
    ASSERT_EQ(SetUpLogging(settings), 0);
    moduleLog.Error("once");
    LoggerUtils::GetInstance()->GetModuleLogger("log_test_console", true)->error("once");
    EXPECT_EQ(journal.Read().size(), 2U);
}

TEST(LogJournal, AStreamThatIsNotJournaldsLeavesTheFile) {
    const TempDir dir;
    const Journal journal;
    for (const char* stream : {"1:1", "", "nonsense", ":"}) {
        setenv("JOURNAL_STREAM", stream, 1);
        ASSERT_EQ(SetUpLogging(FileIn(dir)), 0);
        moduleLog.Error("to the file");
    }
    unsetenv("JOURNAL_STREAM");
    ASSERT_EQ(SetUpLogging(FileIn(dir)), 0);
    moduleLog.Error("to the file");
    EXPECT_TRUE(journal.Read().empty());
    EXPECT_EQ(Lines(dir.Read("agent.log")).size(), 5U);
}

TEST(LogJournal, TheTargetMayBeSetWhateverReadsStandardError) {
    const TempDir dir;
    const Journal journal;
    LogSettings settings = FileIn(dir);
    settings.target = SDK::LogTarget::FILE;
    ASSERT_EQ(SetUpLogging(settings), 0);
    moduleLog.Error("to the file");
    EXPECT_TRUE(journal.Read().empty());
    EXPECT_EQ(Lines(dir.Read("agent.log")).size(), 1U);

    unsetenv("JOURNAL_STREAM");
    settings.target = SDK::LogTarget::JOURNAL;
    ASSERT_EQ(SetUpLogging(settings), 0);
    moduleLog.Error("to standard error");
    ASSERT_EQ(journal.Read().size(), 1U);
    EXPECT_EQ(Lines(dir.Read("agent.log")).size(), 1U);
}

TEST(ModuleLogger, IsOneForEachName) {
    LoggerUtils* utils = LoggerUtils::GetInstance();
    Poco::Logger* logger = utils->GetModuleLogger("one", false);
    ASSERT_NE(logger, nullptr);
    EXPECT_EQ(logger->name(), "one");
    EXPECT_EQ(utils->GetModuleLogger("one", true), logger);
    EXPECT_NE(utils->GetModuleLogger("two", false), logger);
    EXPECT_EQ(LoggerUtils::GetInstance(), utils);
}

TEST(ModuleLogger, WithConsoleWritesToStandardErrorToo) {
    unsetenv("JOURNAL_STREAM");
    const TempDir dir;
    StandardError console;
    Poco::Logger* early = LoggerUtils::GetInstance()->GetModuleLogger("early", true);
    ASSERT_EQ(SetUpLogging(FileIn(dir)), 0);
    Poco::Logger* late = LoggerUtils::GetInstance()->GetModuleLogger("late", true);
    early->log(MakeMessage("early", "one", Message::PRIO_ERROR));
    late->log(MakeMessage("late", "two", Message::PRIO_ERROR));
    moduleLog.Error("not on the console");
    const std::vector<std::string> lines = Lines(console.Take());
    ASSERT_EQ(lines.size(), 2U);
    ExpectLine(lines[0], ".* early Source.cpp:12 one");
    ExpectLine(lines[1], ".* late Source.cpp:12 two");
    EXPECT_EQ(Lines(dir.Read("agent.log")).size(), 3U);
}

TEST(ModuleLogger, WithConsoleIsNotDoubledByTheAgentsConsole) {
    const TempDir dir;
    StandardError console;
    LogSettings settings = FileIn(dir);
    settings.console = true;
    ASSERT_EQ(SetUpLogging(settings), 0);
    LoggerUtils::GetInstance()->GetModuleLogger("both", true)->log(MakeMessage("both", "x", Message::PRIO_ERROR));
    EXPECT_EQ(Lines(console.Take()).size(), 1U);
}

TEST(ModuleLogger, OfManyThreadsIsTheSame) {
    std::vector<Poco::Logger*> loggers(8);
    std::vector<std::thread> threads;
    threads.reserve(loggers.size());
    for (Poco::Logger*& logger : loggers) {
        threads.emplace_back([&logger] { logger = LoggerUtils::GetInstance()->GetModuleLogger("shared", false); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const Poco::Logger* logger : loggers) {
        EXPECT_NE(logger, nullptr);
        EXPECT_EQ(logger, loggers.front());
    }
}

TEST(ModuleLogger, MadeBeforeOrAfterARecorderIsRecorded) {
    Poco::Logger* before = LoggerUtils::GetInstance()->GetModuleLogger("recorded_before", false);
    const LogRecorder recorder;
    Poco::Logger* after = LoggerUtils::GetInstance()->GetModuleLogger("recorded_after", false);
    before->log(MakeMessage("recorded_before", "one", Message::PRIO_TRACE));
    after->log(MakeMessage("recorded_after", "two", Message::PRIO_TRACE));
    EXPECT_EQ(recorder.Count(Message::PRIO_TRACE, "one"), 1);
    EXPECT_EQ(recorder.Count(Message::PRIO_TRACE, "two"), 1);
}

TEST(ModuleLogger, WithoutASetUpRecordsAreDropped) {
    StandardError console;
    moduleLog.Error("nowhere");
    EXPECT_EQ(console.Take(), "");
}

TEST(ModuleLog, CarriesPlaceAndTextOfTheRecord) {
    const LogRecorder recorder;
    const int line = __LINE__ + 1;
    moduleLog.Warning("%s %s %d %z %?d", std::string("a"), "b", 1, std::size_t{2}, 3L);
    const std::vector<LogRecorder::Record> records = recorder.Records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].logger, "log_test");
    EXPECT_EQ(records[0].text, "a b 1 2 3");
    EXPECT_EQ(records[0].file, "LogSetupTest.cpp");
    EXPECT_EQ(records[0].line, line);
}

TEST(LogFile, ThatCannotBeWrittenForAWhileSaysAfterwardsWhatIsMissing) {
    if (const std::string reason = TestSupport::WhyNoMount(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const TestSupport::TempMount disk("64k");
    const std::string path = disk / "agent.log";
    Poco::AutoPtr<Poco::Channel> channel = SDK::MakeFileChannel(path, 1U << 20U, 1);
    const std::uint64_t lostBefore = SDK::CountLostRecords();
    const auto log = [&](const std::string& text) {
        channel->log(MakeMessage("test", text + std::string(5000, 'x'), Message::PRIO_INFORMATION));
    };
    log("first ");
    disk.Fill();
    StandardError errors;
    while (SDK::CountLostRecords() < lostBefore + 3) {
        log("lost ");
    }
    const std::string said = errors.Take();
    EXPECT_EQ(Lines(said).size(), 1U) << said;
    EXPECT_NE(said.find("[" + path + "] cannot be written"), std::string::npos) << said;
    disk.MakeRoom();

    ASSERT_TRUE(TestSupport::WaitFor([&] {
        log("again ");
        return disk.Read("agent.log").find("records are missing here") != std::string::npos;
    }));

    const std::string text = disk.Read("agent.log");
    const std::uint64_t lost = SDK::CountLostRecords() - lostBefore;
    EXPECT_NE(text.find(" " + std::to_string(lost) + " records are missing here"), std::string::npos);
    EXPECT_NE(text.find(" first "), std::string::npos);
    for (const std::string& line : Lines(text)) {
        EXPECT_TRUE(line.empty() || line.starts_with("20")) << "not a record's beginning: " << line.substr(0, 40);
    }
}
