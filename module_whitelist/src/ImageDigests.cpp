#include "ImageDigests.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <set>
#include <string_view>

#include <pthread.h>

#include "JudgedImage.h"
#include "sdk/CpuThrottle.h"
#include "sdk/FileUtils.h"
#include "sdk/ModuleLog.h"
#include "utils/Constants.h"

namespace Engine {

namespace {

SDK::ModuleLog moduleLog(LOGGER_NAME);
SDK::CpuThrottle throttle("module_whitelist/src/ImageDigests", MODULE_NAME);

std::string DigestOf(const std::string& path) {
    std::string digest;
    SDK::FileUtils::GetFileSha256(path, digest, MAX_FILE_BYTES);
    return digest;
}

} // namespace

std::string ImageDigests::Of(const std::string& path) {
    const SDK::ProcessImage* const held = SDK::ProcessImage::At(path);
    if (held == nullptr) {
        return OnceFor(path, mByPath, [&path] { return Computed{DigestOf(path), true}; });
    }
    const std::optional<SDK::ImageIdentity> before = held->GetIdentity();
    if (!before) {
        return DigestOf(path);
    }
    return OnceFor(std::pair{*before, path}, mHeld, [&] {
        std::string digest = DigestOf(path);
        return Computed{std::move(digest), held->GetIdentity() == before};
    });
}

std::optional<std::string> ImageDigests::FindRunning(int pid, const std::string& path) const {
    std::unique_lock lock(mMutex);
    if (mHeld.empty()) {
        return std::nullopt;
    }
    lock.unlock();
    const std::optional<SDK::ImageIdentity> running = SDK::ProcessImage::Identify(pid);
    lock.lock();
    const auto found = running ? mHeld.find({*running, path}) : mHeld.end();
    if (found == mHeld.end()) {
        return std::nullopt;
    }
    const Digest digest = found->second;
    lock.unlock();
    const Computed& computed = digest.get();
    return computed.lasts ? std::optional(computed.digest) : std::nullopt;
}

template <typename Key>
std::string ImageDigests::OnceFor(const Key& key, std::map<Key, Digest>& digests, const Compute& compute) {
    std::promise<Computed> mine;
    std::unique_lock lock(mMutex);
    const auto [entry, isNew] = digests.try_emplace(key);
    if (isNew) {
        entry->second = mine.get_future();
    }
    const Digest digest = entry->second;
    lock.unlock();
    if (isNew) {
        try {
            mine.set_value(compute());
        } catch (...) {
            mine.set_value({});
            throw;
        }
    }
    const Computed& computed = digest.get();
    return isNew || computed.lasts ? computed.digest : compute().digest;
}

DigestsAhead::DigestsAhead(const ProcsFullTask::ProcsMap& processes, ImageDigests& digests) : mDigests(digests) {
    try {
        std::set<std::string_view> paths;
        for (const Row& row : processes) {
            if (paths.insert(row.second.path).second) {
                mRows.push_back(&row);
            }
        }
        std::reverse(mRows.begin(), mRows.end());
        if (mRows.size() > 1) {
            mThread = std::thread([this] { Run(); });
        }
    } catch (const std::exception& error) {
        moduleLog.Debug("no digest is computed ahead: %s", std::string(error.what()));
    }
}

DigestsAhead::~DigestsAhead() {
    Pass(std::numeric_limits<int>::max());
    if (mThread.joinable()) {
        mThread.join();
    }
}

void DigestsAhead::Run() noexcept {
    pthread_setname_np(pthread_self(), "digests_ahead");
    try {
        for (const Row* const row : mRows) {
            const auto& [pid, process] = *row;
            throttle.Check();
            if (pid <= mPassed.load()) {
                return;
            }
            const auto image = HoldImageOfRow(pid);
            mDigests.Of(process.path);
        }
    } catch (const std::exception& error) {
        moduleLog.Debug("no more digests are computed ahead: %s", std::string(error.what()));
    }
}

} // namespace Engine
