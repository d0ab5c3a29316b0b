#include <cstring>

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/process_collect/ProcessCollectModule.h"
#include "framework/Engine.h"
#include "modules/ProcsFullTask.h"
#include "support/ChildProcess.h"
#include "support/LogRecorder.h"

using namespace TestSupport;
using Engine::ProcessCollectModule;

namespace {

constexpr int PREPARATION_FAILED = 99;
constexpr int NOT_ONE_ERROR_RECORD = 98;

// The exit status of Init in a copy of the test that gave something up first.
int InitAfter(const std::function<bool()>& giveUp) {
    ChildProcess child = ChildProcess::Fork([&giveUp] {
        if (!giveUp()) {
            _exit(PREPARATION_FAILED);
        }
        const LogRecorder log;
        Poco::AutoPtr<ProcessCollectModule> module(new ProcessCollectModule);
        const int result = module->Init();
        const bool oneRecord = log.CountAt(Poco::Message::PRIO_ERROR) == 1;
        _exit(oneRecord ? result : NOT_ONE_ERROR_RECORD);
    });
    const int status = child.Wait();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool DropNetAdmin() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2];
    if (syscall(SYS_capget, &header, data) != 0) {
        return false;
    }
    data[0].effective &= ~(1U << CAP_NET_ADMIN);
    data[0].permitted &= ~(1U << CAP_NET_ADMIN);
    return syscall(SYS_capset, &header, data) == 0;
}

// Goes on as the first process of a pid namespace of its own; its status is passed on.
bool EnterPidNamespace() {
    if (unshare(CLONE_NEWPID) != 0) {
        return false;
    }
    const pid_t inside = fork();
    if (inside > 0) {
        int status = 0;
        waitpid(inside, &status, 0);
        _exit(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    }
    return inside == 0;
}

class ProcessCollectModuleTest : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root";
        }
    }
};

} // namespace

TEST_F(ProcessCollectModuleTest, InitStartsBothTasksAndUnInitEndsThem) {
    const Framework::Engine engine;
    Poco::AutoPtr<ProcessCollectModule> module(new ProcessCollectModule);
    ASSERT_EQ(module->Init(), 0);
    EXPECT_TRUE(Framework::Engine::FindTask("procs_real_task"));
    {
        Poco::AutoPtr<Framework::Task> full = Framework::Engine::FindTask("procs_full_task");
        ASSERT_TRUE(full);
        const auto* table = dynamic_cast<const Engine::ProcsFullTask*>(full.get());
        ASSERT_NE(table, nullptr);
        EXPECT_TRUE(table->GetProcsMap().contains(getpid()));
    }
    EXPECT_EQ(module->UnInit(), 0);
    EXPECT_FALSE(Framework::Engine::FindTask("procs_real_task"));
    EXPECT_FALSE(Framework::Engine::FindTask("procs_full_task"));
}

TEST_F(ProcessCollectModuleTest, WithoutTheCapabilityInitSaysSoAndReturns77) {
    EXPECT_EQ(InitAfter(DropNetAdmin), 77);
}

TEST_F(ProcessCollectModuleTest, InAnotherNetworkNamespaceInitSaysSoAndReturns77) {
    EXPECT_EQ(InitAfter([] { return unshare(CLONE_NEWNET) == 0; }), 77);
}

TEST_F(ProcessCollectModuleTest, InAnotherPidNamespaceInitSaysSoAndReturns77) {
    EXPECT_EQ(InitAfter(EnterPidNamespace), 77);
}
