#include "agent/filenotify/Watcher.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <exception>
#include <functional>
#include <numeric>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include "framework/Engine.h"
#include "framework/Scope.h"
#include "sdk/ModuleLog.h"

namespace Engine {

static SDK::ModuleLog moduleLog("filenotify");

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds LOSS_LOG_INTERVAL{1};

// How long a process is given to become the program that it is about to execute.
constexpr int SETTLE_MS = 5;

// How long accesses wait in the kernel for room in the task's queue, and how often it is looked at.
constexpr std::chrono::milliseconds ROOM_DEADLINE{200};
constexpr int ROOM_INTERVAL_MS = 1;

// How long the reader waits after an error that it cannot explain, so as not to spin on it.
constexpr int ERROR_PAUSE_MS = 100;

int OwnPid() {
    static const int pid = getpid();
    return pid;
}

FanotifyGroup::Object ObjectOf(const _FileNotifyOpt& options) {
    return options.mount != 0 ? FanotifyGroup::Object::Mount : FanotifyGroup::Object::Directory;
}

// A mount's mark has the events of all files on it and takes no FAN_EVENT_ON_CHILD.
std::uint64_t MaskOf(const FileNotifyWatchMessage& request) {
    const auto& masks = request.GetEventMasks();
    const std::uint64_t mask = std::accumulate(masks.begin(), masks.end(), std::uint64_t{0}, std::bit_or<>());
    const bool onChildren = request.GetOptions().children != 0 && request.GetOptions().mount == 0;
    return onChildren ? mask | FAN_EVENT_ON_CHILD : mask;
}

// What an error of fanotify_mark(2) means here.
std::string Explain(int error) {
    std::string text = std::strerror(error);
    switch (error) {
    case ENOENT:
    case ENOTDIR:
        return "it is gone (" + text + ")";
    case ENOSPC:
        return "the limit of marks, fs.fanotify.max_user_marks, is reached (" + text + ")";
    case EINVAL:
    case ENODEV:
    case EOPNOTSUPP:
    case EXDEV:
        return "its file system does not support it (" + text + ")";
    default:
        return text;
    }
}

void JoinIfStarted(std::thread& thread) {
    if (thread.joinable()) {
        thread.join();
    }
}

} // namespace

