#include "SpecifiedFileAuditTask.h"

#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ConfigManager.h"
#include "FileAuditTest.h"
#include "modules/FileNotifyMessage.h"
#include "support/WaitFor.h"
#include "unit/module_whitelist/shell/FakeGovernor.h"
#include "unit/module_whitelist/shell/RefusingAllocator.h"

namespace {

// What the framework's part of a task's beginning and end was asked for in this program, and says.
int frameworkInits = 0;
int frameworkUnInits = 0;
bool frameworkResult = true;

} // namespace

bool Framework::Task::Init() {
    ++frameworkInits;
    return frameworkResult;
}

bool Framework::Task::UnInit() {
    ++frameworkUnInits;
    return frameworkResult;
}

namespace AuditTest {

namespace {

using Engine::ConfigManager;
using Engine::FileNotifyMessage;
using Engine::SpecifiedFileAuditTask;
using ShellTest::FakeGovernor;
using ShellTest::Refusing;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using TestSupport::WaitFor;
using TestSupport::WatchRecorder;

const std::string SOURCE = "module_whitelist/src/SpecifiedFileAuditTask";
const std::string STARTED = "specified file audit task START";
constexpr std::size_t SCRATCH_BYTES = 4096;

using Flags = std::vector<int>;

// The eight flags by their place, whatever they are called.
Flags FlagsOf(const WatchRecorder::Request& request) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&request->GetOptions());
    return {bytes, bytes + 8};
}

const Flags ADD_DIRECTORY = {1, 0, 0, 0, 0, 0, 1, 0};
const Flags ADD_MOUNT = {1, 0, 0, 1, 0, 0, 1, 0};
const Flags REMOVE = {0, 0, 0, 0, 0, 1, 1, 0};

class FileAuditTask : public FileAuditTest {
protected:
    FileAuditTask() {
        agent.Start(watcher);
        GivenProcess(NOBODY, "/bin/accessor");
        frameworkInits = 0;
        frameworkUnInits = 0;
        frameworkResult = true;
        log.Clear();
    }

    // Three directories to watch; the set's order is not the policy's.
    void GivenWatched(std::int64_t mode, bool mountMod = false) {
        const std::string inner = MakeDir("b/inner");
        const std::string a = MakeDir("a");
        GivenScope(mode, {.dirs = {files / "b", a}, .mountMod = mountMod});
        watched = {a, files / "b", inner};
    }

    std::vector<std::string> RequestedPaths() const {
        std::vector<std::string> paths;
        for (const auto& request : watcher->Requests()) {
            paths.push_back(request->GetPath());
        }
        return paths;
    }
    std::vector<Flags> RequestedFlags() const {
        std::vector<Flags> flags;
        for (const auto& request : watcher->Requests()) {
            flags.push_back(FlagsOf(request));
        }
        return flags;
    }

    void Send(int pid, const std::string& path) {
        std::shared_ptr<Framework::Message> message = std::make_shared<FileNotifyMessage>(pid, path);
        EXPECT_TRUE(task->EnqueueMsg(message));
    }

    static std::string Accessed(int pid, const std::string& path) {
        return "Process(" + std::to_string(pid) + ") access file:(path:" + path + ")";
    }
    static std::string BadEvent(int pid, const std::string& path) {
        return "MsgData(pid:" + std::to_string(pid) + ",filepath:" + path + ") is error in CheckSensitiveFile";
    }

    bool WaitForStart() {
        return WaitFor([&] { return log.Has(Message::PRIO_INFORMATION, STARTED); });
    }
    bool WaitForLog(Message::Priority priority, const std::string& text) {
        return WaitFor([&] { return log.Has(priority, text); });
    }

    std::vector<std::string> watched;
    Poco::AutoPtr<WatchRecorder> watcher{new WatchRecorder};
    Poco::AutoPtr<SpecifiedFileAuditTask> task{new SpecifiedFileAuditTask};
};

