#include "agent/daemon/RunMark.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include <unistd.h>

#include "sdk/FileUtils.h"

namespace Daemon {

namespace {

// More than any process id has digits.
constexpr std::uint64_t MAX_MARK_BYTES = 32;

bool IsNumber(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

} // namespace

RunMark::RunMark(std::string path) : mPath(std::move(path)), mWasLeft(SDK::FileUtils::IsFile(mPath)) {
    std::string text;
    if (mWasLeft && SDK::FileUtils::ReadFile(mPath, text, MAX_MARK_BYTES) == 0 && IsNumber(text)) {
        mLeftBy = text;
    }
    static_cast<void>(SDK::FileUtils::WriteFile(mPath, std::to_string(getpid()), false));
}

RunMark::~RunMark() {
    SDK::FileUtils::RemoveFile(mPath);
}

} // namespace Daemon
