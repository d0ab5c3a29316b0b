#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "framework/Module.h"
#include "framework/ModuleInspector.h"
#include "framework/Policy.h"
#include "sdk/JsonUtils.h"
#include "sdk/ModuleLog.h"

namespace TestSupport {

// What a fake whitelist module is in, seen and steered by the test.
struct FakeWhitelistState {
    std::atomic<int> mode{1};
    // The mode in which a reset of learning ends.
    std::atomic<int> modeAfterReset{1};
    std::atomic<bool> answers{true};
    // While set, whoever asks gets no answer at all.
    std::atomic<bool> hangs{false};
    // How many have been kept waiting so.
    std::atomic<int> held{0};
    // While set, no command comes to an end.
    std::atomic<bool> commandHangs{false};
    // How long a command lasts.
    std::atomic<int> commandMs{0};

    void Note(const std::string& call) {
        const std::lock_guard<std::mutex> lock(mMutex);
        mCalls.push_back(call);
    }
    // Policies and commands in the order in which they came: "policy", "10001 TEXT", "10004", "10005".
    std::vector<std::string> Calls() const {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mCalls;
    }

private:
    mutable std::mutex mMutex;
    std::vector<std::string> mCalls;
};

using FakeWhitelistStatePtr = std::shared_ptr<FakeWhitelistState>;

class FakeFeaturePolicy : public Framework::FeaturePolicy {
public:
    using Framework::FeaturePolicy::FeaturePolicy;
    bool Parse(const std::string&) override { return true; }
};

// Behaves towards the daemon as the real module does: the same name, keys and refusals, but its modes
// are the test's to set.
class FakeWhitelist : public Framework::Module {
public:
    explicit FakeWhitelist(FakeWhitelistStatePtr state)
        : Framework::Module("whitelist_module"), mState(std::move(state)) {}

    int Init() override {
        using Command = Framework::TaskletCallback<FakeWhitelist>;
        RegisterTaskletCallback("whitelist_10001", new Command(this, &FakeWhitelist::TakeServerList, false));
        RegisterTaskletCallback("whitelist_10004", new Command(this, &FakeWhitelist::ResetLearning, false));
        RegisterTaskletCallback("whitelist_10005", new Command(this, &FakeWhitelist::StartDetect, false));
        RegisterPolicyCallback(
            "10001", new Framework::PolicyCallback<FakeWhitelist>(this, &FakeWhitelist::RefreshFeaturePolicy));
        return Framework::Module::Init();
    }

private:
    int TakeServerList(const std::string& text) {
        mState->Note("10001 " + text);
        Poco::Thread::sleep(mState->commandMs);
        mState->commandHangs.wait(true);
        return text.empty() ? -1 : 0;
    }

    int ResetLearning(const std::string&) {
        mState->Note("10004");
        mState->mode = mState->modeAfterReset.load();
        return 0;
    }

    int StartDetect(const std::string&) {
        mState->Note("10005");
        if (mState->mode == 2) {
            mState->mode = 3;
            return 0;
        }
        static SDK::ModuleLog moduleLog("module_whitelist");
        moduleLog.Error("Can not switch mod to detect,maybe not learn compelete, current mod is [%ld]",
                        static_cast<long>(mState->mode));
        return 0;
    }

    Framework::Policy* RefreshFeaturePolicy(const std::string&, const std::string& text, Framework::Policy*&) {
        static SDK::ModuleLog moduleLog("module_whitelist");
        mState->Note("policy");
        Json::Value document;
        if (SDK::JsonUtils::ParseJsonStr(text, document) != 0) {
            moduleLog.Error("Parse Policy Failed");
            return nullptr;
        }
        auto* policy = new FakeFeaturePolicy("whitelist_feature");
        policy->SetFeatureHash(SDK::JsonUtils::GetStringValue(document, "feature_hash", ""));
        policy->SetEnabled(SDK::JsonUtils::GetStringValue(document, "enabled", "") == "enabled");
        return policy;
    }

    const FakeWhitelistStatePtr mState;
};

class FakeWhitelistInspector : public Framework::ModuleInspector {
public:
    explicit FakeWhitelistInspector(FakeWhitelistStatePtr state) : mState(std::move(state)) {}

    Json::Value Ask(const Json::Value& request) override {
        mState->held += mState->hangs ? 1 : 0;
        mState->hangs.wait(true);
        Json::Value answer(Json::objectValue);
        if (!mState->answers) {
            answer["error"] = "not now";
        } else if (request["query"] == "status") {
            answer["mode"] = mState->mode.load();
            answer["mode_name"] = mState->mode == 3 ? "detecting" : "other";
            answer["learned_minutes"] = 17;
            answer["learn_period_minutes"] = 10080;
            for (const char* list : {"local", "server", "os_preset", "service_preset"}) {
                answer["lists"][list] = 5;
            }
            answer["blocking"]["policy"] = true;
            answer["blocking"]["entries"] = 20;
            answer["blocking"]["floor"] = 50;
            answer["blocking"]["in_force"] = false;
        } else if (request["query"] == "trust_list") {
            answer["process_info"] = Json::Value(Json::arrayValue);
            answer["process_info"].append(MakeEntry(request["list"].asString()));
        } else if (request["query"] == "explain") {
            answer = Explain(request);
        } else {
            answer["error"] = "unknown query";
        }
        return answer;
    }

private:
    // An untrusted program that the local list knows with another digest.
    static Json::Value Explain(const Json::Value& request) {
        Json::Value answer;
        answer["pid"] = request["pid"];
        answer["file"] = request["path"];
        answer["image"] = "/opt/\x1b[31mtool";
        answer["kind"] = "image";
        answer["type"] = 1;
        answer["directory_mode"] = false;
        for (const char* list : {"local", "server", "os", "service"}) {
            Json::Value& opinion = answer["lists"].append(Json::Value());
            opinion["list"] = list;
            opinion["vouches"] = false;
            opinion["reason"] = "other_digest";
            opinion["entry"] = MakeEntry(list);
        }
        answer["verdict"]["outcome"] = "untrusted";
        answer["verdict"]["action"] = "report";
        answer["blocking"]["policy"] = true;
        answer["blocking"]["entries"] = 7;
        answer["blocking"]["floor"] = 50;
        answer["notes"].append("one\nnote");
        return answer;
    }

    static Json::Value MakeEntry(const std::string& list) {
        Json::Value entry(Json::objectValue);
        if (list == "os" || list == "service") {
            entry["filename"] = "preset-of-" + list;
            entry["sha256"] = std::string(64, 'b');
            entry["os"] = "Debian";
            entry["version"] = "12";
            return entry;
        }
        entry["name"] = "tool";
        entry["path"] = "/usr/bin/" + list + "\ntool";
        entry["hash"] = std::string(64, 'a');
        entry["size"] = 4711;
        entry["type"] = 1;
        return entry;
    }

    const FakeWhitelistStatePtr mState;
};

} // namespace TestSupport
