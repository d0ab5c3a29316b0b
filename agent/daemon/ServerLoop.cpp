#include "agent/daemon/ServerLoop.h"

#include <httplib.h>

namespace Daemon {

void ServerLoop::Start() {
    mThread = std::thread([this] {
        mServer.listen_after_bind();
        mEnded = true;
    });
}

bool ServerLoop::Stop() {
    if (!mThread.joinable()) {
        return false;
    }
    // A server that has not begun to listen cannot be stopped yet.
    while (!mServer.is_running() && !mEnded) {
        std::this_thread::yield();
    }
    mServer.stop();
    mThread.join();
    return true;
}

} // namespace Daemon