// A program's want of memory for one watch request.
Refusing NoMemoryForARequest() {
    return {Refusing::Form::Throwing, sizeof(Engine::FileNotifyWatchMessage)};
}

} // namespace

// ---- Life ------------------------------------------------------------------------------------------

TEST_F(FileAuditTask, IsWhatTheFrameworkExpects) {
    EXPECT_EQ(task->name(), "specified_file_audit_task");
    EXPECT_EQ(task->GetFeatureName(), "whitelist_feature");
    EXPECT_EQ(static_cast<int>(task->GetCondition().GetTaskType()), 0);
    EXPECT_EQ(task->GetQueueCapacity(), 1024U);
}

TEST_F(FileAuditTask, InitPreparesTheAuditThenTheFrameworksPart) {
    EXPECT_TRUE(task->Init());
    EXPECT_EQ(log.Count(Message::PRIO_DEBUG, "specified file audit task init"), 1);
    EXPECT_EQ(log.Records().size(), 1U);
    EXPECT_EQ(log.Records()[0].file, "SpecifiedFileAuditTask.cpp");
    EXPECT_EQ(frameworkInits, 1);
    EXPECT_THAT(watcher->Requests(), IsEmpty());
}

TEST_F(FileAuditTask, InitFailsWithTheFrameworksPart) {
    frameworkResult = false;
    EXPECT_FALSE(task->Init());
    EXPECT_EQ(frameworkInits, 1);
    EXPECT_EQ(log.CountAt(Message::PRIO_ERROR), 0);
}

TEST_F(FileAuditTask, AnAuditThatCannotBePreparedLeavesTheFrameworksPartOut) {
    {
        const Refusing noScratch(Refusing::Form::NonThrowing, SCRATCH_BYTES);
        EXPECT_FALSE(task->Init());
    }
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "Init FileAudit Failed"), 1);
    EXPECT_EQ(log.Records().size(), 2U);
    EXPECT_EQ(frameworkInits, 0);
}

TEST_F(FileAuditTask, UnInitEndsTheWatchAndLeavesTheModuleStopped) {
    GivenWatched(Engine::MOD_DETECT);
    EXPECT_TRUE(task->UnInit());
    EXPECT_EQ(log.Records().at(0).text, "UnInit specified file audit task");
    EXPECT_EQ(log.Records().at(0).priority, Message::PRIO_DEBUG);
    EXPECT_EQ(log.Records().size(), 1U);
    EXPECT_EQ(RequestedPaths(), watched);
    EXPECT_THAT(RequestedFlags(), Each(REMOVE));
    EXPECT_EQ(ConfigManager::Instance()->GetMod(), Engine::MOD_NONE);
    EXPECT_EQ(root.Read("conf/modwhitelist.ini"), "[Driver]\nLearnTime=1440\nLearnMod=0\n\n");
    EXPECT_EQ(frameworkUnInits, 1);
}

TEST_F(FileAuditTask, UnInitFailsWithTheFrameworksPart) {
    GivenScope(Engine::MOD_DETECT);
    frameworkResult = false;
    EXPECT_FALSE(task->UnInit());
    EXPECT_EQ(frameworkUnInits, 1);
    EXPECT_EQ(log.CountAt(Message::PRIO_ERROR), 0);
}

TEST_F(FileAuditTask, UnInitGoesOnWhereTheWatchCannotBeEnded) {
    GivenWatched(Engine::MOD_DETECT);
    {
        const Refusing refusing = NoMemoryForARequest();
        EXPECT_TRUE(task->UnInit());
    }
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "fanotify add mark error " + watched[0]), 1);
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "remove file notify watch failed"), 1);
    EXPECT_EQ(log.CountAt(Message::PRIO_ERROR), 2);
    EXPECT_EQ(ConfigManager::Instance()->GetMod(), Engine::MOD_NONE);
    EXPECT_EQ(frameworkUnInits, 1);
}

// ---- Watch requests --------------------------------------------------------------------------------

