#pragma once

#include <string>
#include <vector>

#include <Poco/Message.h>

namespace SDK {

// Collects the records of priority error and graver that the thread which made it logs through
// ModuleLog while it lives. It neither changes nor depends on channels; records that the logger's
// level does not admit are not seen.
//
// Lives and dies on one thread. Captures of one thread may be nested; each sees all records of its
// own time.
class LogCapture {
public:
    struct Record {
        Poco::Message::Priority priority;
        std::string text;
    };

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // In the order in which they were logged.
    const std::vector<Record>& Records() const { return mRecords; }

    // The text of the first record, which is the nearest to the cause; empty when there is none.
    std::string FirstText() const { return mRecords.empty() ? "" : mRecords.front().text; }

private:
    friend class LogTap;

    LogCapture* const mOuter; // the capture that this thread had before, or null
    std::vector<Record> mRecords;
};

} // namespace SDK
