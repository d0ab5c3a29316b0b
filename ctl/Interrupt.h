#pragma once

namespace Ctl {

// From now on Ctrl-C (SIGINT) does not end the program but is remembered; what sleeps wakes up.
void WatchForInterrupt();

// True once that has happened. Any thread.
bool IsInterrupted();

} // namespace Ctl