TEST_F(FileAuditTask, AsksForAMarkOnEachDirectoryInTheSetsOrder) {
    GivenWatched(Engine::MOD_LEARN);
    EXPECT_TRUE(task->FileNotifyWatchMark());
    EXPECT_EQ(RequestedPaths(), watched);
    for (const auto& request : watcher->Requests()) {
        EXPECT_EQ(FlagsOf(request), ADD_DIRECTORY);
        EXPECT_THAT(request->GetEventMasks(), ElementsAre(0x20U, 0x2U, 0x40000000U));
        EXPECT_EQ(request->GetWatcherName(), "specified_file_audit_task");
        EXPECT_EQ(request->GetWatcherInstance(), task->GetInstanceId());
        EXPECT_THAT(request->GetOptions().ignoredPids, IsEmpty());
        EXPECT_EQ(request->GetOptions().maxMarks, 0U);
    }
    EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(FileAuditTask, AsksForMarksOnMountsWhereThePolicySaysSo) {
    GivenWatched(Engine::MOD_LEARN, true);
    EXPECT_TRUE(task->FileNotifyWatchMark());
    EXPECT_EQ(RequestedPaths(), watched);
    EXPECT_THAT(RequestedFlags(), Each(ADD_MOUNT));
}

TEST_F(FileAuditTask, AsksForTheEndOfTheSameMarksWhicheverKindTheyAre) {
    for (const bool mountMod : {false, true}) {
        GivenWatched(Engine::MOD_LEARN, mountMod);
        const std::size_t before = watcher->Requests().size();
        EXPECT_TRUE(task->FileNotifyWatchRemove());
        ASSERT_EQ(watcher->Requests().size(), before + watched.size());
        for (std::size_t i = 0; i < watched.size(); ++i) {
            const WatchRecorder::Request request = watcher->Requests()[before + i];
            EXPECT_EQ(request->GetPath(), watched[i]);
            EXPECT_EQ(FlagsOf(request), REMOVE);
            EXPECT_THAT(request->GetEventMasks(), ElementsAre(0x20U, 0x2U, 0x40000000U));
            EXPECT_THAT(request->GetOptions().ignoredPids, IsEmpty());
            EXPECT_EQ(request->GetOptions().maxMarks, 0U);
        }
    }
}

TEST_F(FileAuditTask, WithoutDirectoriesThereIsNothingToAskFor) {
    GivenScope(Engine::MOD_LEARN);
    EXPECT_TRUE(task->FileNotifyWatchMark());
    EXPECT_TRUE(task->FileNotifyWatchRemove());
    EXPECT_THAT(watcher->Requests(), IsEmpty());
    EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(FileAuditTask, ARequestThatCannotBeMadeEndsTheAsking) {
    GivenWatched(Engine::MOD_LEARN);
    {
        const Refusing refusing = NoMemoryForARequest();
        EXPECT_FALSE(task->FileNotifyWatchMark());
        EXPECT_EQ(log.Count(Message::PRIO_ERROR, "fanotify add mark error " + watched[0]), 1);
        EXPECT_FALSE(task->FileNotifyWatchRemove());
        EXPECT_EQ(log.Count(Message::PRIO_ERROR, "fanotify add mark error " + watched[0]), 2);
    }
    EXPECT_EQ(log.CountAt(Message::PRIO_ERROR), 2);
    EXPECT_THAT(watcher->Requests(), IsEmpty());
}

TEST_F(FileAuditTask, WhatBecomesOfARequestIsNotItsConcern) {
    GivenWatched(Engine::MOD_LEARN);
    watcher->RequestStop();
    EXPECT_TRUE(WaitFor([&] { return watcher->state() == Poco::Task::TASK_FINISHED; }));
    EXPECT_TRUE(task->FileNotifyWatchMark());
    EXPECT_TRUE(task->FileNotifyWatchRemove());
    EXPECT_EQ(log.CountAt(Message::PRIO_ERROR), 0);
}

// ---- Running ---------------------------------------------------------------------------------------

TEST_F(FileAuditTask, RunPlacesTheMarksAndEndsWhenItIsCancelled) {
    GivenWatched(Engine::MOD_LEARN);
    task->RequestStop();
    EXPECT_EQ(task->Run(), 0);
    EXPECT_EQ(log.Records().at(0).text, STARTED);
    EXPECT_EQ(log.Records().at(0).priority, Message::PRIO_INFORMATION);
    EXPECT_EQ(RequestedPaths(), watched);
    EXPECT_THAT(RequestedFlags(), Each(ADD_DIRECTORY));
}

TEST_F(FileAuditTask, RunHandlesAccessesUntilItIsCancelled) {
    agent.Start(task);
    EXPECT_TRUE(WaitForStart());
    Send(NOBODY, files / "missing");
    EXPECT_TRUE(WaitForLog(Message::PRIO_ERROR, "Get File [" + (files / "missing") + "] stat Failed , error :2"));
    EXPECT_EQ(task->state(), Poco::Task::TASK_RUNNING);
    task->RequestStop();
    EXPECT_TRUE(WaitFor([&] { return task->state() == Poco::Task::TASK_FINISHED; }));
}

TEST_F(FileAuditTask, AFloodOfAccessesIsHandledWholeAndInOrder) {
    constexpr int FLOOD = 1000;
    std::vector<std::string> expected;
    for (int i = 0; i < FLOOD; ++i) {
        Send(NOBODY, "/missing/" + std::to_string(i));
        expected.push_back(Accessed(NOBODY, "/missing/" + std::to_string(i)));
    }
    agent.Start(task);
    EXPECT_TRUE(WaitForLog(Message::PRIO_DEBUG, expected.back()));
    std::vector<std::string> handled;
    for (const auto& record : log.Records()) {
        if (record.text.starts_with("Process(")) {
            handled.push_back(record.text);
        }
    }
    EXPECT_EQ(handled, expected);
}

TEST_F(FileAuditTask, RunGoesOnWhereTheMarksCannotBeAskedFor) {
    GivenWatched(Engine::MOD_LEARN);
    std::thread thread([this] {
        const Refusing refusing = NoMemoryForARequest();
        EXPECT_EQ(task->Run(), 0);
    });
    EXPECT_TRUE(WaitForLog(Message::PRIO_ERROR, "File Notify Watch Mark Failed"));
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "fanotify add mark error " + watched[0]), 1);
    Send(NOBODY, "/missing");
    EXPECT_TRUE(WaitForLog(Message::PRIO_DEBUG, Accessed(NOBODY, "/missing")));
    task->RequestStop();
    thread.join();
    EXPECT_THAT(watcher->Requests(), IsEmpty());
}

