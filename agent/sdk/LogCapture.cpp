#include "agent/sdk/LogCapture.h"

#include <exception>

#include "sdk/LogTap.h"

namespace SDK {

namespace {

thread_local LogCapture* innermost = nullptr;

} // namespace

LogCapture::LogCapture() : mOuter(innermost) {
    innermost = this;
}

LogCapture::~LogCapture() {
    innermost = mOuter;
}

void LogTap::Offer(Poco::Message::Priority priority, const std::string& text) noexcept {
    // Poco's graver priorities are the smaller numbers.
    if (innermost == nullptr || priority > Poco::Message::PRIO_ERROR) {
        return;
    }
    try {
        for (LogCapture* capture = innermost; capture != nullptr; capture = capture->mOuter) {
            capture->mRecords.push_back({priority, text});
        }
    } catch (const std::exception&) {
        // Without memory for its copy the record still goes to the log itself.
        return;
    }
}

} // namespace SDK
