#include "agent/filenotify/FileNotifyModule.h"

#include <exception>
#include <string>

#include <sysexits.h>

#include "agent/filenotify/FileNotifyTask.h"
#include "framework/Engine.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

Json::Value Answer(const char* key, Json::Value value) {
    Json::Value answer(Json::objectValue);
    answer[key] = std::move(value);
    return answer;
}

Json::Value DescribeWatchers() {
    const Poco::AutoPtr<FileNotifyTask> task = Framework::Engine::FindTask(FileNotifyTask::NAME).cast<FileNotifyTask>();
    return Answer("watchers", task ? task->DescribeWatchers() : Json::Value(Json::arrayValue));
}

} // namespace

FileNotifyModule::FileNotifyModule() : Framework::Module(NAME) {}

int FileNotifyModule::Init() {
    if (const int result = Framework::Module::Init(); result != 0) {
        return result;
    }
    return RegisterTask(new FileNotifyTask, true) ? 0 : EX_SOFTWARE;
}

Json::Value FileNotifyInspector::Ask(const Json::Value& request) {
    try {
        const std::string query = SDK::JsonUtils::GetStringValue(request, "query", "");
        return query == "status" ? DescribeWatchers() : Answer("error", "unknown query [" + query + "]");
    } catch (const std::exception& error) {
        return Answer("error", error.what());
    }
}

} // namespace Engine

extern "C" __attribute__((visibility("default"))) Framework::Module* CreateModule() {
    return new Engine::FileNotifyModule;
}

extern "C" __attribute__((visibility("default"))) Framework::ModuleInspector* CreateModuleInspector() {
    return new Engine::FileNotifyInspector;
}
