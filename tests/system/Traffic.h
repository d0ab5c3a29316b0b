#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/ScopedProcess.h"

namespace SystemTest {

// Programs start one after the other in a control group, over and over, from a thread of its own, for as
// long as this lives. Each is waited for before the next one, `pause` after it.
class Traffic {
public:
    using Commands = std::vector<std::vector<std::string>>;

    Traffic(std::string group, Commands commands, std::chrono::milliseconds pause = std::chrono::milliseconds(0))
        : mThread([this, group = std::move(group), commands = std::move(commands), pause] {
              for (std::size_t i = 0; !mStop; ++i) {
                  TestSupport::ScopedProcess process(group, commands[i % commands.size()]);
                  process.Wait(TestSupport::DEADLINE);
                  ++mCount;
                  std::this_thread::sleep_for(pause);
              }
          }) {}
    ~Traffic() {
        mStop = true;
        mThread.join();
    }
    Traffic(const Traffic&) = delete;
    Traffic& operator=(const Traffic&) = delete;

    int Count() const { return mCount; }

private:
    std::atomic<bool> mStop{false};
    std::atomic<int> mCount{0};
    std::thread mThread;
};

} // namespace SystemTest