TEST_F(FileAuditTask, APolicyThatComesLaterPlacesNoMarks) {
    GivenScope(Engine::MOD_LEARN);
    agent.Start(task);
    EXPECT_TRUE(WaitForStart());
    Send(NOBODY, "/missing");
    EXPECT_TRUE(WaitForLog(Message::PRIO_DEBUG, Accessed(NOBODY, "/missing")));
    GivenWatched(Engine::MOD_LEARN);
    Send(NOBODY, "/missing/too");
    EXPECT_TRUE(WaitForLog(Message::PRIO_DEBUG, Accessed(NOBODY, "/missing/too")));
    EXPECT_THAT(watcher->Requests(), IsEmpty());
}

// ---- The throttle ----------------------------------------------------------------------------------

TEST_F(FileAuditTask, WithTheGovernorOffNobodyCountsTicks) {
    FakeGovernor::SetTick(1000000);
    agent.Start(task);
    EXPECT_TRUE(WaitForStart());
    Send(NOBODY, "/missing");
    EXPECT_TRUE(WaitForLog(Message::PRIO_DEBUG, Accessed(NOBODY, "/missing")));
    EXPECT_EQ(FakeGovernor::CountReads(), 0U);
    EXPECT_THAT(FakeGovernor::AllAdjustments(), IsEmpty());
}

