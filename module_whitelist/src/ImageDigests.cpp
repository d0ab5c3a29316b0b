#include "ImageDigests.h"

#include <exception>
#include <set>
#include <string_view>
#include <system_error>

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
    return held == nullptr ? OnceFor(path, mByPath, [&path] { return DigestOf(path); }) : OfHeld(path, *held);
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
    return digest.get();
}

// The digest of what changed as it was read stands for nothing but that moment.
std::string ImageDigests::OfHeld(const std::string& path, const SDK::ProcessImage& held) {
    const std::optional<SDK::ImageIdentity> before = held.GetIdentity();
    if (!before) {
        return DigestOf(path);
    }
    const std::pair key{*before, path};
    return OnceFor(key, mHeld, [&] {
        std::string digest = DigestOf(path);
        if (held.GetIdentity() != before) {
            const std::lock_guard guard(mMutex);
            mHeld.erase(key);
        }
        return digest;
    });
}

template <typename Key>
std::string ImageDigests::OnceFor(const Key& key, std::map<Key, Digest>& digests, const Compute& compute) {
    std::promise<std::string> mine;
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
            mine.set_exception(std::current_exception());
        }
    }
    return digest.get();
}

DigestsAhead::DigestsAhead(const ProcsFullTask::ProcsMap& processes, ImageDigests& digests) : mDigests(digests) {
    std::set<std::string_view> paths;
    for (const Row& row : processes) {
        if (paths.insert(row.second.path).second) {
            mRows.push_back(&row);
        }
    }
    if (mRows.size() < 2) {
        return;
    }
    try {
        mThread = std::thread([this] { Run(); });
    } catch (const std::system_error& error) {
        moduleLog.Debug("no digest is computed ahead: %s", std::string(error.what()));
    }
}

DigestsAhead::~DigestsAhead() {
    mStopping.store(true);
    if (mThread.joinable()) {
        mThread.join();
    }
}

void DigestsAhead::Run() noexcept {
    pthread_setname_np(pthread_self(), "digests_ahead");
    try {
        for (auto row = mRows.rbegin(); row != mRows.rend() && !mStopping.load(); ++row) {
            const auto& [pid, process] = **row;
            throttle.Check();
            const auto image = HoldImageOfRow(pid);
            mDigests.Of(process.path);
        }
    } catch (const std::exception& error) {
        moduleLog.Debug("no more digests are computed ahead: %s", std::string(error.what()));
    }
}

} // namespace Engine
