#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <json/value.h>

#include "Exemption.h"
#include "ListOpinion.h"
#include "ProcessInfo.h"
#include "TrustRecord.h"
#include "framework/Task.h"
#include "sdk/RwLock.h"
#include "utils/BackgroundWork.h"

namespace Engine {

// What the isolate task did.
struct Isolation {
    bool done = false;
    bool killed = false;
    bool unexecutable = false;
};

// The trust engine: every list that decides whether a program may run, the decision, the tracking of
// processes, and what is reported of it all.
//
// Four lists vouch for a program:
//
//     local            what was learned here, by path        conf/whitelist.data
//     server           what the server sent, by name         conf/arsserverproc.data
//     OS preset        downloaded, by digest                 conf/osPresetProcess.dat
//     service preset   downloaded, by digest                 conf/servicePresetProcess.dat
//
// What is learned passes through the increase map:
//
//     learned by an event  ──►  increaseMap  ──drained by a report──►  localTrustMap ──►  its file
//
// An entry that a decision adds to the local list (Adopt) is stored by a thread of this class's own while
// one runs (BeginBackgroundStoring), so that no event waits for a disk; otherwise before the decision
// returns. Storing looks at the list a few entries at a time, so that nobody waits long for its lock.
//
// One instance. Process events come on one thread, commands on another, the reporting and clock
// tasks on theirs; every table has a lock, each is taken for its table alone and no two are ever held
// together. Nothing is hashed, downloaded or written while one is held. Nothing throws.
class ProcessManager {
public:
    static ProcessManager* Instance();

    using LocalTrustMap = std::map<std::string, ProcessInfo>;               // by path
    using ServerTrustMap = std::map<std::string, std::vector<ProcessInfo>>; // by name, in file order
    using PresetMap = std::map<std::string, PresetProcessInfo>;             // by digest

    // Which list vouched for a digest.
    enum TrustSource { SOURCE_LOCAL = 1, SOURCE_SERVER = 2, SOURCE_OS_PRESET = 3, SOURCE_SERVICE_PRESET = 4 };

    // The order in which a decision asks the lists; the first that vouches decides.
    static constexpr std::array<TrustSource, 4> LIST_ORDER = {SOURCE_LOCAL, SOURCE_SERVER, SOURCE_OS_PRESET,
                                                              SOURCE_SERVICE_PRESET};

    // More running processes than this and they are not looked at when the engine starts.
    static constexpr std::size_t MAX_RUNNING_PROCESSES = 100000;
    // Nothing is blocked unless the four lists together hold more entries than this: a host whose
    // lists are nearly empty would be killed as a whole.
    static constexpr std::size_t BLOCKING_FLOOR = 50;

    // ---- Life --------------------------------------------------------------------------------------

    // Takes the task (a Framework::Task*) through which reports are sent, finds the four files, and
    // creates the local and the server file empty where missing. False when `task` is null or there is
    // no installation path. The task must call ForgetTask before it is destroyed.
    bool Init(void* task);
    void Deinit();
    void ForgetTask(const Framework::Task* task);

    // Loads the four lists, replacing what is in memory, and looks at the running processes: in
    // learning mode they become trusted, in directory mode they fill the table. Always true.
    bool Onstart();
    // In learning mode persists what was learned.
    void Onstop();

    // From one to the other, adopted entries are stored in the background, the list once for each adoption.
    // EndBackgroundStoring returns when all are: the list is written once for those that are left, and sent once
    // for each. Where no thread can be had they are stored at once.
    void BeginBackgroundStoring();
    void EndBackgroundStoring();

    // ---- Process record as JSON ----------------------------------------------------------------------

    // {"name", "path", "hash", "size", "type"}. False when one of the first four is missing or empty;
    // fields read before that stay set. A record with a hash and no type is one of MATCH_HASH.
    bool Json2ProcessInfo(ProcessInfo& info, const Json::Value& obj) const;
    // "size" is that of the file now, 0 when it cannot be had; such an entry is dropped on the next
    // load.
    void ProcessInfo2Json(const ProcessInfo& info, Json::Value& obj) const;

    // ---- Trust stores --------------------------------------------------------------------------------

