#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TrustEngineTest.h"
#include "support/ForeignProcess.h"

namespace EngineTest {

namespace {

using TestSupport::ForeignProcess;

constexpr unsigned int EXEC = 1;
constexpr unsigned int FORK = 2;
constexpr unsigned int EXIT = 3;

// Does the work again and again until `done`; it is told how often it has been done before.
std::thread Repeat(const std::atomic<bool>& done, const std::function<void(int)>& work) {
    return std::thread([&done, work] {
        for (int turn = 0; !done; ++turn) {
            work(turn);
        }
    });
}

// The engine at work: events are judged while a command replaces lists, an upload drains and the clock
// restarts the engine. Each list alternates between two versions, and every version vouches for one
// program of that list; nothing but learning ever vouches for the strangers.
class ConcurrencyTest : public TrustEngineTest {
protected:
    static constexpr int ROUNDS = 200;
    static constexpr int STRANGERS = 3;

    ConcurrencyTest() {
        for (const char* list : {"local", "server", "os", "service"}) {
            vouchedFor.push_back(root.Write(std::string("bin/") + list, std::string("the tool of ") + list));
        }
        for (int version = 0; version < 2; ++version) {
            const std::string other = "/version/" + std::to_string(version);
            servers.push_back(List({EntryOf(vouchedFor[1]), Entry(other, Digest(other), 1)}));
            osPresets.push_back(OfferPreset("os" + std::to_string(version), vouchedFor[2], other));
            servicePresets.push_back(OfferPreset("service" + std::to_string(version), vouchedFor[3], other));
        }
        for (int i = 0; i < STRANGERS; ++i) {
            const std::string program = CopyProgram("/bin/sleep", "stranger" + std::to_string(i));
            processes.push_back(
                std::make_unique<ForeignProcess>(TestSupport::ForeignStart{.words = {program, "1000"}}));
            strangers.push_back(program);
        }
        const std::string script = root.Write("script.sh", "echo ready; read -r line\n");
        processes.push_back(std::make_unique<ForeignProcess>(
            TestSupport::ForeignStart{.words = {CopyProgram("/bin/bash", "bash"), script}}));
        EXPECT_TRUE(processes.back()->AwaitLine());
        strangers.push_back(script);

        root.Write("conf/whitelist.data", List({EntryOf(vouchedFor[0])}));
        root.Write("conf/arsserverproc.data", servers[0]);
        auto running = agent.Processes().GetProcsMap();
        running[1].pid = 1;
        running[1].path = vouchedFor[0];
        agent.Processes().Set(running);
    }

    // Runs the engine's four threads until the events are through. No log: it would only serve as a
    // lock that the agent does not have.
    void Run() {
        Poco::Logger::setLevel("", Message::PRIO_ERROR);
        engine.Onstart();
        ASSERT_TRUE(SyncPresets(0));
        std::atomic<bool> done{false};
        std::thread command = Repeat(done, [this](int turn) { Command(turn % 2); });
        std::thread upload = Repeat(done, [this](int) { Upload(); });
        std::thread clock = Repeat(done, [this](int) { Tick(); });
        std::thread events([this] { Judge(); });
        events.join();
        done = true;
        command.join();
        upload.join();
        clock.join();
    }

    std::vector<std::string> vouchedFor; // by the local, the server, the OS and the service list
    std::vector<std::string> strangers;
    std::vector<std::unique_ptr<ForeignProcess>> processes; // of the strangers
    std::atomic<int> wrongVerdicts{0};
    std::atomic<int> failedCommands{0};

private:
    static std::string EntryOf(const std::string& path) {
        return Entry(path, DigestOfFile(path), static_cast<std::int64_t>(std::filesystem::file_size(path)));
    }

    // Makes a preset list that can be fetched; returns the command to do so.
    std::string OfferPreset(const std::string& name, const std::string& tool, const std::string& other) const {
        const std::string document = List({PresetEntry(DigestOfFile(tool)), PresetEntry(Digest(other))});
        return R"({"url":"file://)" + root.Write("download/" + name, document) + R"(","hash":")" + Digest(document) +
               R"("})";
    }

    bool SyncPresets(int version) const {
        const std::string& os = osPresets[version];
        const std::string& service = servicePresets[version];
        return engine.SyncOsPresetProcess(os.data(), os.size()) &&
               engine.SyncServicePresetProcess(service.data(), service.size());
    }

    void Command(int version) {
        const std::string& server = servers[version];
        engine.SyncServerTrustProcess(server.data(), server.size());
        const bool persisted = engine.PersistencyServerProcess(server.data(), server.size());
        failedCommands += persisted && SyncPresets(version) ? 0 : 1;
    }

    void Upload() const {
        std::string text;
        engine.GetIncreaseProcess(text);
        engine.GetAllProcess(text);
        engine.PersistencyLocalProcess();
    }

    void Tick() const {
        engine.Onstop();
        engine.Onstart();
        engine.HandleLearnProcessData();
        engine.DelExitedAllProcess();
    }

