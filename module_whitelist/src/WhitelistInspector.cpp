#include "WhitelistInspector.h"

#include <string>

#include "ConfigManager.h"
#include "OperatorTerms.h"
#include "ProcessManager.h"
#include "TrustExplanation.h"
#include "sdk/JsonUtils.h"

namespace Engine {

namespace {

Json::Value MakeError(const std::string& text) {
    Json::Value answer(Json::objectValue);
    answer["error"] = text;
    return answer;
}

Json::Value DescribeStatus() {
    const ConfigManager& config = *ConfigManager::Instance();
    const ProcessManager& manager = *ProcessManager::Instance();
    const std::int64_t mod = config.GetMod();
    Json::Value answer(Json::objectValue);
    answer["mode"] = static_cast<Json::Int64>(mod);
    answer["mode_name"] = GetModName(mod);
    answer["learned_minutes"] = config.GetLearnedTime();
    answer["learn_period_minutes"] = config.GetLearnPeriod();
    Json::Value& lists = answer["lists"];
    lists["local"] = static_cast<Json::UInt64>(manager.CountLocalTrust());
    lists["server"] = static_cast<Json::UInt64>(manager.CountServerTrust());
    lists["os_preset"] = static_cast<Json::UInt64>(manager.CountOsPreset());
    lists["service_preset"] = static_cast<Json::UInt64>(manager.CountServicePreset());
    answer["blocking"] = DescribeBlocking(config.GetDirMod());
    return answer;
}

Json::Value ListPreset(const ProcessManager::PresetMap& preset) {
    Json::Value list(Json::arrayValue);
    for (const auto& [digest, info] : preset) {
        list.append(DescribePresetEntry(info));
    }
    return list;
}

Json::Value ListLocalTrust() {
    Json::Value list(Json::arrayValue);
    for (const auto& [path, info] : ProcessManager::Instance()->CopyLocalTrust()) {
        list.append(DescribeEntry(info));
    }
    return list;
}

Json::Value ListServerTrust() {
    Json::Value list(Json::arrayValue);
    for (const auto& [name, group] : ProcessManager::Instance()->CopyServerTrust()) {
        for (const ProcessInfo& info : group) {
            list.append(DescribeEntry(info));
        }
    }
    return list;
}

Json::Value DescribeTrustList(const std::string& list) {
    Json::Value answer(Json::objectValue);
    if (list == "local") {
        answer["process_info"] = ListLocalTrust();
    } else if (list == "server") {
        answer["process_info"] = ListServerTrust();
    } else if (list == "os") {
        answer["process_info"] = ListPreset(ProcessManager::Instance()->CopyOsPreset());
    } else if (list == "service") {
        answer["process_info"] = ListPreset(ProcessManager::Instance()->CopyServicePreset());
    } else {
        return MakeError("no trust list is called \"" + list + "\": local, server, os or service");
    }
    return answer;
}

Json::Value DescribeVerdict(const std::string& path) {
    ImageExamination image;
    int source = 0;
    Json::Value answer(Json::objectValue);
    answer["trusted"] = ProcessManager::Instance()->VerifyImage(path, image, source);
    answer["path"] = path;
    answer["hash"] = image.digest;
    answer["list"] = GetListName(source);
    return answer;
}

Json::Value Explain(const Json::Value& request) {
    if (request.isMember("pid")) {
        return ExplainProcess(SDK::JsonUtils::GetInt64Value(request, "pid", 0));
    }
    return ExplainFile(SDK::JsonUtils::GetStringValue(request, "path", ""));
}

} // namespace

Json::Value WhitelistInspector::Ask(const Json::Value& request) {
    const std::string query = SDK::JsonUtils::GetStringValue(request, "query", "");
    if (query == "status") {
        return DescribeStatus();
    }
    if (query == "trust_list") {
        return DescribeTrustList(SDK::JsonUtils::GetStringValue(request, "list", ""));
    }
    if (query == "verdict") {
        return DescribeVerdict(SDK::JsonUtils::GetStringValue(request, "path", ""));
    }
    if (query == "explain") {
        return Explain(request);
    }
    return MakeError("the module cannot answer the query \"" + query + "\"");
}

} // namespace Engine
