#include "ctl/top/TopSampler.h"

#include <algorithm>
#include <ctime>
#include <fstream>
#include <iterator>
#include <utility>

#include <unistd.h>

#include "ctl/Failure.h"
#include "ctl/Output.h"
#include "modules/ReportTypes.h"
#include "sdk/JsonUtils.h"
#include "sdk/ProcStat.h"

namespace Ctl::Top {

namespace {

using SDK::JsonUtils;

// As many as any screen shows.
constexpr std::size_t MAX_SHOWN = 50;

// One of them may hold some thousand processes.
constexpr std::size_t MAX_LEARNED_REPORTS = 10;

std::int64_t Number(const Json::Value& object, const char* key) {
    return JsonUtils::GetInt64Value(object, key, 0);
}

// Puts what is newer before what is there.
template <typename Thing> void PutBefore(std::vector<Thing>& things, std::vector<Thing> newer) {
    newer.insert(newer.end(), things.begin(), things.end());
    newer.resize(std::min(newer.size(), MAX_SHOWN));
    things.swap(newer);
}

// How fast a counter grew.
double RateOf(const char* counter, const Json::Value& before, const Json::Value& now, double seconds) {
    const std::int64_t grown = Number(now, counter) - Number(before, counter);
    return static_cast<double>(std::max<std::int64_t>(grown, 0)) / seconds;
}

std::vector<Queue> ReadQueues(const Json::Value& tasks) {
    std::vector<Queue> queues;
    for (const Json::Value& task : tasks) {
        queues.push_back({Field(task, "name"), Number(task, "depth"), Number(task, "capacity"), Number(task, "lost")});
    }
    return queues;
}

// The member as it stands in a column: never empty.
std::string Column(const Json::Value& object, const char* key) {
    const std::string text = Field(object, key);
    return text.empty() ? "-" : text;
}

Alert ReadAlert(const Json::Value& report) {
    const Json::Value data = Member(report, "data");
    const Json::Value process = Member(data, "process_info");
    return {JsonUtils::GetInt64Value(data, "occur_time", Number(report, "time")),
            JsonUtils::GetIntValue(process, "block", 0) == 1, Column(process, "process_pid"),
            Column(process, "process_username"), Column(process, "process_path")};
}

// The processes of one report, the last first.
void AddLearned(const Json::Value& report, std::vector<Learned>& learned) {
    const Json::Value processes = Member(Member(report, "data"), "process_info");
    for (Json::ArrayIndex i = processes.isArray() ? processes.size() : 0; i > 0 && learned.size() < MAX_SHOWN; --i) {
        learned.push_back({Number(report, "time"), Field(processes[i - 1], "path")});
    }
}

std::optional<SDK::ProcStat> ReadStat(const std::string& path) {
    std::ifstream file(path);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    SDK::ProcStat stat;
    return SDK::ProcStat::Parse(text, stat) ? std::optional(stat) : std::nullopt;
}

} // namespace

TopSampler::TopSampler(Source source, std::string proc) : mSource(std::move(source)), mProc(std::move(proc)) {}

View TopSampler::Take(double seconds) {
    try {
        TakeStatus(seconds);
        TakeHistory();
    } catch (const Failure& failure) {
        if (!mView) {
            throw;
        }
        mLast.reset();
        mView->noAnswer = Escape(failure.what());
    }
    mView->time = std::time(nullptr);
    return *mView;
}

void TopSampler::TakeStatus(double seconds) {
    const Json::Value status = mSource("/status");
    const Json::Value lists = Member(status, "lists");
    mView = View();
    mView->mode = JsonUtils::GetIntValue(status, "mode", -1);
    mView->modeName = mView->mode < 0 ? "not known" : Field(status, "mode_name");
    mView->detectionWished = JsonUtils::GetBoolValue(status, "desired_detect", false);
    mView->scope = Escape(JsonUtils::GetStringValue(status, "scope", ""));
    mView->agent = Field(status, "version") + ", pid " + Field(status, "pid") + ", up " +
                   FormatDuration(Number(status, "uptime_seconds"));
    mView->learnedMinutes = Number(status, "learned_minutes");
    mView->learnPeriodMinutes = Number(status, "learn_period_minutes");
    mView->local = Number(lists, "local");
    mView->server = Number(lists, "server");
    mView->osPreset = Number(lists, "os_preset");
    mView->servicePreset = Number(lists, "service_preset");
    mView->queues = ReadQueues(Member(status, "tasks"));
    mView->alertCount = Number(status, "alerts");

    Sample sample{seconds, JsonUtils::GetIntValue(status, "pid", 0), Member(status, "events"), std::nullopt};
    mView->lost = Number(sample.events, "lost");
    // Another daemon counts from 0 again, and its history may be another one.
    if (mPid != sample.pid) {
        mPid = sample.pid;
        mLast.reset();
        mAlerts.clear();
        mLearned.clear();
        mLastAlertId = 0;
        mLastLearnedId = 0;
    }
    if (mLast && seconds <= mLast->seconds) {
        mLast.reset();
    }
    TakeUsage(sample);
    if (mLast) {
        const auto rate = [&](const char* counter) {
            return RateOf(counter, mLast->events, sample.events, seconds - mLast->seconds);
        };
        mView->rates = {rate("exec"), rate("fork"), rate("exit"), rate("judged"), rate("lost")};
    }
    mLast = sample;
}

// Nothing where the daemon's process cannot be seen, in a container for instance.
void TopSampler::TakeUsage(Sample& sample) {
    constexpr std::int64_t KIB = 1024;
    const std::optional<SDK::ProcStat> stat = ReadStat(mProc + std::to_string(sample.pid) + "/stat");
    if (!stat) {
        return;
    }
    sample.cpuTicks = static_cast<std::int64_t>(stat->userTicks + stat->kernelTicks);
    Usage usage{stat->residentPages * (sysconf(_SC_PAGESIZE) / KIB)};
    if (mLast && mLast->cpuTicks) {
        constexpr double PERCENT = 100;
        const auto ticks = static_cast<double>(*sample.cpuTicks - *mLast->cpuTicks);
        usage.cpuPercent =
            ticks / static_cast<double>(sysconf(_SC_CLK_TCK)) / (sample.seconds - mLast->seconds) * PERCENT;
    }
    mView->usage = usage;
}

// A history that cannot be read is no reason to show nothing else.
void TopSampler::TakeHistory() {
    try {
        std::vector<Alert> alerts;
        for (const Json::Value& report : TakeNew(Engine::REPORT_ALERT, MAX_SHOWN, mLastAlertId)) {
            alerts.push_back(ReadAlert(report));
        }
        PutBefore(mAlerts, alerts);
        std::vector<Learned> learned;
        for (const Json::Value& report : TakeNew(Engine::REPORT_NEW_PROCESSES, MAX_LEARNED_REPORTS, mLastLearnedId)) {
            AddLearned(report, learned);
        }
        PutBefore(mLearned, learned);
    } catch (const Failure& failure) {
        if (failure.GetStatus() == EXIT_NO_DAEMON) {
            throw;
        }
        mView->historyProblem = Escape(failure.what());
    }
    mView->alerts = mAlerts;
    mView->learned = mLearned;
}

// The reports of that type that are newer than `lastId`, newest first; moves `lastId` to the newest.
Json::Value TopSampler::TakeNew(const char* type, std::size_t limit, std::int64_t& lastId) const {
    Json::Value reports = Member(mSource("/reports?newest_first&after=" + std::to_string(lastId) +
                                         "&limit=" + std::to_string(limit) + "&type=" + type),
                                 "reports");
    for (const Json::Value& report : reports) {
        lastId = std::max(lastId, Number(report, "id"));
    }
    return reports;
}

} // namespace Ctl::Top
