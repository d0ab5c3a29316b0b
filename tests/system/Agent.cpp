#include "system/Agent.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include <httplib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "sdk/JsonUtils.h"
#include "support/ScopedProcess.h"
#include "support/WaitFor.h"

namespace SystemTest {

using TestSupport::DEADLINE;
using TestSupport::WaitFor;

namespace fs = std::filesystem;

namespace {

constexpr const char* SLEEP = "/usr/bin/sleep";
constexpr const char* TAIL = "/usr/bin/tail";
constexpr int TO_EXEC_FORK_AND_EXIT = 3; // subscriptions of the module's event task

std::string OwnImage() {
    return fs::read_symlink("/proc/self/exe").string();
}

Json::Value MakeTask(const Json::Value& period) {
    Json::Value task;
    task["task_condition"] = Json::Value(Json::objectValue);
    if (!period.isNull()) {
        task["task_condition"]["period"] = period;
    }
    return task;
}

Json::Value MakeArray(const std::vector<std::string>& texts) {
    Json::Value array(Json::arrayValue);
    for (const std::string& text : texts) {
        array.append(text);
    }
    return array;
}

void AddGlobalMode(Json::Value& content, const PolicyOptions& options) {
    content["dir_mod"] = false;
    content["auto_detect"] = options.autoDetect;
    content["scan_period_seconds"] = options.scanPeriodSeconds;
    content["full_proc_task"] = MakeTask(1);
}

void AddDirectoryMode(Json::Value& content, const PolicyOptions& options) {
    content["dir_mod"] = true;
    content["mount_mod"] = options.mountMod;
    content["dirs"] = MakeArray(options.dirs);
    content["exts"] = MakeArray(options.exts);
    content["specified_file_audit_task"] = MakeTask(Json::nullValue);
}

} // namespace

Json::Value MakePolicy(const PolicyOptions& options) {
    Json::Value policy;
    policy["module_name"] = "whitelist_module";
    policy["feature_name"] = "whitelist_feature";
    policy["feature_hash"] = options.hash;
    policy["enabled"] = options.enabled;
    Json::Value& content = policy["content"];
    content["learning_days"] = options.learningDays;
    content["action_block"] = options.block;
    if (options.dirs.empty()) {
        AddGlobalMode(content, options);
    } else {
        AddDirectoryMode(content, options);
    }
    content["process_manager_task"] = MakeTask(Json::nullValue);
    content["learn_status_check_task"] = MakeTask(Json::nullValue);
    return policy;
}

std::string Sha256Of(const std::string& path) {
    constexpr std::size_t DIGITS = 64;
    const std::unique_ptr<FILE, int (*)(FILE*)> output(popen(("sha256sum -- '" + path + "'").c_str(), "r"), pclose);
    std::array<char, DIGITS + 1> digest{};
    if (!output || fread(digest.data(), 1, DIGITS, output.get()) != DIGITS) {
        throw std::runtime_error("no digest of " + path);
    }
    return digest.data();
}

Json::Value MakeEntry(const std::string& path) {
    Json::Value entry;
    entry["name"] = fs::path(path).filename().string();
    entry["path"] = path;
    entry["hash"] = Sha256Of(path);
    entry["size"] = static_cast<Json::Int64>(fs::file_size(path));
    entry["type"] = 1;
    return entry;
}

std::string MakeListDocument(const std::vector<Json::Value>& entries) {
    Json::Value document;
    document["process_info"] = Json::Value(Json::arrayValue);
    for (const Json::Value& entry : entries) {
        document["process_info"].append(entry);
    }
    return SDK::JsonUtils::JsonToString(document);
}

Agent::Agent() {
    mScope = std::make_unique<TestSupport::TempCgroup>();
    for (const char* folder : {"bin", "lib", "module"}) {
        fs::create_directory_symlink(std::string(BUILT_ROOT) + "/" + folder, mRoot / folder);
    }
    mRoot.Write("conf/agent.json", R"({"scope": {"cgroup": ")" + mScope->Name() + R"("}, "log": {"level": "debug"}})");
}

Agent::~Agent() = default;

// ---- its life

void Agent::Start() {
    Launch();
    WaitUntilReady();
}

void Agent::Launch() {
    std::vector<std::string> words = mLauncher;
    words.insert(words.end(), {mRoot / "bin/corvalentd", "--root", mRoot.Path()});
    mDaemon = std::make_unique<Program>(words, mWork / "daemon");
}

bool Agent::IsReady() const {
    return mDaemon->GetErrors().find("corvalentd: ready") != std::string::npos;
}

void Agent::StartWatching() {
    Start();
    WaitUntilSubscribed(TO_EXEC_FORK_AND_EXIT);
}

std::chrono::milliseconds Agent::Stop() {
    const auto begin = std::chrono::steady_clock::now();
    mDaemon->Signal(SIGTERM);
    if (!mDaemon->WaitForEnd(DEADLINE)) {
        GiveUp("the daemon does not stop");
    }
    EXPECT_EQ(mDaemon->GetStatus(), 0) << mDaemon->GetErrors();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
}

void Agent::Kill9() {
    mDaemon->Signal(SIGKILL);
    mDaemon->WaitForEnd(DEADLINE);
}

Result Agent::RunToTheEnd(const std::vector<std::string>& prefix) {
    std::vector<std::string> words = prefix;
    words.insert(words.end(), {mRoot / "bin/corvalentd", "--root", mRoot.Path()});
    Program daemon(words, mWork / ("run-" + std::to_string(++mCounter)));
    daemon.WaitForEnd(DEADLINE);
    return {daemon.GetStatus(), daemon.GetOutput(), daemon.GetErrors()};
}

// ---- state files

void Agent::WriteLearned(const Learned& learned) {
    std::vector<Json::Value> entries = {MakeEntry(OwnImage())};
    for (const std::string& program : learned.programs) {
        entries.push_back(MakeEntry(program));
    }
    // All fillers have the same bytes and differ by their paths, which is what the list is ordered by.
    Json::Value filler = MakeEntry(mWork.Write("fillers/0", "nobody runs this"));
    for (std::size_t i = 1; entries.size() < learned.entries; ++i) {
        filler["path"] = mWork.Write("fillers/" + std::to_string(i), "nobody runs this");
        entries.push_back(filler);
    }
    mRoot.Write("conf/whitelist.data", MakeListDocument(entries));
    WriteState(learned.minutes, learned.mode);
}

void Agent::WriteState(int minutes, Mode mode) {
    std::ostringstream text;
    text << "[Driver]\nLearnTime=" << minutes << "\nLearnMod=" << mode << "\n";
    mRoot.Write("conf/modwhitelist.ini", text.str());
}

// ---- what the operator does and sees

Result Agent::Ctl(std::vector<std::string> words, const std::string& input, std::chrono::milliseconds deadline) {
    const std::string name = "ctl-" + std::to_string(++mCounter);
    words.insert(words.begin(), {mRoot / "bin/corvalentctl", "--root", mRoot.Path()});
    Program ctl(words, mWork / name, input.empty() ? "/dev/null" : mWork.Write(name + ".in", input));
    if (!ctl.WaitForEnd(deadline)) {
        GiveUp("corvalentctl does not end");
    }
    return {ctl.GetStatus(), ctl.GetOutput(), ctl.GetErrors()};
}

Result Agent::Apply(const Json::Value& policy) {
    return Ctl({"policy", "apply", "-"}, SDK::JsonUtils::JsonToString(policy));
}

void Agent::ApplyAndWatch(const PolicyOptions& options) {
    const std::int64_t before = CountSubscriptions();
    const Result applied = Apply(MakePolicy(options));
    if (applied.status != 0) {
        GiveUp("the policy was refused: " + applied.err);
    }
    WaitUntilSubscribed(before + TO_EXEC_FORK_AND_EXIT);
}

Result Agent::Command(const std::string& key, const std::string& document, std::chrono::milliseconds deadline) {
    return Ctl({"command", key, "-"}, document, deadline);
}

Json::Value Agent::Status() const {
    return Get("/status");
}

void Agent::WaitForMode(Mode mode) const {
    if (!WaitFor([&] { return GetMode() == mode; })) {
        GiveUp("the mode does not become " + std::to_string(mode));
    }
}

Json::Value Agent::Trust(const std::string& list) const {
    return Get("/trust?list=" + list)["process_info"];
}

std::vector<Json::Value> Agent::Reports(const std::string& type) const {
    std::vector<Json::Value> all;
    for (std::string after = "0";; after = all.back()["id"].asString()) {
        std::string query = "/reports?after=";
        query.append(after).append("&type=").append(type);
        const Json::Value reports = Get(query)["reports"];
        if (reports.empty()) {
            return all;
        }
        all.insert(all.end(), reports.begin(), reports.end());
    }
}

std::vector<Json::Value> Agent::ReportsAfter(std::int64_t id) const {
    const Json::Value reports = Get("/reports?after=" + std::to_string(id))["reports"];
    return {reports.begin(), reports.end()};
}

std::vector<Json::Value> Agent::Alerts() const {
    std::vector<Json::Value> alerts;
    for (const Json::Value& report : Reports("whitelist_4")) {
        alerts.push_back(report["data"]);
    }
    return alerts;
}

std::vector<Json::Value> Agent::AlertsOf(int pid) const {
    std::vector<Json::Value> alerts = Alerts();
    std::erase_if(alerts,
                  [&](const Json::Value& alert) { return alert["process_info"]["process_pid"].asInt() != pid; });
    return alerts;
}

Json::Value Agent::WaitForAlert(int pid) const {
    std::vector<Json::Value> alerts;
    if (!WaitFor([&] { return !(alerts = AlertsOf(pid)).empty(); })) {
        GiveUp("no alert about process " + std::to_string(pid));
    }
    return alerts.front();
}

void Agent::WaitForMarks(int marks, int failed) const {
    Json::Value files;
    if (!WaitFor([&] { return (files = Status()["files"])["marks"] == marks && files["failed_marks"] == failed; })) {
        GiveUp("marks are not as expected: " + files.toStyledString());
    }
}

// proc(5): the fdinfo of a fanotify descriptor has a line for each mark, with "ino:" for a directory and
// "mnt_id:" for a mount.
int Agent::CountKernelMarks() const {
    int marks = 0;
    for (const auto& fd : fs::directory_iterator("/proc/" + std::to_string(GetPid()) + "/fdinfo")) {
        std::istringstream lines(TestSupport::TempDir::ReadText(fd.path()));
        for (std::string line; std::getline(lines, line);) {
            marks += line.starts_with("fanotify ino:") || line.starts_with("fanotify mnt_id:") ? 1 : 0;
        }
    }
    return marks;
}

int Agent::CountInLog(const std::string& text) const {
    const std::string log = mRoot.Read("log/corvalent.log");
    int count = 0;
    for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + text.size())) {
        ++count;
    }
    return count;
}