std::unique_ptr<Watcher> Watcher::Create(const FileNotifyWatchMessage& first, std::string& problem) {
    std::unique_ptr<Watcher> watcher(new Watcher(first));
    watcher->mDescriptors.Reset(open("/proc/self/fd", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!watcher->mDescriptors.IsOpen()) {
        problem = std::string("/proc/self/fd cannot be opened: ") + std::strerror(errno);
        return nullptr;
    }
    if (!watcher->mGroup.Open(problem)) {
        return nullptr;
    }
    try {
        watcher->StartThreads();
    } catch (const std::system_error& error) {
        problem = std::string("no thread can be started: ") + error.what();
        return nullptr;
    }
    return watcher;
}

Watcher::Watcher(const FileNotifyWatchMessage& first)
    : mTaskName(first.GetWatcherName()), mTaskInstance(first.GetWatcherInstance()),
      mIgnoredPids(first.GetOptions().ignoredPids), mMarks(mGroup), mRead(Framework::Counters::Of("files.read")),
      mOwn(Framework::Counters::Of("files.own")), mUnscoped(Framework::Counters::Of("files.unscoped")),
      mPosted(Framework::Counters::Of("files.posted")), mDropped(Framework::Counters::Of("files.dropped")),
      mOverflows(Framework::Counters::Of("files.overflow")), mLost(Framework::Counters::Of("files.lost")) {}

void Watcher::StartThreads() {
    mSender = std::thread([this] { SendUntilStopped(); });
    mReader = std::thread([this] { ReadUntilStopped(); });
}

Watcher::~Watcher() {
    mStopping.store(true);
    mStop.Signal();
    mBatches.Stop();
    JoinIfStarted(mReader);
    mBatches.Finish();
    JoinIfStarted(mSender);
}

void Watcher::Add(const FileNotifyWatchMessage& request) {
    const std::uint64_t maxMarks = request.GetOptions().maxMarks;
    const bool full = maxMarks != 0 && mMarks.Count() >= maxMarks;
    const int error = full ? EDQUOT : mMarks.Add(ObjectOf(request.GetOptions()), request.GetPath(), MaskOf(request));
    if (error != 0) {
        ++mFailedMarks;
        const std::string reason = full ? "the watcher's own limit of marks is reached" : Explain(error);
        moduleLog.Error("file accesses in [%s] cannot be watched: %s", request.GetPath(), reason);
    }
}

void Watcher::Remove(const FileNotifyWatchMessage& request) {
    if (const int error = mMarks.Remove(request.GetPath()); error != 0) {
        // Mostly ENOENT: the mark went with its directory.
        moduleLog.Debug("the mark on [%s] is gone already: %s", request.GetPath(), std::strerror(error));
    }
}

// ---- Reader thread ---------------------------------------------------------------------------------

void Watcher::ReadUntilStopped() {
    pthread_setname_np(pthread_self(), "filenotify_read");
    while (WaitForAccesses()) {
        try {
            ReadWaiting();
        } catch (const std::exception& error) {
            moduleLog.Error("file accesses are read later: %s", error.what());
            Pause(ERROR_PAUSE_MS);
        }
        CloseBatches();
    }
}

// False when the reader is to stop.
bool Watcher::WaitForAccesses() {
    pollfd waited[] = {{mGroup.GetFd(), POLLIN, 0}, {mStop.GetFd(), POLLIN, 0}};
    poll(waited, 2, -1);
    return Pause(SETTLE_MS);
}

// Reads what waits now. What comes in meanwhile is too young: it is the next turn's.
void Watcher::ReadWaiting() {
    std::size_t left = mGroup.CountWaiting();
    const bool isOneBatch = left <= FanotifyGroup::MAX_BATCH;
    while (left > 0) {
        FanotifyGroup::Batch* const batch = mBatches.AwaitEmpty();
        AwaitRoom();
        if (batch == nullptr || !ReadBatch(left, *batch)) {
            return;
        }
        left -= std::min(left, batch->Size());
        if (isOneBatch) {
            Send(*batch);
        } else {
            mBatches.Filled();
        }
    }
}

// Until all batches fit into the task's queue: the one to be read, and the other, which may not be sent yet.
void Watcher::AwaitRoom() const {
    const Poco::AutoPtr<Framework::Task> task = FindTask();
    if (!task) {
        return;
    }
    const auto deadline = Clock::now() + ROOM_DEADLINE;
    // A queue that is smaller has all the room that it can have when it is empty.
    const std::size_t wanted =
        std::min<std::size_t>(Batches::COUNT * FanotifyGroup::MAX_BATCH, task->GetQueueCapacity());
    const auto hasRoom = [&task, wanted] { return task->GetQueueDepth() + wanted <= task->GetQueueCapacity(); };
    while (!hasRoom() && Clock::now() < deadline && Pause(ROOM_INTERVAL_MS)) {
    }
}

// False, at once, when the reader is to stop.
bool Watcher::Pause(int milliseconds) const {
    pollfd stop{mStop.GetFd(), POLLIN, 0};
    return poll(&stop, 1, milliseconds) <= 0 && !mStopping.load();
}

// `waiting`: how many events may be read. False when it took none from the kernel's queue; what was read before an
// error counts like all others.
bool Watcher::ReadBatch(std::size_t waiting, FanotifyGroup::Batch& batch) {
    if (const int error = mGroup.Read(waiting, batch); error != 0) {
        moduleLog.Error("file accesses cannot be read: %s", std::string(std::strerror(error)));
        Pause(ERROR_PAUSE_MS);
    }
    return batch.Size() > 0;
}

// No file is held open longer than its access waits to be sent: its file system could not be unmounted.
void Watcher::CloseBatches() {
    mBatches.AwaitAllEmpty();
    for (FanotifyGroup::Batch& batch : mBatches.All()) {
        batch.Clear();
    }
}

// ---- Sender thread, or the reader ------------------------------------------------------------------

void Watcher::SendUntilStopped() {
    pthread_setname_np(pthread_self(), "filenotify_send");
    while (const FanotifyGroup::Batch* const batch = mBatches.AwaitFilled()) {
        Send(*batch);
        mBatches.Emptied();
    }
}

// The files stay open: closing them is the reader's, which has less to do.
void Watcher::Send(const FanotifyGroup::Batch& batch) noexcept {
    mRead.Add(batch.accesses.size() + batch.unreadable);
    CountOverflows(batch.overflows);
    CountDropped(batch.unreadable);
    mScopeOfBatch.clear();
    for (const FileAccess& access : batch.accesses) {
        HandleAccess(access);
    }
    PostAll();
}

void Watcher::HandleAccess(const FileAccess& access) {
    try {
        if (IsIgnored(access.pid)) {
            mOwn.Add();
        } else if (!IsInScope(access.pid)) {
            mUnscoped.Add();
        } else if (!AddToPosts(access)) {
            CountDropped(1);
        }
    } catch (const std::exception&) {
        CountDropped(1);
    }
}

// False for a file that has no path.
bool Watcher::AddToPosts(const FileAccess& access) {
    std::string path = PathOf(access.file);
    if (path.empty()) {
        return false;
    }
    if (!mMessages) {
        mMessages = std::make_shared<std::deque<FileNotifyMessage>>();
    }
    mMessages->emplace_back(access.pid, std::move(path));
    mPosts.emplace_back(mMessages, &mMessages->back());
    return true;
}

// Sends what the batch has come to.
void Watcher::PostAll() {
    auto posts = std::exchange(mPosts, {});
    const std::size_t count = posts.size();
    std::size_t posted = 0;
    try {
        Poco::AutoPtr<Framework::Task> task = FindTask();
        posted = task ? task->EnqueueMsgs(std::move(posts)) : 0;
    } catch (const std::exception&) {
        // Nothing was sent: the queue's own storage is there from the beginning.
        posted = 0;
    }
    mPosted.Add(posted);
    mMessages.reset();
    CountDropped(count - posted);
}

// The path of an open file as this process sees it; empty when it has none that fits. From the folder of
// descriptors, so that the way there is not looked up each time.
std::string Watcher::PathOf(const SDK::FileDescriptor& file) const {
    std::array<char, PATH_MAX + 1> target; // NOLINT(*-member-init): what is used is filled
    const std::string name = std::to_string(file.Get());
    const ssize_t length = readlinkat(mDescriptors.Get(), name.c_str(), target.data(), target.size());
    const bool fits = length > 0 && static_cast<std::size_t>(length) < target.size();
    return fits ? std::string(target.data(), static_cast<std::size_t>(length)) : std::string();
}

// A process of another pid namespace has no number here by which it could be judged.
bool Watcher::IsInScope(int pid) {
    if (pid <= 0) {
        return false;
    }
    const auto [known, isNew] = mScopeOfBatch.try_emplace(pid, false);
    if (isNew) {
        known->second = Framework::Scope::Contains(pid);
    }
    return known->second;
}

bool Watcher::IsIgnored(int pid) const {
    return pid == OwnPid() || mIgnoredPids.count(pid) != 0;
}

Poco::AutoPtr<Framework::Task> Watcher::FindTask() const {
    Poco::AutoPtr<Framework::Task> task = Framework::Engine::FindTask(mTaskName);
    return task && task->GetInstanceId() == mTaskInstance ? task : nullptr;
}

void Watcher::CountDropped(std::size_t count) {
    if (count > 0) {
        mDropped.Add(count);
        mLost.Add(count);
        LogLosses();
    }
}

void Watcher::CountOverflows(std::size_t count) {
    if (count > 0) {
        mOverflows.Add(count);
        mLost.Add(count);
        LogLosses();
    }
}

void Watcher::LogLosses() {
    const auto now = Clock::now();
    if (now - mLossLogged >= LOSS_LOG_INTERVAL) {
        mLossLogged = now;
        moduleLog.Warning("file accesses were lost: so far %?d could not be handed on, and the kernel's queue ran over "
                          "%?d times",
                          mDropped.Get(), mOverflows.Get());
    }
}

} // namespace Engine
