#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <openssl/evp.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/process_collect/ProcsScanTask.h"
#include "growth/Agent.h"
#include "growth/Figures.h"
#include "support/Report.h"

namespace Bench {

namespace {

constexpr int IMAGES = 50;
constexpr int PROCESSES = 2000;
constexpr std::size_t IMAGE_BYTES = 1U << 20U;
constexpr double MS = 1e3;

// A digest of a file that was just written is not remembered.
constexpr std::chrono::milliseconds SETTLE_TIME{3500};

// Processes that sleep, of programs of their own, killed at the end.
class Sleepers {
public:
    Sleepers() {
        for (int i = 0; i < IMAGES; ++i) {
            MakeImage(mFolder / ("image-" + std::to_string(i)));
        }
        const auto written = std::chrono::steady_clock::now();
        for (int i = 0; i < PROCESSES; ++i) {
            Start(mImages[static_cast<std::size_t>(i % IMAGES)]);
        }
        std::this_thread::sleep_until(written + SETTLE_TIME);
    }
    ~Sleepers() {
        for (const auto& [pid, process] : mProcesses) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    Sleepers(const Sleepers&) = delete;
    Sleepers& operator=(const Sleepers&) = delete;

    const std::vector<std::string>& Images() const { return mImages; }

    // Of the whole table as the agent reads it, what is ours.
    Engine::ProcsFullTask::ProcsMap ReadTable() const {
        Engine::ProcsFullTask::ProcsMap table = Poco::AutoPtr(new Engine::ProcsScanTask)->GetProcsMap();
        std::erase_if(table, [&](const auto& row) { return mProcesses.count(row.first) == 0; });
        if (table.size() != PROCESSES) {
            throw std::runtime_error("a process is missing");
        }
        return table;
    }

private:
    void MakeImage(const std::string& path) {
        std::filesystem::copy_file("/bin/sleep", path);
        std::ofstream image(path, std::ios::app | std::ios::binary);
        std::mt19937_64 random(mImages.size());
        for (std::size_t size = std::filesystem::file_size(path); size < IMAGE_BYTES; size += sizeof(std::uint64_t)) {
            const std::uint64_t bytes = random();
            image.write(reinterpret_cast<const char*>(&bytes), sizeof bytes);
        }
        mImages.push_back(path);
    }

    void Start(std::string image) {
        std::string duration = "1000";
        char* const words[] = {image.data(), duration.data(), nullptr};
        pid_t pid = 0;
        if (posix_spawn(&pid, image.c_str(), nullptr, nullptr, words, environ) != 0) {
            throw std::runtime_error("a process cannot be started");
        }
        mProcesses[pid] = image;
    }

    TestSupport::TempDir mFolder;
    std::vector<std::string> mImages;
    std::map<pid_t, std::string> mProcesses;
};

void HashAlone(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> buffer(65536);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr);
    while (file.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || file.gcount() > 0) {
        EVP_DigestUpdate(context.get(), buffer.data(), static_cast<std::size_t>(file.gcount()));
    }
    std::vector<unsigned char> digest(EVP_MAX_MD_SIZE);
    if (EVP_DigestFinal_ex(context.get(), digest.data(), nullptr) != 1) {
        throw std::runtime_error("no digest");
    }
}

// Of images of its own, whose digests nothing in this process remembers.
void MeasureMode(int round, Agent::Mode mode, const char* name) {
    const Sleepers sleepers;
    Agent agent(mode);
    const auto floor = [&] {
        const double seconds = Seconds([&] {
            for (const std::string& image : sleepers.Images()) {
                HashAlone(image);
            }
        });
        Report({"start: 2,000 processes of 50 images", name, "hashing the images", seconds * MS, "ms", {}});
    };
    const auto product = [&] {
        const double seconds = Seconds([&] {
            agent.around.Processes().Set(sleepers.ReadTable());
            if (!agent.engine.InitTrustProcess()) {
                throw std::runtime_error("the processes were not looked at");
            }
        });
        Report({"start: 2,000 processes of 50 images",
                name,
                "corvalent",
                seconds * MS,
                "ms",
                {{Goal::Bound::AtMost, 2, "hashing the images"}}});
    };
    Alternate(round, {floor, product});
}

} // namespace

void MeasureStart(int round) {
    // Which mode begins changes every other round, so that either meets both orders of floor and product.
    Alternate(round / 2, {[&] { MeasureMode(round, Agent::Mode::Learning, "learning"); },
                          [&] { MeasureMode(round, Agent::Mode::Directory, "directory mode"); }});
}

} // namespace Bench