    // Add the file's entries to the local list; the first entry of a path stays. False when the file
    // cannot be read or is no list document.
    bool InitLocalProcessFromFile();
    bool ParseJsonProcessInfo(const char* data, std::size_t len);
    // Writes the local list to its file and, in directory mode, sends it. A list that was never loaded
    // does not replace one on disk. True when the file was written.
    bool PersistencyLocalProcess();
    // Persists the local list if its size changed since it was last written. Always true.
    bool HandleLearnProcessData();

    bool InitServerProcessFromFile();
    // Replaces the server list in memory. An unparsable document changes nothing; one of another shape
    // empties the list.
    void SyncServerTrustProcess(const char* data, std::size_t len);
    // Writes the document to the server list's file, so that it is loaded again at the next start.
    bool PersistencyServerProcess(const char* data, std::size_t len);

    // Handle {"url", "hash"}: fetch the list unless the file on disk has that digest already, then load
    // it. False when it could not be fetched or loaded.
    bool SyncOsPresetProcess(const char* data, std::size_t len);
    bool SyncServicePresetProcess(const char* data, std::size_t len);
    bool ParsePresetProcMapFromFile(const char* doc, const std::string& file, PresetMap& preset);
    bool DownloadFileFromPolicy(const char* doc, const std::string& file);
    bool LoadPresetProcInfoFromFile(const std::string& file, PresetMap& preset);
    bool CheckFileHash(const std::string& file, const std::string& sha256);

    // Reads the entries under `key` of `root` into `byName`; of two with one name the first stays.
    bool ParseProcessArrayPolicy(const Json::Value& root, const char* key, std::map<std::string, ProcessInfo>& byName);

    // Looks at every running process; see Onstart. False when there are more than
    // MAX_RUNNING_PROCESSES, which the server is told.
    bool InitTrustProcess();

    // ---- Trust decision ------------------------------------------------------------------------------

    // Decides on a record, filling its details where needed. A process that the server list or a preset
    // list vouches for is adopted into the local list, reported and persisted, in every mode: it stays
    // trusted when that list changes.
    bool IsTrustProcess(ProcessInfo& info);
    bool IsTrustProcessInMap(ProcessInfo& info, LocalTrustMap& byPath);
    bool IsTrustProcessInGlobal(ProcessInfo& info);
    bool IsTrustPresetProcess(const std::string& sha256, PresetMap& preset, PresetProcessInfo& found);

    // Looks a digest up in the four lists, in their order, and says in `source` which one has it;
    // `source` is untouched when none has. Adopts nothing, ignores the matching kind.
    bool IsWhiteHash(const std::string& sha256, const std::string& path, int& source);

    // Decides on a live process by the digest of its image alone. Fails open: a process whose image
    // cannot be found or read is let go, and so are the agent's own.
    bool ProcessVerify(int pid);
    // The same for an image file: true when it may run. `image` is what was looked at; `source` is set when
    // a list vouches for it.
    bool VerifyImage(const std::string& path, ImageExamination& image, int& source);

    // True for a 64-bit ELF file that the prelink tool has rewritten.
    bool IsPrelinkedProcess(const char* path) const;
    // The digest that the file had before prelink rewrote it.
    bool RevertPrelinkedProcessHash(std::string path, std::string& sha256) const;

    // Rebuilds the names of interpreters from /etc/shells, and "python".
    void GetInterpreterName();
    std::vector<std::string> GetInterpreterNames() const;

    // Adds the record to the local list unless its path is there already.
    void UpdateLocalProcessInfo(const ProcessInfo& info);

    // ---- What the decisions are made of ----------------------------------------------------------------

    // Each changes nothing, so that a decision can be explained by what takes it.

    // What the list says of a record, as IsTrustProcess asks; fills the record's details where they are
    // needed.
    ListOpinion AskList(TrustSource list, ProcessInfo& info) const;
    // What it says of the digest of the image at `path`, as IsWhiteHash asks.
    ListOpinion AskList(TrustSource list, const std::string& sha256, const std::string& path) const;

    // Whether ProcessVerify lets the process go whatever its image holds, and whether it does so for what
    // the image holds.
    Exemption FindExemption(int pid, const std::string& image) const;
    ImageExamination ExamineImage(const std::string& path) const;

    // Completes the record of a process whose image and digest are known: its name and, for an
    // interpreter, the script in the interpreter's place.
    void CompleteRecord(ProcessInfo& info) const;

