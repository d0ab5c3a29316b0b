#pragma once

#include <atomic>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "modules/ProcsFullTask.h"
#include "sdk/ProcessImage.h"

namespace Engine {

// The digests of the images of one table of processes: many processes run few images, and each image is read once.
// Thread-safe; who asks for a digest that another thread computes waits for that.
class ImageDigests {
public:
    // Empty for an image that cannot be read. An image that the calling thread holds is looked at itself: another
    // process may run another one under the same path.
    std::string Of(const std::string& path);

    // Of what the process runs, where another that runs the same under the same path was held before.
    std::optional<std::string> FindRunning(int pid, const std::string& path) const;

private:
    struct Computed {
        std::string digest;
        bool lasts = false; // what was read did not change meanwhile: it is the digest of others that ask, too
    };
    using Digest = std::shared_future<Computed>;
    using Compute = std::function<Computed()>;

    template <typename Key> std::string OnceFor(const Key& key, std::map<Key, Digest>& digests, const Compute& compute);

    mutable std::mutex mMutex; // guards what follows it
    std::map<std::string, Digest> mByPath;
    std::map<std::pair<SDK::ImageIdentity, std::string>, Digest> mHeld;
};

// Computes digests of a table's images on a thread of its own, the last first, while its owner goes through the
// table from the beginning: reading programs is most of what that takes.
class DigestsAhead {
public:
    // The table and the digests last as long as the object. Where there can be no thread, or no memory for one,
    // nothing is computed ahead.
    DigestsAhead(const ProcsFullTask::ProcsMap& processes, ImageDigests& digests);
    // Waits for the image that is being read, or for the CPU governor, which may let the thread sleep for a second.
    ~DigestsAhead();
    DigestsAhead(const DigestsAhead&) = delete;
    DigestsAhead& operator=(const DigestsAhead&) = delete;

    // The owner has come to the row of this pid: what is before it is not computed ahead any more.
    void Pass(int pid) { mPassed.store(pid); }

private:
    using Row = ProcsFullTask::ProcsMap::value_type;

    void Run() noexcept;

    ImageDigests& mDigests;
    std::vector<const Row*> mRows; // the first of each image, the last of these first
    std::atomic<int> mPassed{-1};
    std::thread mThread; // last, so that all it uses is there
};

} // namespace Engine