// ---- shorthands

void Agent::MakeDetecting(const Learned& learned, const PolicyOptions& options) {
    WriteLearned(learned);
    Start();
    ApplyAndWatch(options);
    WaitUntilLoaded();
    const Result started = Ctl({"detect", "start"});
    if (started.status != 0) {
        GiveUp("detection does not start: " + started.err);
    }
    if (options.dirs.empty()) {
        // In directory mode no program is judged that does not touch a file.
        DrainEvents();
    }
}

std::string Agent::MakeProgram(const std::string& name) const {
    return CopyProgram(SLEEP, name);
}

std::string Agent::MakeReader(const std::string& name) const {
    return CopyProgram(TAIL, name);
}

std::string Agent::CopyProgram(const char* original, const std::string& name) const {
    std::string path = mWork.Write("programs/" + name, TestSupport::TempDir::ReadText(original) + name);
    fs::permissions(path, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                              fs::perms::others_read | fs::perms::others_exec);
    return path;
}

// Events are judged, and reports stored, one after the other: an alert about a program that starts now
// comes behind all others.
void Agent::DrainEvents() {
    const TestSupport::ScopedProcess last(mScope->Path(), {MakeProgram("drain-" + std::to_string(++mCounter)), "60"});
    WaitForAlert(last.Pid());
}

