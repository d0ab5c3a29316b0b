#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "TestTasks.h"
#include "framework/Callback.h"
#include "framework/Module.h"
#include "framework/Policy.h"

namespace FrameworkTest {

constexpr const char* POLICY_KEY = "10001";
constexpr const char* COMMAND_KEY = "test_1";

// A task that writes its life into a journal, each entry followed by its label.
class JournalTask : public Framework::Task {
public:
    JournalTask(Journal& journal, const std::string& name, const std::string& label,
                const std::string& feature = "test_feature")
        : Framework::Task(name, feature, Framework::TaskCondition::TaskType::Thread, 16), mJournal(journal),
          mLabel(label) {}
    ~JournalTask() override { mJournal.Add("destroy " + mLabel); }

    bool Init() override {
        mJournal.Add("init " + mLabel);
        if (onInit) {
            onInit();
        }
        return initResult;
    }

    int Run() override {
        mJournal.Add("run " + mLabel + " period " + std::to_string(GetCondition().GetTaskCondition()));
        while (state() != TASK_CANCELLING) {
            GetEventWaiter().WaitAndHandleEvent(ScriptedTask::LONG_MS, 16);
        }
        mJournal.Add("end " + mLabel);
        return 0;
    }

    bool UnInit() override {
        mJournal.Add("uninit " + mLabel);
        if (onUnInit) {
            onUnInit();
        }
        return true;
    }

    bool initResult = true;
    std::function<void()> onInit;
    std::function<void()> onUnInit;

private:
    Journal& mJournal;
    const std::string mLabel;
};

class TestFeaturePolicy : public Framework::FeaturePolicy {
public:
    TestFeaturePolicy(const std::string& hash, bool enabled, Journal* journal = nullptr)
        : Framework::FeaturePolicy("test_feature"), mJournal(journal) {
        SetFeatureHash(hash);
        SetEnabled(enabled);
    }
    ~TestFeaturePolicy() override { Note("destroy policy "); }

    bool Parse(const std::string&) override { return true; }

    void Dispatch(Framework::Policy* superseded) override {
        Note("dispatch policy ");
        Framework::FeaturePolicy::Dispatch(superseded);
    }

private:
    void Note(const std::string& what) {
        if (mJournal != nullptr) {
            mJournal->Add(what + GetFeatureHash());
        }
    }

    Journal* const mJournal;
};

class TestTaskPolicy : public Framework::TaskPolicy {
public:
    using Framework::TaskPolicy::TaskPolicy;
    bool Parse(const std::string& policyJson) override { return ParseCondition(policyJson); }
};

// A module whose callbacks are the test's.
class TestModule : public Framework::Module {
public:
    explicit TestModule(const std::string& name = "test_module") : Framework::Module(name) {}
    ~TestModule() override {
        if (onDestroy) {
            onDestroy();
        }
    }

    int Init() override {
        RegisterPolicyCallback(POLICY_KEY, new Framework::PolicyCallback<TestModule>(this, &TestModule::HandlePolicy));
        RegisterTaskletCallback(COMMAND_KEY,
                                new Framework::TaskletCallback<TestModule>(this, &TestModule::HandleCommand, false));
        Framework::Module::Init();
        return onInit ? onInit() : 0;
    }

    int UnInit() override {
        if (onUnInit) {
            onUnInit();
        }
        return Framework::Module::UnInit();
    }

    // Registers, from within a delivery, a task for each label; the label is the task's name as well.
    void RegisterJournalTasks(Journal& journal, const std::vector<std::string>& labels) {
        for (const std::string& label : labels) {
            RegisterTask(new JournalTask(journal, label, label), false);
        }
    }

    std::function<Framework::Policy*(const std::string& document, Framework::Policy*& current)> onPolicy;
    std::function<int(const std::string& text)> onCommand;
    std::function<int()> onInit;
    std::function<void()> onUnInit;
    std::function<void()> onDestroy;

private:
    Framework::Policy* HandlePolicy(const std::string&, const std::string& document, Framework::Policy*& current) {
        return onPolicy(document, current);
    }
    int HandleCommand(const std::string& text) { return onCommand(text); }
};

} // namespace FrameworkTest
