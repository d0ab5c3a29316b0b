#include <cstdint>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <json/json.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include "growth/Agent.h"
#include "growth/Figures.h"
#include "growth/TrustList.h"
#include "support/Report.h"

namespace Bench {

namespace {

constexpr const char* LOCAL_LIST = "conf/whitelist.data";
constexpr double MS = 1e3;

void Require(bool done, const char* what) {
    if (!done) {
        throw std::runtime_error(what);
    }
}

// The tree that comes of it is freed with the object, as the product's list is outside of what is timed.
class Parser {
public:
    Parser() {
        Json::CharReaderBuilder builder;
        Json::CharReaderBuilder::strictMode(&builder.settings_);
        mReader.reset(builder.newCharReader());
    }
    void Parse(const std::string& text) {
        std::string errors;
        Require(mReader->parse(text.data(), text.data() + text.size(), &mDocument, &errors), "the document is no JSON");
    }

private:
    std::unique_ptr<Json::CharReader> mReader;
    Json::Value mDocument;
};

void WriteAndSync(const std::string& path, const std::string& text) {
    const int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
    const bool done = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                      fsync(fd) == 0 && close(fd) == 0;
    Require(done, "the floor cannot write");
}

// proc(5): the resident part in pages.
double ReadResidentBytes() {
    std::ifstream file("/proc/self/statm");
    double total = 0;
    double resident = 0;
    file >> total >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// In a process of its own, whose heap nobody has used before; returns what it reports.
template <typename Work> double InChild(Work work) {
    int ends[2];
    Require(pipe(ends) == 0, "no pipe");
    const pid_t child = fork();
    if (child == 0) {
        const double value = work();
        const bool told = write(ends[1], &value, sizeof value) == sizeof value;
        _exit(told ? 0 : 1);
    }
    close(ends[1]);
    double value = 0;
    const bool told = read(ends[0], &value, sizeof value) == sizeof value;
    close(ends[0]);
    int status = 0;
    Require(waitpid(child, &status, 0) == child && told, "the child did not tell");
    return value;
}

} // namespace

void MeasureLoad(int round) {
    const std::string document = ToDocument(MakeEntries("", LARGE_LIST));
    Agent agent(Agent::Mode::Learning);
    agent.root.Write(LOCAL_LIST, document);
    const auto report = [](const char* series, double seconds) {
        Report({"trust list: load of 10 MiB", "", series, seconds * MS, "ms", {{Goal::Bound::AtMost, 1.3, "jsoncpp"}}});
    };
    const auto floor = [&] {
        Parser parser;
        Report({"trust list: load of 10 MiB", "", "jsoncpp", Seconds([&] { parser.Parse(document); }) * MS, "ms", {}});
    };
    const auto product = [&] {
        report("corvalent", Seconds([&] { Require(agent.engine.InitLocalProcessFromFile(), "no load"); }));
        Require(agent.engine.CountLocalTrust() == LARGE_LIST, "not all was loaded");
    };
    Alternate(round, {floor, product});
}

void MeasureStore(int round) {
    TestSupport::TempDir files;
    const std::vector<TrustEntry> entries = MakeEntries(files.Path(), LARGE_LIST);
    MakeFiles(entries);
    const std::string document = ToDocument(entries);
    Agent agent(Agent::Mode::Learning);
    agent.root.Write(LOCAL_LIST, document);
    Require(agent.engine.InitLocalProcessFromFile(), "no load");
    const auto floor = [&] {
        Report({"trust list: store of 10 MiB",
                "",
                "write and sync",
                Seconds([&] { WriteAndSync(agent.root / "floor", document); }) * MS,
                "ms",
                {}});
    };
    const auto product = [&] {
        Report({"trust list: store of 10 MiB",
                "",
                "corvalent",
                Seconds([&] { Require(agent.engine.PersistencyLocalProcess(), "not stored"); }) * MS,
                "ms",
                {}});
        Require(agent.root.Read(LOCAL_LIST) == document, "other bytes were stored");
    };
    Alternate(round, {floor, product});
}

void MeasureMemory(int round) {
    const std::vector<TrustEntry> entries = MakeEntries("", LARGE_LIST);
    const double own = static_cast<double>(CountStringBytes(entries)) / LARGE_LIST;
    const std::string document = ToDocument(entries);
    const auto report = [](const char* list, const char* series, double bytes) {
        Report({"trust list: resident memory of an entry",
                list,
                series,
                bytes,
                "bytes",
                {{Goal::Bound::AtMost, 2.5, "its strings"}}});
    };
    const auto measure = [&](const char* list, auto load) {
        report(list, "corvalent", InChild([&] {
                   Agent agent(Agent::Mode::Learning);
                   agent.root.Write(LOCAL_LIST, document);
                   // Nothing to be had for free: what the parent has freed would be used again.
                   malloc_trim(0);
                   const double before = ReadResidentBytes();
                   load(agent.engine);
                   return (ReadResidentBytes() - before) / LARGE_LIST;
               }));
        Report({"trust list: resident memory of an entry", list, "its strings", own, "bytes", {}});
    };
    Alternate(round, {[&] { measure("local", [](Engine::ProcessManager& engine) { engine.Onstart(); }); },
                      [&] {
                          measure("server", [&](Engine::ProcessManager& engine) {
                              engine.SyncServerTrustProcess(document.data(), document.size());
                          });
                      }});
}

} // namespace Bench
