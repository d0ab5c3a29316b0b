#include "ProcessManager.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <new>
#include <thread>
#include <utility>

#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <Poco/Format.h>

#include "ConfigManager.h"
#include "ImageDigests.h"
#include "JudgedImage.h"
#include "RowCopies.h"
#include "framework/Engine.h"
#include "framework/Message.h"
#include "modules/IsolateTask.h"
#include "modules/ProcsFullTask.h"
#include "sdk/CpuThrottle.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/ExecuteCmdUtils.h"
#include "sdk/FileUtils.h"
#include "sdk/HttpUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/ModuleLog.h"
#include "sdk/PathUtils.h"
#include "sdk/ProcessUtils.h"
#include "sdk/StrUtils.h"
#include "sdk/TimeUtils.h"
#include "utils/Constants.h"
#include "utils/ElfSections.h"
#include "utils/ListDocument.h"
#include "utils/ProcessUtils.h"
#include "utils/StateFiles.h"
#include "utils/UnloadedFile.h"

namespace Engine {

namespace {

SDK::ModuleLog moduleLog(LOGGER_NAME);
SDK::CpuThrottle throttle("module_whitelist/src/ProcessManager", MODULE_NAME);

using utils::list_document::Shape;

constexpr const char* LOCAL_TRUST_FILE = "conf/whitelist.data";
constexpr const char* SERVER_TRUST_FILE = "conf/arsserverproc.data";

constexpr std::size_t HEADER_BUFFER_BYTES = 4096;
constexpr std::size_t SHA256_CHARACTERS = 64;
constexpr int HTTP_OK = 200;

// The section that the prelink tool adds: SHT_GNU_LIBLIST of <elf.h>.
constexpr std::uint32_t PRELINK_SECTION_TYPE = 0x6ffffff7;
constexpr std::size_t PRELINK_OUTPUT_BYTES = 4096;

constexpr const char* SHELLS_FILE = "/etc/shells";
constexpr std::size_t LINE_BYTES = 4096;
constexpr const char* PYTHON = "python";

// What remains for an image that is taken out of circulation: its owner may read it.
constexpr mode_t ISOLATED_MODE = 0400;

// How many entries of the local list are read while its lock is held.
constexpr std::size_t PORTION_ENTRIES = 256;

// Reports of one text sent in a row: how much of it may wait for the receiver, and how long that is looked to.
constexpr std::size_t MAX_WAITING_BYTES = 33554432;
constexpr std::chrono::seconds MAX_WAIT_FOR_RECEIVER{5};
constexpr std::chrono::milliseconds RECEIVER_LOOK_INTERVAL{1};

constexpr int INIT_PID = 1;
// In place of a parent: the record speaks of an exit.
constexpr int EXIT_PARENT = -1;

const char* ToText(bool value) {
    return value ? "true" : "false";
}

Poco::AutoPtr<ProcsFullTask> FindProcsFullTask() {
    return Framework::Engine::FindTask(PROCS_FULL_TASK).cast<ProcsFullTask>();
}

// What need not be held to be judged. An interpreter has to be: its script is looked for, too.
std::optional<std::string> FindKnownDigest(ProcessInfo& info, const ImageDigests& digests,
                                           const std::vector<std::string>& interpreters) {
    return AntiransonwareProcessUtils::IsInterpreterProcess(info, interpreters)
               ? std::nullopt
               : digests.FindRunning(info.pid, info.path);
}

ProcessInfo RecordOf(const ProcsMessage::procInfo& process) {
    ProcessInfo info(process.pid);
    info.ppid = process.ppid;
    info.path = process.path;
    info.name = process.name;
    info.cmdline = process.cmdline;
    return info;
}

void LogUntrusted(const std::string& path) {
    moduleLog.Information("process [%s] [%s] is not in white hash list", SDK::PathUtils::GetFileNameFromPath(path),
                          path);
}

void LogIsolation(const std::string& path, const std::optional<Isolation>& isolation) {
    if (!isolation) {
        moduleLog.Error("get isolate ptr failed");
        return;
    }
    moduleLog.Information("isolate file [%s] ret :%s kill :%s chmod :%s", path, ToText(isolation->done),
                          ToText(isolation->killed), ToText(isolation->unexecutable));
}

// Only of a file that there is.
void LogUnopened(const char* path) {
    char resolved[PATH_MAX + 1] = {};
    if (realpath(path, resolved) != nullptr) {
        moduleLog.Trace("open file failed.");
    }
}

// The list says of a record what its entry of that path says.
ListOpinion OnLocalEntry(const std::optional<ProcessInfo>& entry, ProcessInfo& info) {
    if (!entry) {
        return {};
    }
    if (info.type != MATCH_PATH) {
        AntiransonwareProcessUtils::RetrieveProcessDetailInfo(info);
    }
    return list_opinion::OnRecord(*entry, info);
}

std::vector<ProcessInfo> Expand(const TrustGroup& group) {
    std::vector<ProcessInfo> entries;
    entries.reserve(group.size());
    std::transform(group.begin(), group.end(), std::back_inserter(entries),
                   [](const TrustRecord& record) { return record.Expand(); });
    return entries;
}

// Of a file that the module never writes: it stays as it is.
void TellUnloaded(const std::string& path, const char* list) {
    const std::string reason = utils::unloaded_file::ExplainList(path);
    if (!reason.empty()) {
        moduleLog.Error("[%s] is not loaded, there is no %s list: %s", path, list, reason);
    }
}

// What `store` says; false, logged, when it throws.
template <typename Store> bool StoredWithoutThrowing(const Store& store) {
    try {
        return store();
    } catch (const std::exception& error) {
        moduleLog.Error("the local list was not stored: %s", error.what());
        return false;
    }
}

// How many reports nobody has taken yet.
std::size_t WaitingReports() {
    const Poco::AutoPtr<Framework::Task> receiver = Framework::Engine::FindTask(REPORT_TASK);
    return receiver ? receiver->GetQueueDepth() : 0;
}

// Creates the file empty unless it is there.
void EnsureFile(const std::string& path) {
    if (!SDK::FileUtils::IsFile(path)) {
        SDK::FileUtils::WriteFile(path, "", false);
    }
}

} // namespace

ProcessManager* ProcessManager::Instance() {
    static ProcessManager mObj;
    return &mObj;
}

// ---- Life ------------------------------------------------------------------------------------------

bool ProcessManager::Init(void* task) {
    if (task == nullptr) {
        return false;
    }
    {
        const SDK::WriteGuard guard(reportTaskLock);
        reportTask = static_cast<Framework::Task*>(task);
    }
    const std::string root = SDK::PathUtils::GetInstallationPath();
    if (root.empty()) {
        return false;
    }
    localTrustFile = root + LOCAL_TRUST_FILE;
    serverTrustFile = root + SERVER_TRUST_FILE;
    osPresetFile = root + OS_PRESET_FILE;
    servicePresetFile = root + SERVICE_PRESET_FILE;
    EnsureFile(localTrustFile);
    EnsureFile(serverTrustFile);
    headerBuffer.reset(new (std::nothrow) char[HEADER_BUFFER_BYTES]());
    return headerBuffer != nullptr;
}

void ProcessManager::Deinit() {
    headerBuffer.reset();
}

void ProcessManager::ForgetTask(const Framework::Task* task) {
    const SDK::WriteGuard guard(reportTaskLock);
    if (reportTask == task) {
        reportTask = nullptr;
    }
}

bool ProcessManager::Onstart() {
    GetInterpreterName();
    const bool learning = ConfigManager::Instance()->GetMod() == MOD_LEARN;
    ReloadLocalTrust();
    ReloadServerTrust();
    if (SDK::FileUtils::IsFile(servicePresetFile) &&
        !LoadPresetProcInfoFromFile(servicePresetFile, ServicePresetMap())) {
        TellUnloaded(servicePresetFile, "service preset");
    }
    if (SDK::FileUtils::IsFile(osPresetFile) && !LoadPresetProcInfoFromFile(osPresetFile, OsPresetMap())) {
        TellUnloaded(osPresetFile, "OS preset");
    }
    InitTrustProcess();
    if (learning) {
        // Last, so that the processes found running do not count as new.
        persistedCount.store(CountLocalTrust());
    }
    // Loading takes more memory than the lists do; the rest goes back.
    malloc_trim(0);
    return true;
}

void ProcessManager::Onstop() {
    if (ConfigManager::Instance()->GetMod() == MOD_LEARN) {
        HandleLearnProcessData();
    }
}

void ProcessManager::BeginBackgroundStoring() {
    const SDK::WriteGuard guard(storingLock);
    try {
        storing = std::make_unique<utils::BackgroundWork>(
            [this](std::size_t adoptions) {
                return StoredWithoutThrowing([&] { return PersistLocalTrust(adoptions); });
            },
            [this] { return StoredWithoutThrowing([this] { return StoreLocalTrustAgain(); }); });
    } catch (const std::exception& error) {
        moduleLog.Warning("the local list is not stored in the background: %s", error.what());
    }
}

void ProcessManager::EndBackgroundStoring() {
    std::unique_ptr<utils::BackgroundWork> ending;
    const SDK::WriteGuard guard(storingLock);
    ending.swap(storing);
}

// ---- Process record as JSON ------------------------------------------------------------------------

bool ProcessManager::Json2ProcessInfo(ProcessInfo& info, const Json::Value& obj) const {
    const auto readAll = [&] {
        info.path = SDK::JsonUtils::GetStringValue(obj, "path", "");
        if (info.path.empty()) {
            return false;
        }
        info.name = SDK::JsonUtils::GetStringValue(obj, "name", "");
        if (info.name.empty()) {
            return false;
        }
        info.size = SDK::JsonUtils::GetInt64Value(obj, "size", 0);
        if (info.size == 0) {
            return false;
        }
        info.hash = SDK::JsonUtils::GetStringValue(obj, "hash", "");
        if (info.hash.empty()) {
            return false;
        }
        info.type = SDK::JsonUtils::GetIntValue(obj, "type", 0);
        return true;
    };
    const bool complete = readAll();
    if (info.type == MATCH_UNSET && !info.hash.empty()) {
        info.type = MATCH_HASH;
    }
    return complete;
}

void ProcessManager::ProcessInfo2Json(const ProcessInfo& info, Json::Value& obj) const {
    std::int64_t size = 0;
    SDK::FileUtils::GetFileSize(info.path, size);
    obj["name"] = info.name;
    obj["path"] = info.path;
    obj["hash"] = info.hash;
    obj["size"] = static_cast<Json::Int64>(size);
    obj["type"] = info.type;
}

// ---- Trust stores ----------------------------------------------------------------------------------

bool ProcessManager::ReadLocalTrust(TrustRecordSet& entries) const {
    std::string text;
    if (SDK::FileUtils::ReadFile(localTrustFile, text, MAX_FILE_BYTES) != 0 || text.empty()) {
        moduleLog.Error("InitLocalProcessFromFile read file error");
        return false;
    }
    return ParseLocalTrust(text, entries);
}

bool ProcessManager::ParseLocalTrust(const std::string& text, TrustRecordSet& entries) const {
    moduleLog.Debug("Process Info json is [%s]", text);
    const Shape shape = utils::list_document::Read(text.data(), text.size(), [&](const Json::Value& element) {
        throttle.Check();
        ProcessInfo info;
        if (Json2ProcessInfo(info, element)) {
            // Lists are stored in the order of the set.
            entries.emplace_hint(entries.end(), info);
        }
    });
    if (shape != Shape::List) {
        // Entries before the damage are no list.
        entries.clear();
        moduleLog.Error("ParseProcData failed.");
        return false;
    }
    return true;
}

void ProcessManager::MergeIntoLocalTrust(TrustRecordSet entries) {
    const SDK::WriteGuard guard(localTrustLock);
    if (localTrustMap.empty()) {
        localTrustMap.swap(entries);
    } else {
        // Keeps what is there: set::merge moves over only what has no equal.
        localTrustMap.merge(entries);
    }
}

// Replaces the list in one step: a program that is judged meanwhile finds the old list or the new
// one, never an empty one.
void ProcessManager::ReloadLocalTrust() {
    TrustRecordSet entries;
    if (!ReadLocalTrust(entries)) {
        KeepUnloadedLocalTrust();
    }
    const SDK::WriteGuard guard(localTrustLock);
    localTrustMap.swap(entries);
    ++localTrustGeneration;
    localLoaded.store(true);
}

// While it learns the agent replaces the file; whatever can be rescued from it is to be rescued.
void ProcessManager::KeepUnloadedLocalTrust() const {
    const std::string reason = utils::unloaded_file::ExplainList(localTrustFile);
    if (!reason.empty()) {
        moduleLog.Error("[%s] is not loaded, the local list begins empty: %s; %s", localTrustFile, reason,
                        utils::unloaded_file::Keep(localTrustFile));
    }
}

bool ProcessManager::InitLocalProcessFromFile() {
    TrustRecordSet entries;
    if (!ReadLocalTrust(entries)) {
        return false;
    }
    MergeIntoLocalTrust(std::move(entries));
    localLoaded.store(true);
    return true;
}

bool ProcessManager::ParseJsonProcessInfo(const char* data, std::size_t len) {
    TrustRecordSet entries;
    if (!ParseLocalTrust(std::string(data, len), entries)) {
        return false;
    }
    MergeIntoLocalTrust(std::move(entries));
    return true;
}

bool ProcessManager::PersistencyLocalProcess() {
    return PersistLocalTrust(1);
}

bool ProcessManager::PersistLocalTrust(std::size_t adoptions) {
    const std::lock_guard<std::mutex> writing(persistLock);
    std::int64_t sizeOnDisk = 0;
    if (!localLoaded.load() && SDK::FileUtils::GetFileSize(localTrustFile, sizeOnDisk) == 0 && sizeOnDisk > 0) {
        // The engine has not started yet: what is in memory knows nothing of what was learned before.
        return false;
    }
    isStoreDue = true;
    const std::string text = LocalTrustToText();
    const bool isReported = ConfigManager::Instance()->GetDirMod() && !text.empty();
    if (isReported) {
        SendReport(REPORT_FULL_LIST, text);
    }
    const bool stored = StoreLocalTrust(text);
    if (isReported) {
        SendReportAgain(REPORT_FULL_LIST, text, adoptions - 1);
    }
    return stored;
}

// The operator hears of it when storing begins to fail and when it works again, not each time; and of a file
// that the next start will not load while there is time to do something.
bool ProcessManager::StoreLocalTrust(const std::string& text) {
    const int error = SDK::FileUtils::WriteFile(localTrustFile, text, false);
    const bool failed = error != 0;
    if (failed && !storingFailed) {
        moduleLog.Error("the local list cannot be stored in [%s] and is kept in memory, next try soon: %s",
                        localTrustFile, std::strerror(error));
    } else if (!failed && storingFailed) {
        moduleLog.Notice("the local list is stored again in [%s]", localTrustFile);
    }
    storingFailed = failed;
    isStoreDue = failed;
    const bool tooLarge = text.size() > MAX_FILE_BYTES;
    if (tooLarge && !tooLargeTold) {
        moduleLog.Error("the local list takes %z bytes in [%s], beyond the %?d that are read: it will not be loaded by "
                        "the next start; move programs to a preset list",
                        text.size(), localTrustFile, MAX_FILE_BYTES);
    }
    tooLargeTold = tooLarge;
    return !failed;
}

bool ProcessManager::StoreLocalTrustAgain() {
    const std::lock_guard<std::mutex> writing(persistLock);
    return !isStoreDue || StoreLocalTrust(LocalTrustToText());
}

// Reads what follows the portion, from the beginning when there is none yet or the list has been replaced.
// False at the end.
bool ProcessManager::ReadOnLocalTrust(LocalTrustPortion& portion) const {
    const std::string lastPath = portion.entries.empty() ? std::string() : portion.entries.back().path;
    portion.entries.clear();
    const SDK::ReadGuard guard(localTrustLock);
    portion.first = portion.generation != localTrustGeneration;
    portion.generation = localTrustGeneration;
    auto next = portion.first ? localTrustMap.begin() : localTrustMap.upper_bound(lastPath);
    for (; next != localTrustMap.end() && portion.entries.size() < PORTION_ENTRIES; ++next) {
        portion.entries.push_back(next->Expand());
    }
    return portion.first || !portion.entries.empty();
}

std::string ProcessManager::LocalTrustToText() const {
    utils::list_document::ListWriter document;
    LocalTrustPortion portion;
    while (ReadOnLocalTrust(portion)) {
        if (portion.first) {
            document = {};
        }
        Json::Value list(Json::arrayValue);
        for (const ProcessInfo& info : portion.entries) {
            throttle.Check();
            ProcessInfo2Json(info, list.append(Json::Value(Json::objectValue)));
        }
        document.Append(list);
    }
    return document.Finish();
}

bool ProcessManager::HandleLearnProcessData() {
    const std::size_t count = CountLocalTrust();
    if (count != 0 && count != persistedCount.load()) {
        if (PersistencyLocalProcess()) {
            persistedCount.store(count);
        }
    } else {
        moduleLog.Debug("no need to persistence");
    }
    return true;
}

bool ProcessManager::ReadServerTrustFile(std::string& text) const {
    if (SDK::FileUtils::ReadFile(serverTrustFile, text, MAX_FILE_BYTES) != 0) {
        moduleLog.Error("InitServerProcessFromFile read file failed");
        return false;
    }
    return true;
}

bool ProcessManager::InitServerProcessFromFile() {
    std::string text;
    if (!ReadServerTrustFile(text)) {
        return false;
    }
    SyncServerTrustProcess(text.data(), text.size());
    return true;
}

// A start forgets the list in memory, but only for the one on disk: the swap is one step.
void ProcessManager::ReloadServerTrust() {
    std::string text;
    if (!ReadServerTrustFile(text) || !ReplaceServerTrust(text.data(), text.size())) {
        TellUnloaded(serverTrustFile, "server");
        const SDK::WriteGuard guard(serverTrustLock);
        serverTrustMap.clear();
    }
}

void ProcessManager::SyncServerTrustProcess(const char* data, std::size_t len) {
    ReplaceServerTrust(data, len);
}

// False when the document is none: the list is as it was when it cannot be parsed, else empty.
bool ProcessManager::ReplaceServerTrust(const char* data, std::size_t len) {
    std::map<std::string, TrustGroup> groups;
    const Shape shape = utils::list_document::Read(data, len, [&](const Json::Value& element) {
        throttle.Check();
        ProcessInfo info;
        if (Json2ProcessInfo(info, element)) {
            groups[info.name].emplace_back(info);
        }
    });
    if (shape == Shape::NotJson) {
        moduleLog.Error("parse json of sync service trust process failed");
        return false;
    }
    if (shape == Shape::NoList) {
        moduleLog.Error("sync service trust process json is no expect");
    }
    const SDK::WriteGuard guard(serverTrustLock);
    serverTrustMap.swap(groups);
    return shape == Shape::List;
}

bool ProcessManager::PersistencyServerProcess(const char* data, std::size_t len) {
    if (SDK::FileUtils::WriteFile(serverTrustFile, data, len, false) != 0) {
        moduleLog.Error("Persistency Server Process Failed");
        return false;
    }
    return true;
}

bool ProcessManager::SyncOsPresetProcess(const char* data, std::size_t len) {
    return data != nullptr && ParsePresetProcMapFromFile(std::string(data, len).c_str(), osPresetFile, OsPresetMap());
}

bool ProcessManager::SyncServicePresetProcess(const char* data, std::size_t len) {
    return data != nullptr &&
           ParsePresetProcMapFromFile(std::string(data, len).c_str(), servicePresetFile, ServicePresetMap());
}

bool ProcessManager::ParsePresetProcMapFromFile(const char* doc, const std::string& file, PresetMap& preset) {
    return DownloadFileFromPolicy(doc, file) && LoadPresetProcInfoFromFile(file, preset);
}

bool ProcessManager::DownloadFileFromPolicy(const char* doc, const std::string& file) {
    Json::Value command;
    if (doc == nullptr || SDK::JsonUtils::ParseJsonStr(doc, command) != 0) {
        return false;
    }
    const std::string url = SDK::JsonUtils::GetStringValue(command, "url", "");
    const std::string hash = SDK::JsonUtils::GetStringValue(command, "hash", "");
    if (url.empty() || hash.size() != SHA256_CHARACTERS) {
        return false;
    }
    if (CheckFileHash(file, hash)) {
        moduleLog.Information("no need to reload [%s]", file);
        return true;
    }
    const int result = SDK::HttpUtils::GetInstance()->Download(url, hash, file, "", "");
    if (result != HTTP_OK) {
        moduleLog.Error("download failed. [%s] [%s] [%d]", url, file, result);
        return false;
    }
    return true;
}

bool ProcessManager::CheckFileHash(const std::string& file, const std::string& sha256) {
    if (!SDK::FileUtils::IsFile(file)) {
        return false;
    }
    std::string digest;
    if (SDK::FileUtils::GetFileSha256(file, digest, MAX_FILE_BYTES) != 0) {
        moduleLog.Error("Get file [%s] hash failed", file);
        return false;
    }
    if (digest != sha256) {
        moduleLog.Information("expect has [%s] real [%s]", sha256, digest);
        return false;
    }
    return true;
}

bool ProcessManager::LoadPresetProcInfoFromFile(const std::string& file, PresetMap& preset) {
    std::string text;
    if (SDK::FileUtils::ReadFile(file, text, MAX_FILE_BYTES) != 0 || text.empty()) {
        moduleLog.Error("Read file [%s] failed or empty", file);
        return false;
    }
    PresetMap entries;
    const Shape shape = utils::list_document::Read(text.data(), text.size(), [&](const Json::Value& element) {
        throttle.Check();
        PresetProcessInfo info;
        info.filename = SDK::JsonUtils::GetStringValue(element, "filename", "");
        info.sha256 = SDK::JsonUtils::GetStringValue(element, "sha256", "");
        info.os = SDK::JsonUtils::GetStringValue(element, "os", "");
        info.version = SDK::JsonUtils::GetStringValue(element, "version", "");
        entries.emplace(info.sha256, info);
    });
    if (shape == Shape::NotJson) {
        moduleLog.Error("parse preset json failed");
        return false;
    }
    if (shape == Shape::NoList) {
        moduleLog.Error("preset json is not expect");
    }
    const SDK::WriteGuard guard(presetLock);
    preset.swap(entries);
    return shape == Shape::List;
}

bool ProcessManager::ParseProcessArrayPolicy(const Json::Value& root, const char* key,
                                             std::map<std::string, ProcessInfo>& byName) {
    Json::Value list;
    if (!utils::list_document::TakeList(root, key, list)) {
        return false;
    }
    for (const Json::Value& element : list) {
        throttle.Check();
        ProcessInfo info;
        if (Json2ProcessInfo(info, element) && !byName.emplace(info.name, info).second) {
            moduleLog.Error("Confilct Trust Process Name %s", info);
        }
    }
    return true;
}

bool ProcessManager::InitTrustProcess() {
    const Poco::AutoPtr<ProcsFullTask> table = FindProcsFullTask();
    const ProcsFullTask::ProcsMap processes = table ? table->GetProcsMap() : ProcsFullTask::ProcsMap();
    moduleLog.Trace("ProcsMap size [%z]", processes.size());
    if (processes.size() > MAX_RUNNING_PROCESSES) {
        SendModRunErrorMessage("Too Many Running Proc");
        moduleLog.Error("Module Cann't Start, due to process id size %d", static_cast<int>(processes.size()));
        return false;
    }
    ImageDigests digests;
    DigestsAhead ahead(processes, digests);
    const std::vector<std::string> interpreters = GetInterpreterNames();
    for (const auto& [pid, process] : processes) {
        throttle.Check();
        ahead.Pass(pid);
        ProcessInfo info = RecordOf(process);
        const std::optional<std::string> known = FindKnownDigest(info, digests, interpreters);
        const auto image = known ? std::optional<SDK::ProcessImage>() : HoldImageOfRow(pid);
        info.hash = known ? *known : digests.Of(info.path);
        if (!info.hash.empty()) {
            ConsiderRunningProcess(std::move(info), interpreters);
        }
    }
    return true;
}

void ProcessManager::ConsiderRunningProcess(ProcessInfo info, const std::vector<std::string>& interpreters) {
    AntiransonwareProcessUtils::CheckInterpreterProcess(info, interpreters);
    if (ConfigManager::Instance()->GetDirMod()) {
        info.trusted = IsTrustProcess(info);
        const SDK::WriteGuard guard(allProcessLock);
        const auto [row, isNew] = allProcessMap.emplace(info.pid, info);
        row->second.trusted = info.trusted;
    } else if (ConfigManager::Instance()->GetMod() == MOD_LEARN) {
        UpdateLocalProcessInfo(info);
    }
}

// ---- Trust decision --------------------------------------------------------------------------------

bool ProcessManager::IsTrustProcess(ProcessInfo& info) {
    for (const TrustSource list : LIST_ORDER) {
        if (AskList(list, info).Vouches()) {
            if (list != SOURCE_LOCAL) {
                Adopt(info);
            }
            return true;
        }
    }
    return false;
}

void ProcessManager::Adopt(const ProcessInfo& info) {
    UpdateLocalProcessInfo(info);
    ReportNewTrustProcess(info);
    StoreAdopted();
}

void ProcessManager::StoreAdopted() {
    {
        const SDK::ReadGuard guard(storingLock);
        if (storing) {
            storing->Request();
            return;
        }
    }
    PersistencyLocalProcess();
}

bool ProcessManager::IsTrustProcessInMap(ProcessInfo& info, LocalTrustMap& byPath) {
    const auto entry = byPath.find(info.path);
    return OnLocalEntry(entry == byPath.end() ? std::nullopt : std::optional(entry->second), info).Vouches();
}

bool ProcessManager::IsTrustProcessInGlobal(ProcessInfo& info) {
    return AskServerList(info).Vouches();
}

bool ProcessManager::IsTrustPresetProcess(const std::string& sha256, PresetMap& preset, PresetProcessInfo& found) {
    const ListOpinion opinion = AskPreset(sha256, preset);
    if (opinion.Vouches()) {
        found = *opinion.presetEntry;
    }
    return opinion.Vouches();
}

bool ProcessManager::IsWhiteHash(const std::string& sha256, const std::string& path, int& source) {
    for (const TrustSource list : LIST_ORDER) {
        if (AskList(list, sha256, path).Vouches()) {
            source = list;
            return true;
        }
    }
    return false;
}

bool ProcessManager::ProcessVerify(int pid) {
    const auto image = HoldJudgedImage(pid);
    std::string path;
    SDK::ProcessUtils::GetProcessExePath(pid, path);
    if (FindUntrustedImage(pid, path)) {
        LogUntrusted(path);
        return false;
    }
    return true;
}

// Whether the process is one of the agent's own is asked last, of the few whose image no list has: either
// way lets it go.
std::optional<ImageExamination> ProcessManager::FindUntrustedImage(int pid, const std::string& path) {
    if (path.empty()) {
        return std::nullopt;
    }
    ImageExamination image;
    int source = 0;
    if (VerifyImage(path, image, source) || FindExemption(pid, path) != Exemption::NONE) {
        return std::nullopt;
    }
    return image;
}

bool ProcessManager::VerifyImage(const std::string& path, ImageExamination& image, int& source) {
    image = ExamineImage(path);
    return image.exemption != Exemption::NONE || IsWhiteHash(image.digest, path, source);
}

bool ProcessManager::IsPrelinkedProcess(const char* path) const {
    if (path == nullptr) {
        return false;
    }
    // Opening follows links as resolving them first would.
    switch (utils::elf::FindSectionOfType(path, PRELINK_SECTION_TYPE)) {
    case utils::elf::SectionSearch::CannotOpen:
        LogUnopened(path);
        return false;
    case utils::elf::SectionSearch::NotElf:
        moduleLog.Debug("not an elf file!");
        return false;
    case utils::elf::SectionSearch::BadHeaderSize:
        moduleLog.Debug("ELF file header size is err!");
        return false;
    case utils::elf::SectionSearch::NotFound:
        return false;
    case utils::elf::SectionSearch::Found:
        return true;
    }
    return false;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param)
bool ProcessManager::RevertPrelinkedProcessHash(std::string path, std::string& sha256) const {
    const std::lock_guard<std::mutex> undoing(prelinkLock);
    const std::string name = SDK::PathUtils::GetFileNameFromPath(path);
    const std::string temp = "/tmp/" + name + "." + std::to_string(getpid());
    std::string output;
    SDK::ExecuteCmdUtils::ExecuteCmd("prelink -u '" + path + "' -o '" + temp + "'", output, PRELINK_OUTPUT_BYTES);
    std::string digest;
    if (SDK::FileUtils::GetFileSha256(temp, digest, MAX_FILE_BYTES) != 0) {
        moduleLog.Error("Get file [%s] hash failed", name);
        return false;
    }
    sha256 = digest;
    SDK::FileUtils::RemoveFile(temp);
    return true;
}

void ProcessManager::GetInterpreterName() {
    std::vector<std::string> names;
    char resolved[PATH_MAX] = {};
    if (realpath(SHELLS_FILE, resolved) != nullptr) {
        std::ifstream shells(resolved);
        std::string line;
        while (std::getline(shells, line)) {
            throttle.Check();
            char shell[PATH_MAX] = {};
            if (line.size() < LINE_BYTES && realpath(SDK::StrUtils::Trim(line).c_str(), shell) != nullptr) {
                names.push_back(SDK::PathUtils::GetFileNameFromPath(shell));
            }
        }
    }
    names.emplace_back(PYTHON);
    const SDK::WriteGuard guard(interpreterLock);
    interpreterNames.swap(names);
}

std::vector<std::string> ProcessManager::GetInterpreterNames() const {
    const SDK::ReadGuard guard(interpreterLock);
    return interpreterNames;
}

void ProcessManager::UpdateLocalProcessInfo(const ProcessInfo& info) {
    TrustRecord record(info);
    const SDK::WriteGuard guard(localTrustLock);
    localTrustMap.insert(std::move(record));
}

// ---- What the decisions are made of ------------------------------------------------------------------

ListOpinion ProcessManager::AskList(TrustSource list, ProcessInfo& info) const {
    switch (list) {
    case SOURCE_LOCAL:
        return OnLocalEntry(FindLocal(info.path), info);
    case SOURCE_SERVER:
        return AskServerList(info);
    default:
        return AskPreset(info.hash, PresetOf(list));
    }
}

std::optional<ProcessInfo> ProcessManager::FindLocal(const std::string& path) const {
    const SDK::ReadGuard guard(localTrustLock);
    const auto entry = localTrustMap.find(path);
    return entry == localTrustMap.end() ? std::nullopt : std::optional(entry->Expand());
}

ListOpinion ProcessManager::AskServerList(ProcessInfo& info) const {
    std::vector<ProcessInfo> group;
    {
        const SDK::ReadGuard guard(serverTrustLock);
        const auto found = serverTrustMap.find(info.name);
        if (found == serverTrustMap.end()) {
            return {};
        }
        group = Expand(found->second);
    }
    if (list_opinion::HasSameKind(group, info)) {
        AntiransonwareProcessUtils::RetrieveProcessDetailInfo(info);
    }
    return list_opinion::OnRecord(group, info);
}

ListOpinion ProcessManager::AskPreset(const std::string& sha256, const PresetMap& preset) const {
    const SDK::ReadGuard guard(presetLock);
    const auto entry = preset.find(sha256);
    if (entry == preset.end()) {
        return {};
    }
    return {ListOpinion::Reason::VOUCHED_FOR, std::nullopt, entry->second};
}

ListOpinion ProcessManager::AskList(TrustSource list, const std::string& sha256, const std::string& path) const {
    if (list == SOURCE_LOCAL) {
        const std::optional<ProcessInfo> entry = FindLocal(path);
        return entry ? list_opinion::OnDigest(*entry, sha256) : ListOpinion{};
    }
    if (list == SOURCE_SERVER) {
        const SDK::ReadGuard guard(serverTrustLock);
        const auto group = serverTrustMap.find(SDK::PathUtils::GetFileNameFromPath(path));
        return group == serverTrustMap.end() ? ListOpinion{} : list_opinion::OnDigest(group->second, sha256);
    }
    return AskPreset(sha256, PresetOf(list));
}

Exemption ProcessManager::FindExemption(int pid, const std::string& image) const {
    if (image.empty()) {
        return Exemption::NO_IMAGE;
    }
    return SDK::ProcessUtils::IsAuthorizedProcess(pid) ? Exemption::OWN_PROCESS : Exemption::NONE;
}

ImageExamination ProcessManager::ExamineImage(const std::string& path) const {
    ImageExamination image;
    image.prelinked = IsPrelinkedProcess(path.c_str());
    if (!image.prelinked) {
        SDK::FileUtils::GetFileSha256(path, image.digest, MAX_FILE_BYTES);
    } else if (!RevertPrelinkedProcessHash(path, image.digest)) {
        moduleLog.Error("Revert prelinked process hash failed");
        image.exemption = Exemption::PRELINK_NOT_UNDONE;
        return image;
    }
    if (image.digest.empty()) {
        image.exemption = Exemption::UNREADABLE;
    }
    return image;
}

void ProcessManager::CompleteRecord(ProcessInfo& info) const {
    AntiransonwareProcessUtils::GetProcessNameFromImage(info);
    if (info.cmdline.empty()) {
        AntiransonwareProcessUtils::RetreiveProcessCmdLine(info);
    }
    AntiransonwareProcessUtils::CheckInterpreterProcess(info, GetInterpreterNames());
}

bool ProcessManager::IsBlockingInForce() const {
    return ConfigManager::Instance()->GetActionBlock() == 1 && CountForBlockingFloor() > BLOCKING_FLOOR;
}

std::size_t ProcessManager::CountForBlockingFloor() const {
    const std::size_t entries = CountLocalTrust() + CountOsPreset() + CountServicePreset();
    // The server list counts by names.
    const SDK::ReadGuard guard(serverTrustLock);
    return entries + serverTrustMap.size();
}

// ---- Process tracking and enforcement --------------------------------------------------------------

bool ProcessManager::OnProcessNotify(unsigned int kind, int pid, int ppid) {
    if (ConfigManager::Instance()->GetDirMod()) {
        ProcessManageWithDirMod(kind, pid, ppid);
        return true;
    }
    if (ConfigManager::Instance()->GetMod() == MOD_LEARNED) {
        return true;
    }
    if (kind == ProcsMessage::KIND_EXEC || kind == ProcsMessage::KIND_FORK) {
        return ProcessManageWithGlobalMod(pid);
    }
    return false;
}

void ProcessManager::ProcessManageWithDirMod(unsigned int kind, int pid, int ppid) {
    if (headerBuffer) {
        std::memset(headerBuffer.get(), 0, HEADER_BUFFER_BYTES);
    }
    if (kind == ProcsMessage::KIND_EXEC) {
        OnProcessCreate(pid);
    } else if (kind == ProcsMessage::KIND_EXIT) {
        OnProcessExit(pid);
    } else if (kind == ProcsMessage::KIND_FORK) {
        if (ppid == EXIT_PARENT) {
            moduleLog.Information("PROCS_NATIVE_EXIT flag,not PROCS_NATIVE_FORK,skip it");
        } else {
            OnProcessFork(pid, ppid);
        }
    }
}

bool ProcessManager::ProcessManageWithGlobalMod(int pid) {
    const auto image = HoldJudgedImage(pid);
    ProcessInfo info(pid);
    if (SDK::ProcessUtils::GetProcessExePath(pid, info.path) != 0) {
        return false;
    }
    const std::int64_t mod = ConfigManager::Instance()->GetMod();
    if (mod == MOD_LEARN) {
        LearnProcess(std::move(info));
    } else if (mod == MOD_DETECT) {
        DetectProcess(std::move(info));
    }
    return true;
}

// The verdict first: most programs are trusted, and of those nobody wants to know more.
void ProcessManager::DetectProcess(ProcessInfo info) {
    const std::optional<ImageExamination> untrusted = FindUntrustedImage(info.pid, info.path);
    if (!untrusted) {
        return;
    }
    if (!untrusted->prelinked) {
        // What a detail lookup would find.
        info.hash = untrusted->digest;
        info.detailRetrieved = true;
    }
    // Before anything is done to the process: a dead one has no command line.
    AntiransonwareProcessUtils::RetrieveProcessDetailInfo(info);
    const std::string image = info.path;
    CompleteRecord(info);
    PunishProcess(info, image);
}

void ProcessManager::LearnProcess(ProcessInfo info) {
    AntiransonwareProcessUtils::RetrieveProcessDetailInfo(info);
    CompleteRecord(info);
    const SDK::WriteGuard guard(increaseLock);
    if (increaseMap.count(info.path) != 0) {
        moduleLog.Debug("Increament map size [%d]", static_cast<int>(increaseMap.size()));
        return;
    }
    moduleLog.Debug("add [%s] hash [%s] to increament map", info.path, info.hash);
    increaseMap.emplace(info.path, info);
}

// Reports the untrusted process and, when the policy asks for it and the lists allow it, has it
// isolated first. Nothing is written to the log before that: a file system takes its time.
void ProcessManager::PunishProcess(const ProcessInfo& info, const std::string& image) {
    std::optional<Isolation> isolation;
    const bool isBlocking = IsBlockingInForce();
    if (isBlocking) {
        isolation = HandToIsolateTask(info);
    }
    LogUntrusted(image);
    if (isBlocking) {
        LogIsolation(info.path, isolation);
    }
    ReportSuspiciousProcess(isolation && isolation->done, info);
}

std::optional<bool> ProcessManager::Isolate(const ProcessInfo& info) const {
    const std::optional<Isolation> isolation = HandToIsolateTask(info);
    LogIsolation(info.path, isolation);
    return isolation ? std::optional(isolation->done) : std::nullopt;
}

std::optional<Isolation> ProcessManager::HandToIsolateTask(const ProcessInfo& info) const {
    Poco::AutoPtr<IsolateTask> isolateTask = Framework::Engine::FindTask(ISOLATE_TASK).cast<IsolateTask>();
    if (!isolateTask) {
        return std::nullopt;
    }
    Isolation isolation{false, true, true};
    bool quarantine = false;
    isolation.done = isolateTask->Isolate(info.pid, info.path, isolation.killed, isolation.unexecutable, quarantine);
    return isolation;
}

bool ProcessManager::OnProcessCreate(int pid) {
    const auto image = HoldJudgedImage(pid);
    ProcessInfo info(pid);
    if (SDK::ProcessUtils::GetProcessExePath(pid, info.path) != 0) {
        return true;
    }
    AntiransonwareProcessUtils::CheckInterpreterProcess(info, GetInterpreterNames());
    AddToAllProcessMap(info);
    // The row keeps its "not trusted": who needs the verdict decides anew. What counts here is the
    // adoption that the decision may bring.
    info.trusted = IsTrustProcess(info);
    return true;
}

bool ProcessManager::OnProcessFork(int child, int parent) {
    const ProcessInfo* parentInfo = GetProcessInfoFromID(parent);
    if (parentInfo == nullptr || parent == INIT_PID) {
        return OnProcessCreate(child);
    }
    ProcessInfo info = *parentInfo;
    info.pid = child;
    info.ppid = parent;
    AddToAllProcessMap(info);
    return true;
}

bool ProcessManager::OnProcessExit(int pid) {
    SetProcessExitToAllProcessMap(pid);
    return true;
}

void ProcessManager::SetProcessExitToAllProcessMap(int pid) {
    const SDK::WriteGuard guard(allProcessLock);
    const auto row = allProcessMap.find(pid);
    if (row != allProcessMap.end()) {
        row->second.exited = true;
    }
}

void ProcessManager::DelExitedAllProcess() {
    const SDK::WriteGuard guard(allProcessLock);
    std::erase_if(allProcessMap, [](const auto& row) { return row.second.exited; });
}

bool ProcessManager::AddToAllProcessMap(const ProcessInfo& info) {
    const SDK::WriteGuard guard(allProcessLock);
    return allProcessMap.insert_or_assign(info.pid, info).second;
}

ProcessInfo* ProcessManager::GetProcessInfoFromID(int pid) {
    thread_local RowCopies copies;
    std::optional<ProcessInfo> row = FindProcess(pid);
    return row ? &copies.Keep(std::move(*row)) : nullptr;
}

ProcessInfo* ProcessManager::GetProcessInfoFromIDDefinite(int pid) {
    ProcessInfo* info = GetProcessInfoFromID(pid);
    if (info == nullptr) {
        OnProcessCreate(pid);
        info = GetProcessInfoFromID(pid);
    }
    return info;
}

ProcessInfo* ProcessManager::GetParentProcessInfo(const ProcessInfo& info) {
    return GetProcessInfoFromID(info.ppid);
}

int ProcessManager::OnIncProcessRecord(unsigned int kind, int /*pid*/, int /*ppid*/) {
    if (kind == ProcsMessage::KIND_EXIT) {
        return 0;
    }
    increaseLock.LockWrite();
    return increaseLock.UnlockWrite();
}

bool ProcessManager::GetIncreaseProcess(std::string& out) {
    LocalTrustMap learned;
    {
        const SDK::WriteGuard guard(increaseLock);
        learned.swap(increaseMap);
    }
    if (learned.empty()) {
        moduleLog.Debug("increament map is empty");
        return false;
    }
    Json::Value list(Json::arrayValue);
    for (const auto& [path, info] : learned) {
        throttle.Check();
        if (!path.empty()) {
            ProcessInfo2Json(info, list.append(Json::Value(Json::objectValue)));
        }
    }
    out = utils::list_document::ToText(list);
    TrustRecordSet records;
    for (const auto& [path, info] : learned) {
        records.emplace_hint(records.end(), info);
    }
    MergeIntoLocalTrust(std::move(records));
    return true;
}

bool ProcessManager::GetAllProcess(std::string& out) {
    const Poco::AutoPtr<ProcsFullTask> table = FindProcsFullTask();
    if (!table) {
        moduleLog.Error("Get full proc failed");
        return false;
    }
    const ProcsFullTask::ProcsMap processes = table->GetProcsMap();
    if (processes.empty()) {
        moduleLog.Error("proc map is empty");
        return false;
    }
    Json::Value list(Json::arrayValue);
    ImageDigests digests;
    for (const auto& [pid, process] : processes) {
        throttle.Check();
        ProcessInfo info = RecordOf(process);
        info.hash = digests.Of(info.path);
        info.type = MATCH_HASH;
        ProcessInfo2Json(info, list.append(Json::Value(Json::objectValue)));
    }
    out = utils::list_document::ToText(list);
    return true;
}

bool ProcessManager::ProcessIsolate(int pid, const char* path, const char* /*name*/, bool& kill, bool& chmod) {
    std::string image;
    if (SDK::ProcessUtils::GetProcessExePath(pid, image) != 0) {
        return false;
    }
    const std::string file = path != nullptr && *path != '\0' ? path : image;
    struct stat status {};
    static_cast<void>(stat(file.c_str(), &status));
    chmod = ::chmod(file.c_str(), ISOLATED_MODE) == 0;
    kill = ::kill(pid, SIGKILL) == 0;
    moduleLog.Information("pid:%d filepath:%s kill:%s, iso:%s mod:%d", pid, file, ToText(kill), ToText(chmod),
                          static_cast<int>(status.st_mode));
    return true;
}

// ---- Reports ---------------------------------------------------------------------------------------

void ProcessManager::SendReport(const char* type, const std::string& text) const {
    // Held through the send, so that the task cannot be destroyed under it.
    const SDK::ReadGuard guard(reportTaskLock);
    if (reportTask != nullptr) {
        reportTask->SendDirectMsg(REPORT_TASK, new Framework::DataMessage(type, text));
    }
}

// Nothing but the receiver holds up who sends the same long text again and again: it is given time to take what waits,
// some seconds in all, so that its queue does not take all memory.
void ProcessManager::SendReportAgain(const char* type, const std::string& text, std::size_t times) const {
    const auto end = std::chrono::steady_clock::now() + MAX_WAIT_FOR_RECEIVER;
    for (; times > 0; --times) {
        while (WaitingReports() * text.size() > MAX_WAITING_BYTES && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(RECEIVER_LOOK_INTERVAL);
        }
        SendReport(type, text);
    }
}

void ProcessManager::ReportSuspiciousProcess(bool block, const ProcessInfo& info) {
    Json::Value event(Json::objectValue);
    event["event_id"] = SDK::CryptoCodeUtils::GenerateUUID();
    event["event_name"] = "white list alert process";
    event["event_classid"] = REPORT_ALERT;
    event["occur_time"] = static_cast<Json::Int64>(SDK::TimeUtils::GetCurrentTimestampS());
    event["event_category"] = 1000;
    event["event_type"] = 1013;
    event["serverity"] = 2;
    event["event_count"] = 1;
    event["attack_phase"] = 6;
    event["attack_tag"] = 4;
    event["confidence"] = 60;
    event["detect_module"] = LOGGER_NAME;
    event["process_info"] = DescribeProcess(block, info);
    SendReport(REPORT_ALERT, SDK::JsonUtils::JsonToString(event));
}

Json::Value ProcessManager::DescribeProcess(bool block, const ProcessInfo& info) const {
    Json::Value process(Json::objectValue);
    process["process_pid"] = info.pid;
    SDK::ProcessUtils::procStatus status;
    if (SDK::ProcessUtils::GetProcessStatusInfo(info.pid, status) != 0) {
        moduleLog.Error("Get process status info failed, maybe it has dead");
    }
    process["parent_process_pid"] = status.ppid;
    process["process_uid"] = status.uid;
    process["process_euid"] = status.euid;
    process["process_gid"] = status.gid;
    process["process_egid"] = status.egid;
    std::string user;
    SDK::ProcessUtils::GetProcessUser(info.ppid, user);
    process["process_username"] = user;
    process["process_path"] = info.path;
    process["process_cmdline"] = info.cmdline;
    std::int64_t startTime = 0;
    SDK::ProcessUtils::GetProcessStartTime(info.pid, startTime);
    process["process_start_time"] = static_cast<Json::Int64>(startTime);
    process["process_hash"] = info.hash;
    struct stat file {};
    if (stat(info.path.c_str(), &file) == 0) {
        process["file_size"] = static_cast<Json::Int64>(file.st_size);
        process["file_mtime"] = static_cast<Json::Int64>(file.st_mtime);
        process["file_ctime"] = static_cast<Json::Int64>(file.st_ctime);
        process["file_attr"] = Poco::format("%o", static_cast<unsigned>(file.st_mode & 0777));
    }
    process["block"] = block ? 1 : 0;
    return process;
}

void ProcessManager::ReportNewTrustProcess(const ProcessInfo& info) const {
    Json::Value entry(Json::objectValue);
    ProcessInfo2Json(info, entry);
    SendReport(REPORT_NEW_PROCESSES, utils::list_document::ToText(entry));
}

void ProcessManager::SendModRunErrorMessage(const char* text) {
    Json::Value error(Json::objectValue);
    error["runerr"] = text;
    SendReport(REPORT_RUN_ERROR, SDK::JsonUtils::JsonToString(error));
}

// ---- What an operator may look at ------------------------------------------------------------------

ProcessManager::LocalTrustMap ProcessManager::CopyLocalTrust() const {
    LocalTrustMap entries;
    LocalTrustPortion portion;
    while (ReadOnLocalTrust(portion)) {
        if (portion.first) {
            entries.clear();
        }
        for (const ProcessInfo& info : portion.entries) {
            entries.emplace_hint(entries.end(), info.path, info);
        }
    }
    return entries;
}

ProcessManager::ServerTrustMap ProcessManager::CopyServerTrust() const {
    ServerTrustMap groups;
    const SDK::ReadGuard guard(serverTrustLock);
    for (const auto& [name, group] : serverTrustMap) {
        groups.emplace(name, Expand(group));
    }
    return groups;
}

ProcessManager::PresetMap ProcessManager::CopyOsPreset() const {
    const SDK::ReadGuard guard(presetLock);
    return osPresetMap;
}

ProcessManager::PresetMap ProcessManager::CopyServicePreset() const {
    const SDK::ReadGuard guard(presetLock);
    return servicePresetMap;
}

std::optional<ProcessInfo> ProcessManager::FindProcess(int pid) const {
    const SDK::ReadGuard guard(allProcessLock);
    const auto row = allProcessMap.find(pid);
    return row == allProcessMap.end() ? std::nullopt : std::optional(row->second);
}

bool ProcessManager::IsNewlyLearned(const std::string& path) const {
    const SDK::ReadGuard guard(increaseLock);
    return increaseMap.count(path) != 0;
}

std::optional<PresetProcessInfo> ProcessManager::FindPresetNaming(TrustSource list, const std::string& path) const {
    const std::string name = SDK::PathUtils::GetFileNameFromPath(path);
    const SDK::ReadGuard guard(presetLock);
    for (const auto& [digest, entry] : PresetOf(list)) {
        if (entry.filename == path || entry.filename == name) {
            return entry;
        }
    }
    return std::nullopt;
}

std::size_t ProcessManager::CountLocalTrust() const {
    const SDK::ReadGuard guard(localTrustLock);
    return localTrustMap.size();
}

std::size_t ProcessManager::CountServerTrust() const {
    const SDK::ReadGuard guard(serverTrustLock);
    std::size_t count = 0;
    for (const auto& [name, group] : serverTrustMap) {
        count += group.size();
    }
    return count;
}

std::size_t ProcessManager::CountOsPreset() const {
    const SDK::ReadGuard guard(presetLock);
    return osPresetMap.size();
}

std::size_t ProcessManager::CountServicePreset() const {
    const SDK::ReadGuard guard(presetLock);
    return servicePresetMap.size();
}

} // namespace Engine
