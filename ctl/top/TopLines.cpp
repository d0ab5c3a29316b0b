#include "ctl/top/TopLines.h"

#include <iomanip>
#include <numeric>
#include <sstream>

#include "ctl/Output.h"

namespace Ctl::Top {

namespace {

// Of text that has been escaped, so that a quote within does not end it.
std::string Quote(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        quoted += c == '"' ? "\\\"" : std::string(1, c);
    }
    return quoted + "\"";
}

std::string FormatUsage(const std::optional<Usage>& usage) {
    if (!usage) {
        return "cpu%=- rss_kib=-";
    }
    std::ostringstream text;
    text << "cpu%=" << std::fixed << std::setprecision(1);
    usage->cpuPercent ? text << *usage->cpuPercent : text << "-";
    text << " rss_kib=" << usage->residentKib;
    return text.str();
}

std::string FormatLatest(const View& view) {
    const std::string learned = view.learned.empty() ? "-" : Quote(view.learned.front().path);
    std::string alert = "-";
    if (!view.alerts.empty()) {
        const Alert& last = view.alerts.front();
        alert = Quote((last.blocked ? "blocked " : "seen ") + last.pid + " " + last.user + " " + last.path);
    }
    return "last_learned=" + learned + " last_alert=" + alert;
}

} // namespace

std::string FormatRate(const std::optional<Rates>& rates, double Rates::*kind) {
    if (!rates) {
        return "-";
    }
    std::ostringstream text;
    text << std::fixed << std::setprecision(1) << (*rates).*kind;
    return text.str();
}

std::string FormatLine(const View& view) {
    if (!view.noAnswer.empty()) {
        return FormatTime(view.time) + " no answer: " + view.noAnswer;
    }
    const std::int64_t queued = std::accumulate(view.queues.begin(), view.queues.end(), std::int64_t{0},
                                                [](std::int64_t sum, const Queue& queue) { return sum + queue.depth; });
    std::ostringstream line;
    line << FormatTime(view.time) << " mode=" << Quote(view.modeName) << " learned=" << view.learnedMinutes << "/"
         << view.learnPeriodMinutes << " exec/s=" << FormatRate(view.rates, &Rates::exec)
         << " fork/s=" << FormatRate(view.rates, &Rates::fork) << " exit/s=" << FormatRate(view.rates, &Rates::exit)
         << " judged/s=" << FormatRate(view.rates, &Rates::judged) << " lost=" << view.lost << " queued=" << queued
         << " local=" << view.local << " server=" << view.server << " os=" << view.osPreset
         << " service=" << view.servicePreset << " alerts=" << view.alertCount << " " << FormatUsage(view.usage) << " "
         << FormatLatest(view);
    return line.str();
}

} // namespace Ctl::Top