// ---- private

Json::Value Agent::Get(const std::string& path) const {
    constexpr int ANY_PORT = 80;
    httplib::Client client(mRoot / "run/agent.sock", ANY_PORT);
    client.set_address_family(AF_UNIX);
    client.set_read_timeout(DEADLINE);
    const httplib::Result answer = client.Get(path);
    Json::Value value;
    if (!answer) {
        GiveUp("no answer to " + path + ": " + httplib::to_string(answer.error()));
    }
    if (SDK::JsonUtils::ParseJsonStr(answer->body, value) != 0) {
        GiveUp("the answer to " + path + " is not JSON: " + answer->body);
    }
    return value;
}

void Agent::WaitUntilReady() {
    WaitFor([&] { return mDaemon->HasEnded() || IsReady(); });
    if (mDaemon->HasEnded() || !IsReady()) {
        GiveUp("the daemon does not become ready");
    }
}

void Agent::WaitUntilSubscribed(std::int64_t atLeast) const {
    if (!WaitFor([&] { return CountSubscriptions() >= atLeast; })) {
        GiveUp("the module does not watch");
    }
}

// The lists are loaded after the subscription, the local one first; then the table of running
// processes is looked at.
void Agent::WaitUntilLoaded() const {
    if (!WaitFor([&] { return Status()["lists"]["local"].asInt() > 0; })) {
        GiveUp("the lists are not loaded");
    }
}

std::int64_t Agent::CountSubscriptions() const {
    return Status()["counters"]["events.subscribed"].asInt64();
}

void Agent::GiveUp(const std::string& what) const {
    const std::string log = mRoot.Read("log/corvalent.log");
    constexpr std::size_t LAST_BYTES = 4000;
    throw std::runtime_error(what + "\nthe daemon said: " + (mDaemon ? mDaemon->GetErrors() : "nothing") +
                             "\nend of its log:\n" + log.substr(log.size() - std::min(log.size(), LAST_BYTES)));
}

} // namespace SystemTest
