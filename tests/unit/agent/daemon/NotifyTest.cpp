#include "agent/daemon/Notify.h"

#include <cstdlib>

#include <gtest/gtest.h>
#include <unistd.h>

#include "ServiceManager.h"
#include "support/TempRoot.h"

namespace {

using TestSupport::ServiceManager;

TEST(NotifyTest, TheManagerIsToldThroughAFileSocket) {
    const TestSupport::TempDir folder;
    const ServiceManager manager(folder / "notify");

    Daemon::NotifyServiceManager("READY=1");
    EXPECT_EQ(manager.Received(), "READY=1");
}

TEST(NotifyTest, TheManagerIsToldThroughAnAbstractSocket) {
    const ServiceManager manager("@corvalent-notify-test-" + std::to_string(getpid()));

    Daemon::NotifyServiceManager("STOPPING=1");
    EXPECT_EQ(manager.Received(), "STOPPING=1");
}

TEST(NotifyTest, WithoutAManagerNothingHappens) {
    unsetenv("NOTIFY_SOCKET");
    Daemon::NotifyServiceManager("READY=1");

    setenv("NOTIFY_SOCKET", ("/tmp/" + std::string(200, 'x')).c_str(), 1);
    Daemon::NotifyServiceManager("READY=1");

    setenv("NOTIFY_SOCKET", "/nowhere/notify", 1);
    Daemon::NotifyServiceManager("READY=1");
    unsetenv("NOTIFY_SOCKET");
}

} // namespace
