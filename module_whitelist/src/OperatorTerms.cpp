#include "OperatorTerms.h"

#include "ConfigManager.h"
#include "ProcessManager.h"
#include "SpecifiedFileAudit.h"

namespace Engine {

const char* GetModName(std::int64_t mod) {
    switch (mod) {
    case MOD_NONE:
        return "stopped";
    case MOD_LEARN:
        return "learning";
    case MOD_LEARNED:
        return "learned";
    case MOD_DETECT:
        return "detecting";
    default:
        return "unknown";
    }
}

const char* GetListName(int source) {
    switch (source) {
    case ProcessManager::SOURCE_LOCAL:
        return "local";
    case ProcessManager::SOURCE_SERVER:
        return "server";
    case ProcessManager::SOURCE_OS_PRESET:
        return "os";
    case ProcessManager::SOURCE_SERVICE_PRESET:
        return "service";
    default:
        return "none";
    }
}

Json::Value DescribeEntry(const ProcessInfo& info) {
    Json::Value entry(Json::objectValue);
    ProcessManager::Instance()->ProcessInfo2Json(info, entry);
    if (entry["size"] == 0) {
        entry["size"] = static_cast<Json::Int64>(info.size);
    }
    return entry;
}

Json::Value DescribePresetEntry(const PresetProcessInfo& info) {
    Json::Value entry(Json::objectValue);
    entry["filename"] = info.filename;
    entry["sha256"] = info.sha256;
    entry["os"] = info.os;
    entry["version"] = info.version;
    return entry;
}

bool IsBlockingInForce(bool directoryMode) {
    return directoryMode ? SpecifiedFileAudit::IsBlockingInForce() : ProcessManager::Instance()->IsBlockingInForce();
}

Json::Value DescribeBlocking(bool directoryMode) {
    Json::Value blocking(Json::objectValue);
    blocking["policy"] = ConfigManager::Instance()->GetActionBlock() == 1;
    blocking["entries"] = Json::UInt64{ProcessManager::Instance()->CountForBlockingFloor()};
    blocking["floor"] = Json::UInt64{directoryMode ? 0 : ProcessManager::BLOCKING_FLOOR};
    blocking["in_force"] = IsBlockingInForce(directoryMode);
    return blocking;
}

} // namespace Engine