    // Whether an untrusted program is isolated in global mode: the policy asks for it, and the lists hold
    // enough entries.
    bool IsBlockingInForce() const;
    // The entries of the four lists that count towards BLOCKING_FLOOR.
    std::size_t CountForBlockingFloor() const;

    // ---- Process tracking and enforcement ------------------------------------------------------------

    // One process event: 1 executed, 2 forked (`pid` the child), 3 exited. The result is that of the
    // work done; an exit outside directory mode is nobody's (false).
    bool OnProcessNotify(unsigned int kind, int pid, int ppid);
    void ProcessManageWithDirMod(unsigned int kind, int pid, int ppid);
    // Learns or verifies the process, reports and isolates it when it is not trusted.
    bool ProcessManageWithGlobalMod(int pid);

    bool OnProcessCreate(int pid);
    bool OnProcessFork(int child, int parent);
    bool OnProcessExit(int pid);
    void SetProcessExitToAllProcessMap(int pid);
    void DelExitedAllProcess();

    // Inserts or overwrites the row of the record's pid; true when it is a new one.
    bool AddToAllProcessMap(const ProcessInfo& info);

    // The row of the pid, null when there is none; Definite makes one on a miss. The result is a copy
    // of this thread's own, so that a row which another thread overwrites or removes meanwhile hurts
    // nobody. Looking the pid up again brings the same copy up to date; it is good until this thread has
    // found RowCopies::CAPACITY other processes.
    ProcessInfo* GetProcessInfoFromID(int pid);
    ProcessInfo* GetProcessInfoFromIDDefinite(int pid);
    ProcessInfo* GetParentProcessInfo(const ProcessInfo& info);

    int OnIncProcessRecord(unsigned int kind, int pid, int ppid);

    // Takes what was learned since the last call as a list document and moves it to the local list.
    // False, `out` untouched, when there is nothing.
    bool GetIncreaseProcess(std::string& out);
    // Every running process as a list document.
    bool GetAllProcess(std::string& out);

    // Has the isolate task kill the process and make its image non-executable. Whether that succeeded;
    // nothing, with an error logged, when there is no such task.
    std::optional<bool> Isolate(const ProcessInfo& info) const;

    // Isolation without the isolate task: makes `path` (the process's image when it is empty) readable
    // by its owner only and kills the process; says in `kill` and `chmod` what succeeded. False when
    // the process is gone. Not used while there is an isolate task.
    bool ProcessIsolate(int pid, const char* path, const char* name, bool& kill, bool& chmod);

    // ---- Reports -------------------------------------------------------------------------------------

    // The alert about an untrusted process.
    void ReportSuspiciousProcess(bool block, const ProcessInfo& info);
    void ReportNewTrustProcess(const ProcessInfo& info) const;
    void SendModRunErrorMessage(const char* text);

    // ---- What an operator may look at ----------------------------------------------------------------

    LocalTrustMap CopyLocalTrust() const;
    ServerTrustMap CopyServerTrust() const;
    PresetMap CopyOsPreset() const;
    PresetMap CopyServicePreset() const;

    // The row of the pid.
    std::optional<ProcessInfo> FindProcess(int pid) const;
    // True for what was learned and is not in the local list yet.
    bool IsNewlyLearned(const std::string& path) const;
    // An entry of a preset list that names the file, by its path or its file name, whatever its digest.
    std::optional<PresetProcessInfo> FindPresetNaming(TrustSource list, const std::string& path) const;
    // False until the lists have been loaded for the first time.
    bool AreListsLoaded() const { return localLoaded.load(); }

    std::size_t CountLocalTrust() const;
    std::size_t CountServerTrust() const; // entries, not names
    std::size_t CountOsPreset() const;
    std::size_t CountServicePreset() const;

private:
    ProcessManager() = default;

    // Some successive entries of the local list, and where they came from.
    struct LocalTrustPortion {
        std::vector<ProcessInfo> entries;
        bool first = true;            // the entries begin the list; those before were of one that was replaced
        std::uint64_t generation = 0; // of the list that they come from
    };

