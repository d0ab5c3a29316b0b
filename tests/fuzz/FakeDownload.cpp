#include "fuzz/FakeDownload.h"

#include <fstream>
#include <mutex>
#include <utility>

#include "sdk/HttpUtils.h"

namespace {

std::mutex lock;
std::vector<Fuzz::Download> downloads; // under lock

} // namespace

namespace Fuzz {

std::vector<Download> TakeDownloads() {
    const std::lock_guard guard(lock);
    return std::exchange(downloads, {});
}

} // namespace Fuzz

namespace SDK {

// The program's own definition takes precedence over the library's.
int HttpUtils::Download(const std::string& url, const std::string& sha256, const std::string& destination,
                        const std::string& /*proxy*/, const std::string& /*caFile*/) {
    {
        const std::lock_guard guard(lock);
        downloads.push_back({url, sha256, destination});
    }
    if (!url.starts_with(Fuzz::SERVE)) {
        return DOWNLOAD_BAD_URL;
    }
    std::ofstream(destination, std::ios::binary) << url.substr(Fuzz::SERVE.size());
    return 200;
}

} // namespace SDK
