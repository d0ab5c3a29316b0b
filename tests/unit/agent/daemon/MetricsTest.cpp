#include "agent/daemon/Metrics.h"

#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "agent/daemon/CounterHelp.h"
#include "sdk/JsonUtils.h"
#include "support/TempRoot.h"

using Daemon::RenderMetrics;
using testing::HasSubstr;
using testing::Not;

namespace {

Json::Value Parse(const std::string& text) {
    Json::Value value;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text, value), 0);
    return value;
}

const char* const STATUS = R"({
    "mode": 1, "mode_name": "learning", "learned_minutes": 17, "learn_period_minutes": 10080,
    "lists": {"local": 5, "server": 6, "os_preset": 7, "service_preset": 8},
    "tasks": [{"name": "a_task", "state": "running", "depth": 3, "capacity": 64, "lost": 9},
              {"name": "a_task", "state": "stopping", "depth": 1, "capacity": 64, "lost": 1}],
    "counters": {"events.exec": 12, "queue.lost": 10, "module.own-counter": 2},
    "files": {"marks": 4, "failed_marks": 1},
    "policy": {"hash": "h", "accepted_time": 1767225599, "enabled": true},
    "alerts": 21, "desired_detect": true})";

// The names in the first column of a section's table.
std::set<std::string> NamesInReference(const std::string& section) {
    const std::string reference = TestSupport::TempDir::ReadText(REFERENCE);
    const std::size_t begin = reference.find("\n## " + section + "\n");
    EXPECT_NE(begin, std::string::npos);
    std::istringstream lines(reference.substr(begin, reference.find("\n## ", begin + 1) - begin));
    std::set<std::string> names;
    const std::regex quoted("`([a-z_.]+)");
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("| `")) {
            const std::string column = line.substr(0, line.find('|', 1));
            for (std::sregex_iterator at(column.begin(), column.end(), quoted), end; at != end; ++at) {
                names.insert((*at)[1]);
            }
        }
    }
    return names;
}

// The families of a text by their TYPE lines.
std::set<std::string> NamesIn(const std::string& text) {
    std::set<std::string> names;
    const std::regex type("# TYPE (\\S+) .*");
    std::istringstream lines(text);
    std::smatch match;
    for (std::string line; std::getline(lines, line);) {
        if (std::regex_match(line, match, type)) {
            names.insert(match[1]);
        }
    }
    return names;
}

} // namespace

TEST(MetricsTest, EveryCounterOfTheReferenceHasAHelpTextAndTheOtherWayRound) {
    std::set<std::string> helped;
    for (const Daemon::CounterHelp& counter : Daemon::ListCounterHelp()) {
        EXPECT_TRUE(helped.insert(counter.name).second) << counter.name << " is there twice";
        EXPECT_TRUE(std::string(counter.help).ends_with(".")) << counter.name;
    }
    EXPECT_EQ(helped, NamesInReference("Counters"));
}

TEST(MetricsTest, EveryMetricIsInTheReferenceAndTheOtherWayRound) {
    std::set<std::string> named = NamesIn(RenderMetrics(Parse(STATUS)));
    std::erase_if(named, [](const std::string& name) {
        return std::ranges::any_of(Daemon::ListCounterHelp(), [&](const Daemon::CounterHelp& counter) {
            return name ==
                   "corvalent_" + std::regex_replace(std::string(counter.name), std::regex("\\."), "_") + "_total";
        });
    });
    named.erase("corvalent_module_own_counter_total");
    EXPECT_EQ(named, NamesInReference("Metrics"));
}

TEST(MetricsTest, TheStatusIsToldInBaseUnits) {
    const std::string text = RenderMetrics(Parse(STATUS));
    for (const char* line :
         {"corvalent_mode{mode=\"learning\"} 1", "corvalent_mode{mode=\"stopped\"} 0",
          "corvalent_mode{mode=\"learned\"} 0", "corvalent_mode{mode=\"detecting\"} 0", "corvalent_mode_known 1",
          "corvalent_learned_seconds 1020", "corvalent_learning_period_seconds 604800",
          "corvalent_list_entries{list=\"local\"} 5", "corvalent_list_entries{list=\"service_preset\"} 8",
          "corvalent_policy_accepted_time_seconds 1767225599", "corvalent_policy_enabled 1",
          "corvalent_detection_wished 1", "corvalent_alerts_total 21", "corvalent_file_marks{state=\"standing\"} 4",
          "corvalent_file_marks{state=\"failed\"} 1", "corvalent_events_exec_total 12",
          "corvalent_losses_total{reason=\"queue_full\"} 10"}) {
        EXPECT_THAT(text, HasSubstr("\n" + std::string(line) + "\n"));
    }
    EXPECT_THAT(text, HasSubstr(std::string("corvalent_build_info{version=\"") + CORVALENT_VERSION + "\"} 1\n"));
}

TEST(MetricsTest, TwoTasksOfOneNameAreOneSample) {
    const std::string text = RenderMetrics(Parse(STATUS));
    EXPECT_THAT(text, HasSubstr("\ncorvalent_queue_messages{task=\"a_task\"} 4\n"));
    EXPECT_THAT(text, HasSubstr("\ncorvalent_queue_capacity_messages{task=\"a_task\"} 128\n"));
    EXPECT_THAT(text, HasSubstr("\ncorvalent_queue_refused_messages_total{task=\"a_task\"} 10\n"));
}

TEST(MetricsTest, ACounterThatNothingHasCountedYetIsZeroAndOneThatNobodyDescribedIsThere) {
    const std::string text = RenderMetrics(Parse(STATUS));
    EXPECT_THAT(text, HasSubstr("\ncorvalent_isolate_killed_total 0\n"));
    EXPECT_THAT(text, HasSubstr("# HELP corvalent_module_own_counter_total The counter module.own-counter.\n"));
    EXPECT_THAT(text, HasSubstr("\ncorvalent_module_own_counter_total 2\n"));
}

TEST(MetricsTest, WhatTheStatusDoesNotKnowIsLeftOut) {
    const std::string text = RenderMetrics(
        Parse(R"({"mode": null, "lists": null, "learned_minutes": null, "policy": null, "alerts": null})"));
    EXPECT_THAT(text, HasSubstr("\ncorvalent_mode_known 0\n"));
    for (const char* name : {"corvalent_mode{", "corvalent_list", "corvalent_learned", "corvalent_policy",
                             "corvalent_alerts", "corvalent_file_marks", "nan"}) {
        EXPECT_THAT(text, Not(HasSubstr(name)));
    }
}

TEST(MetricsTest, TheProcessFiguresArePlausible) {
    const std::string text = RenderMetrics(Json::Value(Json::objectValue));
    const auto value = [&](const std::string& name) {
        const std::size_t at = text.find("\n" + name + " ");
        EXPECT_NE(at, std::string::npos) << name;
        return std::stod(text.substr(at + name.size() + 2));
    };
    EXPECT_GT(value("process_resident_memory_bytes"), 1 << 20U);
    EXPECT_GT(value("process_virtual_memory_bytes"), value("process_resident_memory_bytes"));
    EXPECT_GT(value("process_cpu_seconds_total"), 0);
    EXPECT_GE(value("process_open_fds"), 3);
    EXPECT_GE(value("process_max_fds"), value("process_open_fds"));
    const auto now = static_cast<double>(std::time(nullptr));
    EXPECT_LE(value("process_start_time_seconds"), now + 1);
    EXPECT_GT(value("process_start_time_seconds"), now - 600);
}