    void Judge() {
        for (int round = 0; round < ROUNDS; ++round) {
            for (const auto& process : processes) {
                engine.OnProcessNotify(EXEC, process->Pid(), 1);
                engine.OnProcessNotify(FORK, process->Pid(), process->Pid());
                engine.OnProcessNotify(EXIT, process->Pid(), 0);
                engine.GetProcessInfoFromIDDefinite(process->Pid());
            }
            for (std::size_t list = 0; list < vouchedFor.size(); ++list) {
                int source = 0;
                const bool known = engine.IsWhiteHash(DigestOfFile(vouchedFor[list]), vouchedFor[list], source);
                wrongVerdicts += known && source == static_cast<int>(list) + 1 ? 0 : 1;
            }
            const bool strangerTrusted = engine.ProcessVerify(processes.front()->Pid());
            wrongVerdicts += strangerTrusted && ConfigManager::Instance()->GetMod() != Engine::MOD_LEARN ? 1 : 0;
            ProcessInfo local = Record(vouchedFor[0], DigestOfFile(vouchedFor[0]));
            wrongVerdicts += engine.IsTrustProcess(local) ? 0 : 1;
        }
    }

    std::vector<std::string> servers;
    std::vector<std::string> osPresets;
    std::vector<std::string> servicePresets;
};

} // namespace

TEST_F(ConcurrencyTest, WhileLearningEveryVerdictStandsAndEverythingIsLearned) {
    Configure(Engine::MOD_LEARN);
    Run();
    EXPECT_EQ(failedCommands, 0);
    EXPECT_EQ(wrongVerdicts, 0);
    for (const auto& process : processes) {
        engine.OnProcessNotify(EXEC, process->Pid(), 1);
    }
    std::string text;
    engine.GetIncreaseProcess(text);
    EXPECT_TRUE(engine.PersistencyLocalProcess());
    const Json::Value document = Parse(root.Read("conf/whitelist.data"));
    EXPECT_EQ(document["process_info"].size(), strangers.size() + 1);
}

TEST_F(ConcurrencyTest, WhileDetectingEveryVerdictStandsAndEveryStrangerIsAlerted) {
    Configure(Engine::MOD_DETECT, false, true);
    Run();
    EXPECT_EQ(failedCommands, 0);
    EXPECT_EQ(wrongVerdicts, 0);
    EXPECT_EQ(agent.Reports().Of("whitelist_4").size(), processes.size() * ROUNDS * 2);
}

TEST_F(ConcurrencyTest, InDirectoryModeEveryVerdictStands) {
    Configure(Engine::MOD_DETECT, true, true);
    Run();
    EXPECT_EQ(failedCommands, 0);
    EXPECT_EQ(wrongVerdicts, 0);
    EXPECT_TRUE(agent.Reports().Of("whitelist_4").empty());
    EXPECT_FALSE(agent.Reports().Of("whitelist_2").empty());
}

namespace {

// Rows come, change and go on two threads while others use what they looked up.
class TableConcurrencyTest : public TrustEngineTest {
protected:
    static constexpr int PIDS = 8;
    static constexpr int FIRST_PID = 5000000; // no process's
    static constexpr int LOOK_UPS = 3000;

    // Every field that is text tells which version of the row it belongs to.
    static ProcessInfo Row(int pid, int version) {
        const std::string text = "a text that is too long for the string itself, of version " + std::to_string(version);
        ProcessInfo row = Record("/" + text, text);
        row.pid = pid;
        row.cmdline = text;
        return row;
    }

    static bool IsWhole(const ProcessInfo& row, int pid) {
        return row.pid == pid && row.path == "/" + row.hash && row.cmdline == row.hash;
    }

    void Overwrite(int version) const { engine.AddToAllProcessMap(Row(FIRST_PID + version % PIDS, version)); }

    void Erase(int turn) const {
        engine.OnProcessExit(FIRST_PID + turn % PIDS);
        engine.DelExitedAllProcess();
    }

    // A row and its neighbour, both used after both have been looked up. True when there was such a row.
    bool LookUp(int turn) {
        const int pid = FIRST_PID + turn % PIDS;
        const int neighbour = FIRST_PID + (turn + 1) % PIDS;
        const ProcessInfo* row = engine.GetProcessInfoFromID(pid);
        const ProcessInfo* other = engine.GetParentProcessInfo(ChildOf(neighbour));
        damaged += row != nullptr && !IsWhole(*row, pid) ? 1 : 0;
        damaged += other != nullptr && !IsWhole(*other, neighbour) ? 1 : 0;
        return row != nullptr;
    }

    std::atomic<int> damaged{0};

private:
    static ProcessInfo ChildOf(int parent) {
        ProcessInfo child;
        child.ppid = parent;
        return child;
    }
};

} // namespace

TEST_F(TableConcurrencyTest, ARowThatWasLookedUpStaysWholeWhileOthersOverwriteAndEraseIt) {
    std::atomic<bool> done{false};
    std::thread overwriting = Repeat(done, [this](int turn) { Overwrite(turn); });
    std::thread erasing = Repeat(done, [this](int turn) { Erase(turn); });
    const auto lookUp = [this] {
        for (int turn = 0, found = 0; found < LOOK_UPS; ++turn) {
            found += LookUp(turn) ? 1 : 0;
        }
    };
    std::thread looking(lookUp);
    lookUp();
    looking.join();
    done = true;
    overwriting.join();
    erasing.join();
    EXPECT_EQ(damaged, 0);
}

} // namespace EngineTest