    bool ReadLocalTrust(TrustRecordSet& entries) const;
    bool ParseLocalTrust(const std::string& text, TrustRecordSet& entries) const;
    void MergeIntoLocalTrust(TrustRecordSet entries);
    void ReloadLocalTrust();
    void KeepUnloadedLocalTrust() const;
    // Persists the local list for so many adoptions: sends it for each and writes it once.
    bool PersistLocalTrust(std::size_t adoptions);
    bool StoreLocalTrust(const std::string& text);
    // What could not be stored, if that still is so.
    bool StoreLocalTrustAgain();
    bool ReadOnLocalTrust(LocalTrustPortion& portion) const;
    std::string LocalTrustToText() const;
    void StoreAdopted();

    bool ReadServerTrustFile(std::string& text) const;
    bool ReplaceServerTrust(const char* data, std::size_t len);
    void ReloadServerTrust();

    void ConsiderRunningProcess(ProcessInfo info, const std::vector<std::string>& interpreters);
    void Adopt(const ProcessInfo& info);
    std::optional<ProcessInfo> FindLocal(const std::string& path) const;
    ListOpinion AskServerList(ProcessInfo& info) const;
    ListOpinion AskPreset(const std::string& sha256, const PresetMap& preset) const;

    // What was looked at of an image that may not run; nothing when the process is let go.
    std::optional<ImageExamination> FindUntrustedImage(int pid, const std::string& path);
    // Both take a record that has nothing but its pid and path yet.
    void LearnProcess(ProcessInfo info);
    void DetectProcess(ProcessInfo info);
    // `image` is what the process runs; the record may speak of the script that an interpreter runs.
    void PunishProcess(const ProcessInfo& info, const std::string& image);
    // Nothing when there is no isolate task.
    std::optional<Isolation> HandToIsolateTask(const ProcessInfo& info) const;

    void SendReport(const char* type, const std::string& text) const;
    void SendReportAgain(const char* type, const std::string& text, std::size_t times) const;
    Json::Value DescribeProcess(bool block, const ProcessInfo& info) const;

    // The preset maps as what they are named by, for calls that take the lock themselves.
    PresetMap& OsPresetMap() NO_THREAD_SAFETY_ANALYSIS { return osPresetMap; }
    PresetMap& ServicePresetMap() NO_THREAD_SAFETY_ANALYSIS { return servicePresetMap; }
    const PresetMap& PresetOf(TrustSource list) const NO_THREAD_SAFETY_ANALYSIS {
        return list == SOURCE_OS_PRESET ? osPresetMap : servicePresetMap;
    }

    std::map<std::int32_t, ProcessInfo> allProcessMap GUARDED_BY(allProcessLock);
    mutable SDK::RwLock allProcessLock;
    mutable SDK::RwLock serverTrustLock;
    std::map<std::string, TrustGroup> serverTrustMap GUARDED_BY(serverTrustLock); // by name
    TrustRecordSet localTrustMap GUARDED_BY(localTrustLock);
    std::uint64_t localTrustGeneration GUARDED_BY(localTrustLock) = 1; // counts replacements of the list
    LocalTrustMap increaseMap GUARDED_BY(increaseLock);                // by path
    mutable SDK::RwLock increaseLock;
    PresetMap osPresetMap GUARDED_BY(presetLock);
    PresetMap servicePresetMap GUARDED_BY(presetLock);
    mutable SDK::RwLock presetLock;
    std::string localTrustFile; // the four paths are written by Init, before any task runs
    std::string serverTrustFile;
    std::string osPresetFile;
    std::string servicePresetFile;
    std::atomic<std::uint64_t> persistedCount{0};
    std::unique_ptr<char[]> headerBuffer;
    Framework::Task* reportTask GUARDED_BY(reportTaskLock) = nullptr;
    std::vector<std::string> interpreterNames GUARDED_BY(interpreterLock);

    mutable SDK::RwLock localTrustLock;
    mutable SDK::RwLock reportTaskLock;
    mutable SDK::RwLock interpreterLock;
    mutable std::mutex prelinkLock; // one user of an undone image's temporary file at a time
    std::mutex persistLock;         // one writer of the local list's file at a time; guards the next three
    bool isStoreDue = false;        // the file is not as the list was when it was last to be stored
    bool storingFailed = false;     // the operator knows that it could not be written
    bool tooLargeTold = false;      // the operator knows that it is larger than a start reads
    SDK::RwLock storingLock;
    std::unique_ptr<utils::BackgroundWork> storing GUARDED_BY(storingLock);
    std::atomic<bool> localLoaded{false}; // the local list was loaded from its file at least once
};

} // namespace Engine