TEST_F(FileAuditTask, EveryTurnMindsTheGovernor) {
    const auto adjustments = [] {
        std::vector<FakeGovernor::Adjustment> own = FakeGovernor::AllAdjustments();
        std::erase_if(own, [](const auto& made) { return made.file != SOURCE; });
        return own;
    };
    FakeGovernor::Enable(1000);
    FakeGovernor::SetTick(5000);
    agent.Start(task);
    EXPECT_TRUE(WaitFor([&] { return adjustments().size() == 1; }));
    EXPECT_EQ(adjustments()[0].who, "specified_file_audit_task");
    EXPECT_EQ(adjustments()[0].now, 5000U);
    EXPECT_EQ(adjustments()[0].elapsed, 5000U);
    // More turns with no more than the suggestion adjust nothing.
    FakeGovernor::SetTick(6000);
    const unsigned long reads = FakeGovernor::CountReads();
    EXPECT_TRUE(WaitFor([&] { return FakeGovernor::CountReads() >= reads + 2; }));
    EXPECT_EQ(adjustments().size(), 1U);
    FakeGovernor::SetTick(6001);
    EXPECT_TRUE(WaitFor([&] { return adjustments().size() == 2; }));
    EXPECT_EQ(adjustments()[1].elapsed, 1001U);
    EXPECT_EQ(adjustments()[1].line, adjustments()[0].line);
}

// ---- One access ------------------------------------------------------------------------------------

class FileAccess : public FileAuditTask {
protected:
    // The result of the handler for this access.
    int Handle(int pid, const std::string& path) {
        const FileNotifyMessage message(pid, path);
        return task->FileNotifyMessageAction(&message);
    }

    void ExpectRefused(int pid, const std::string& path) {
        log.Clear();
        EXPECT_EQ(Handle(pid, path), -1);
        EXPECT_EQ(log.Count(Message::PRIO_ERROR, BadEvent(pid, path)), 1);
        // The audit would have said that it does not know the process, or the file.
        EXPECT_EQ(log.Records().size(), 1U);
    }
};

TEST_F(FileAccess, IsHandedToTheAudit) {
    const std::string missing = files / "missing";
    EXPECT_EQ(Handle(NOBODY, missing), -1);
    ASSERT_EQ(log.Records().size(), 2U);
    EXPECT_EQ(log.Records()[0].priority, Message::PRIO_DEBUG);
    EXPECT_EQ(log.Records()[0].text, Accessed(NOBODY, missing));
    EXPECT_EQ(log.Records()[1].text, "Get File [" + missing + "] stat Failed , error :2");
    EXPECT_EQ(audit.GetProcessInfo(NOBODY)->fileEventCount, 1U);
}

TEST_F(FileAccess, OfTheFirstProcessIsHandedToTheAudit) {
    GivenProcess(1, "/sbin/init");
    EXPECT_EQ(Handle(1, "/missing"), -1);
    EXPECT_TRUE(log.Has(Message::PRIO_DEBUG, Accessed(1, "/missing")));
    EXPECT_EQ(audit.GetProcessInfo(1)->fileEventCount, 1U);
}

TEST_F(FileAccess, WithoutAMessageIsNone) {
    EXPECT_EQ(task->FileNotifyMessageAction(nullptr), -1);
    EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(FileAccess, WithoutAProcessIsAnError) {
    ExpectRefused(0, "/missing");
    ExpectRefused(-1, "/missing");
}

TEST_F(FileAccess, WithoutAPathIsAnError) {
    ExpectRefused(NOBODY, "");
    EXPECT_EQ(audit.GetProcessInfo(NOBODY)->fileEventCount, 0U);
    ExpectRefused(0, "");
}

} // namespace AuditTest
