#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

namespace TestSupport {

// Collects every record that any logger writes, at every level, from its construction on.
class LogRecorder {
public:
    struct Record {
        std::string logger;
        std::string text;
        int priority = 0;
        std::string file;
        int line = 0;
    };

    LogRecorder() : mChannel(new Collector) {
        // Loggers to come inherit from the root logger, which exists only once it was asked for.
        Poco::Logger::root();
        Poco::Logger::setLevel("", Poco::Message::PRIO_TRACE);
        Poco::Logger::setChannel("", mChannel);
    }
    ~LogRecorder() { Poco::Logger::setChannel("", nullptr); }
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    std::vector<Record> Records() const {
        const std::lock_guard<std::mutex> lock(mChannel->mutex);
        return mChannel->records;
    }

    void Clear() {
        const std::lock_guard<std::mutex> lock(mChannel->mutex);
        mChannel->records.clear();
    }

    // How many records have exactly this priority and text.
    long Count(Poco::Message::Priority priority, const std::string& text) const {
        const std::vector<Record> records = Records();
        return std::count_if(records.begin(), records.end(),
                             [&](const Record& record) { return record.priority == priority && record.text == text; });
    }
    bool Has(Poco::Message::Priority priority, const std::string& text) const { return Count(priority, text) > 0; }

    // How many records have exactly this priority.
    long CountAt(Poco::Message::Priority priority) const {
        const std::vector<Record> records = Records();
        return std::count_if(records.begin(), records.end(),
                             [&](const Record& record) { return record.priority == priority; });
    }

private:
    class Collector : public Poco::Channel {
    public:
        void log(const Poco::Message& message) override {
            const std::lock_guard<std::mutex> lock(mutex);
            const char* file = message.getSourceFile();
            records.push_back({message.getSource(), message.getText(), message.getPriority(),
                               file == nullptr ? "" : file, message.getSourceLine()});
        }

        mutable std::mutex mutex;
        std::vector<Record> records;
    };

    Poco::AutoPtr<Collector> mChannel;
};

} // namespace TestSupport
