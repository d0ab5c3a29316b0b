#include "agent/sdk/LogSetup.h"

#include <cerrno>
#include <optional>

#include <fcntl.h>

#include <Poco/Exception.h>
#include <Poco/Logger.h>
#include <Poco/SplitterChannel.h>

#include "agent/sdk/FileDescriptor.h"
#include "agent/sdk/LogChannels.h"
#include "agent/sdk/LoggerRegistry.h"
#include "agent/sdk/OwnFile.h"

namespace SDK {

namespace {

std::optional<int> ParseLevel(const std::string& level) {
    try {
        return Poco::Logger::parseLevel(level);
    } catch (const Poco::Exception&) {
        return std::nullopt;
    }
}

// The file channel opens its file at the first record, when nobody hears of a failure any more. It would follow
// a link, and wait for a reader of a FIFO.
int CheckCanBeWritten(const std::string& path) {
    constexpr int FLAGS = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    const FileDescriptor file(open(path.c_str(), FLAGS, S_IRUSR | S_IWUSR));
    struct stat info {};
    return file.IsOpen() && fstat(file.Get(), &info) == 0 ? CheckOwnFile(info) : errno;
}

Poco::AutoPtr<Poco::Channel> MakeAgentChannel(const LogSettings& settings) {
    Poco::AutoPtr<Poco::SplitterChannel> all(new Poco::SplitterChannel);
    if (!settings.filePath.empty()) {
        all->addChannel(MakeFileChannel(settings.filePath, settings.maxBytes, settings.files));
    }
    if (settings.console) {
        all->addChannel(MakeConsoleChannel());
    }
    return all;
}

bool GoesToJournal(const LogSettings& settings) {
    return settings.target == LogTarget::JOURNAL ||
           (settings.target == LogTarget::AUTO && !settings.filePath.empty() && IsStandardErrorJournal());
}

} // namespace

int SetUpLogging(const LogSettings& settings) {
    const std::optional<int> level = ParseLevel(settings.level);
    if (!level || settings.maxBytes < 1 || settings.files < 1) {
        return EINVAL;
    }
    const bool journal = GoesToJournal(settings);
    if (!journal && !settings.filePath.empty()) {
        const int result = CheckCanBeWritten(settings.filePath);
        if (result != 0) {
            return result;
        }
    }
    // Asked for first: setLevel reaches only loggers that exist, and those to come inherit from this one.
    Poco::Logger& root = Poco::Logger::root();
    Poco::Logger::setLevel("", *level);
    root.setChannel(journal ? MakeJournalChannel() : MakeAgentChannel(settings));
    SetRootWritesToConsole(journal || settings.console);
    AttachLoggersToRoot();
    return 0;
}

} // namespace SDK
