#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <json/value.h>

namespace Ctl::Top {

// What happened a second between two samples.
struct Rates {
    double exec = 0;
    double fork = 0;
    double exit = 0;
    double judged = 0;
    double lost = 0;
};

struct Queue {
    std::string task;
    std::int64_t depth = 0;
    std::int64_t capacity = 0;
    std::int64_t lost = 0; // since the task was started
};

struct Learned {
    std::int64_t time = 0; // seconds since the epoch
    std::string path;
};

struct Alert {
    std::int64_t time = 0; // seconds since the epoch
    bool blocked = false;  // or only seen
    std::string pid;
    std::string user;
    std::string path;
};

// What the daemon's process uses of the machine.
struct Usage {
    std::int64_t residentKib = 0;
    std::optional<double> cpuPercent{}; // of one core, between two samples
};

// What there is to show. Texts are escaped.
struct View {
    std::int64_t time = 0; // seconds since the epoch

    // Why the daemon did not answer; empty when it did. Everything below is then as it was last.
    std::string noAnswer;

    int mode = -1; // -1 when not known
    std::string modeName;
    bool detectionWished = false;
    std::string scope; // empty for the whole machine
    std::string agent; // version, pid, how long it has been up
    std::int64_t learnedMinutes = 0;
    std::int64_t learnPeriodMinutes = 0; // 0 when there is no policy

    std::optional<Rates> rates{}; // nothing until there are two samples of the same daemon
    std::int64_t lost = 0;        // process events, since the daemon's start
    std::int64_t local = 0;       // entries of the lists
    std::int64_t server = 0;
    std::int64_t osPreset = 0;
    std::int64_t servicePreset = 0;
    std::vector<Queue> queues;
    std::optional<Usage> usage{};

    std::int64_t alertCount = 0;
    std::vector<Alert> alerts;    // the latest, newest first
    std::vector<Learned> learned; // the latest, newest first
    std::string historyProblem;   // why there are none; empty when that is just so
};

// Asks the daemon once an interval, and makes rates of two answers.
class TopSampler {
public:
    // Gives the daemon's answer to a request for `path`; throws Failure (Client::Get).
    using Source = std::function<Json::Value(const std::string& path)>;

    // `proc` is where the daemon's process is looked up, with a trailing "/".
    explicit TopSampler(Source source, std::string proc = "/proc/");

    // The view now; `seconds` is a time that never goes back. Throws Failure when the daemon has never
    // answered; later a daemon that is away is a view that says so.
    View Take(double seconds);

private:
    // What the rates are made of.
    struct Sample {
        double seconds = 0;
        int pid = 0;
        Json::Value events;
        std::optional<std::int64_t> cpuTicks;
    };

    void TakeStatus(double seconds);
    void TakeUsage(Sample& sample);
    void TakeHistory();

    Json::Value TakeNew(const char* type, std::size_t limit, std::int64_t& lastId) const;

    const Source mSource;
    const std::string mProc;
    int mPid = 0;
    std::optional<Sample> mLast;
    std::optional<View> mView; // nothing until the first answer

    // The latest of the history that was read so far, up to the reports with these ids; newest first.
    std::vector<Alert> mAlerts;
    std::vector<Learned> mLearned;
    std::int64_t mLastAlertId = 0;
    std::int64_t mLastLearnedId = 0;
};

} // namespace Ctl::Top
