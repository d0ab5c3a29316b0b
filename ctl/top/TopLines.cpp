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
    return "cpu%=" + FormatDecimal(usage->cpuPercent) + " rss_kib=" + std::to_string(usage->residentKib);
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

std::string FormatDecimal(std::optional<double> number) {
    if (!number) {
        return "-";
    }
    std::ostringstream text;
    text << std::fixed << std::setprecision(1) << *number;
    return text.str();
}

std::string FormatRate(const std::optional<Rates>& rates, double Rates::*kind) {
    return FormatDecimal(rates ? std::optional((*rates).*kind) : std::nullopt);
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
