#include <algorithm>
#include <map>
#include <sstream>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/LoopbackListener.h"
#include "support/ScopedProcess.h"
#include "support/WaitFor.h"
#include "system/Agent.h"

namespace SystemTest {
namespace {

using testing::HasSubstr;
using testing::StartsWith;
using TestSupport::DEADLINE;
using TestSupport::ScopedProcess;
using TestSupport::WaitFor;

constexpr int PROGRAMS = 5;

// The values by name and labels, as they stand in the text.
using Samples = std::map<std::string, double>;

Samples ParseSamples(const std::string& text) {
    Samples samples;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with("#")) {
            const std::size_t blank = line.rfind(' ');
            EXPECT_TRUE(samples.emplace(line.substr(0, blank), std::stod(line.substr(blank + 1))).second) << line;
        }
    }
    return samples;
}

Samples ReadSamples(Agent& agent) {
    const Result printed = agent.Ctl({"metrics"});
    EXPECT_EQ(printed.status, 0) << printed.err;
    EXPECT_EQ(printed.err, "");
    return ParseSamples(printed.out);
}

Result RunProgram(const Agent& agent, const std::vector<std::string>& words, const std::string& input = "/dev/null") {
    Program program(words, agent.Work() / "program", input);
    EXPECT_TRUE(program.WaitForEnd(DEADLINE)) << words.front();
    return {program.GetStatus(), program.GetOutput(), program.GetErrors()};
}

// By the distribution's own interpreter, which finds the distribution's modules.
Result Lint(const Agent& agent, const std::string& metrics) {
    return RunProgram(agent, {"/usr/bin/python3", LINT_METRICS}, agent.Work().Write("metrics", metrics));
}

void ExpectNoFaults(const Agent& agent, const std::string& metrics) {
    const Result lint = Lint(agent, metrics);
    EXPECT_EQ(lint.status, 0) << lint.err;
    EXPECT_EQ(lint.err, "");
}

// Programs that nobody knows are started, found out and killed.
void StartUnknownPrograms(const Agent& agent) {
    for (int i = 0; i < PROGRAMS; ++i) {
        ScopedProcess unknown(agent.Scope().Path(), {agent.MakeProgram("unknown-" + std::to_string(i)), "60"});
        EXPECT_TRUE(unknown.Wait(DEADLINE));
        EXPECT_TRUE(unknown.WasKilled());
        agent.WaitForAlert(unknown.Pid());
    }
}

// An alert may be in the history a moment before the handling of its event is over: the samples, once
// nothing has been counted from one reading to the next.
Samples ReadQuiet(Agent& agent) {
    Samples last;
    Samples samples = ReadSamples(agent);
    const auto isQuiet = [&] {
        last = std::exchange(samples, ReadSamples(agent));
        return std::ranges::all_of(samples, [&](const auto& sample) {
            const auto& [name, value] = sample;
            return !name.starts_with("corvalent_event") || last.at(name) == value;
        });
    };
    EXPECT_TRUE(WaitFor(isQuiet));
    return samples;
}

double CountVerdicts(const Samples& samples) {
    return samples.at("corvalent_event_verdict_seconds_count{event=\"exec\"}") +
           samples.at("corvalent_event_verdict_seconds_count{event=\"fork\"}");
}

TEST(MetricsTest, TheDurationsCountWhatHappened) {
    Agent agent;
    agent.MakeDetecting({}, {.block = true});
    const Samples before = ReadQuiet(agent);
    StartUnknownPrograms(agent);
    const Samples after = ReadQuiet(agent);
    const auto grown = [&](const std::string& name) { return after.at(name) - before.at(name); };

    EXPECT_EQ(grown("corvalent_isolate_killed_total"), PROGRAMS);
    EXPECT_EQ(grown("corvalent_exec_kill_seconds_count"), PROGRAMS);
    EXPECT_EQ(grown("corvalent_alerts_total"), PROGRAMS);
    EXPECT_EQ(grown("corvalent_event_verdict_seconds_count{event=\"exec\"}"), grown("corvalent_events_exec_total"));
    EXPECT_GE(grown("corvalent_events_exec_total"), PROGRAMS);
    EXPECT_EQ(CountVerdicts(after) - CountVerdicts(before), grown("corvalent_events_judged_total"));
    EXPECT_GE(grown("corvalent_digest_seconds_count"), PROGRAMS);

    // A kill is part of a verdict, and both are over before the program is seen to have ended.
    const double killSeconds = grown("corvalent_exec_kill_seconds_sum");
    EXPECT_GT(killSeconds, 0);
    EXPECT_LT(killSeconds, grown("corvalent_event_verdict_seconds_sum{event=\"exec\"}"));
    EXPECT_LT(killSeconds, PROGRAMS * std::chrono::duration<double>(DEADLINE).count());
}

TEST(MetricsTest, TheFormatsOwnParserFindsNoFault) {
    Agent agent;
    agent.MakeDetecting({}, {.block = true});
    StartUnknownPrograms(agent);
    const Result printed = agent.Ctl({"metrics"});
    EXPECT_EQ(printed.status, 0) << printed.err;
    ExpectNoFaults(agent, printed.out);

    const Samples samples = ParseSamples(printed.out);
    EXPECT_EQ(samples.at("corvalent_mode{mode=\"detecting\"}"), 1);
    EXPECT_EQ(samples.at("corvalent_mode{mode=\"learning\"}"), 0);
    EXPECT_EQ(samples.at("corvalent_list_entries{list=\"local\"}"), 60);
    EXPECT_EQ(samples.at("corvalent_learned_seconds"), 43200 * 60);
    EXPECT_EQ(samples.at("corvalent_policy_enabled"), 1);
    EXPECT_EQ(samples.at("corvalent_queue_capacity_messages{task=\"process_manager_task\"}"), 10240);
    for (const std::string& counter : agent.Status()["counters"].getMemberNames()) {
        std::string name = "corvalent_" + counter + "_total";
        std::replace(name.begin(), name.end(), '.', '_');
        EXPECT_TRUE(samples.contains(name)) << name;
    }
}

TEST(MetricsTest, TheParserSeesFaults) {
    struct Faulty {
        const char* text;
        const char* fault;
    };
    const Agent agent;
    for (const auto& [text, fault] : std::vector<Faulty>{
             {"", "there are no metrics"},
             {"# HELP corvalent_x X.\n# TYPE corvalent_x counter\ncorvalent_x 1\n", "does not end in _total"},
             {"# TYPE corvalent_x gauge\ncorvalent_x 1\n", "the help is no sentence"},
             {"# HELP corvalent_x X.\n# TYPE corvalent_x gauge\ncorvalent_x NaN\n", "corvalent_x: nan"},
             {"# HELP corvalent_x X.\n# TYPE corvalent_x gauge\ncorvalent_x 1\ncorvalent_x 1\n", "corvalent_x: twice"},
             {"# HELP corvalent_x_minutes X.\n# TYPE corvalent_x_minutes gauge\ncorvalent_x_minutes 1\n",
              "no base unit"},
             {"corvalent_x{a=\"b} 1\n", "ValueError"}}) {
        const Result lint = Lint(agent, text);
        EXPECT_EQ(lint.status, 1) << text;
        EXPECT_THAT(lint.err, HasSubstr(fault)) << text;
    }
    ExpectNoFaults(agent, "# HELP corvalent_x X.\n# TYPE corvalent_x gauge\ncorvalent_x 1\n");
}

TEST(MetricsTest, ThePortServesTheSameAndEndsWithTheDaemon) {
    Agent agent;
    const int port = TestSupport::FindFreePort();
    const std::string url = "http://127.0.0.1:" + std::to_string(port);
    agent.Root().Write("conf/agent.json", R"({"scope": {"cgroup": ")" + agent.Scope().Name() +
                                              R"("}, "metrics": {"port": )" + std::to_string(port) + "}}");
    agent.MakeDetecting();

    const Result scraped = RunProgram(agent, {"curl", "--silent", "--show-error", "--include", url + "/metrics"});
    EXPECT_EQ(scraped.status, 0) << scraped.err;
    EXPECT_THAT(scraped.out, StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(scraped.out, HasSubstr("\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"));
    const std::string body = scraped.out.substr(scraped.out.find("\r\n\r\n") + 4);
    ExpectNoFaults(agent, body);
    const Samples ofPort = ParseSamples(body);
    const Samples ofSocket = ReadSamples(agent);
    ASSERT_EQ(ofPort.size(), ofSocket.size());
    for (const auto& [name, value] : ofSocket) {
        EXPECT_TRUE(ofPort.contains(name)) << name;
    }

    const auto statusOf = [&](const std::vector<std::string>& words) {
        std::vector<std::string> curl = {"curl", "--silent", "--output", "/dev/null", "--write-out", "%{http_code}"};
        curl.insert(curl.end(), words.begin(), words.end());
        return RunProgram(agent, curl).out;
    };
    EXPECT_EQ(statusOf({url + "/status"}), "404");
    EXPECT_EQ(statusOf({"--request", "POST", "--data", "x", url + "/metrics"}), "405");
    EXPECT_EQ(statusOf({"--request", "POST", "--data", "", url + "/command/whitelist_10004"}), "404");
    EXPECT_EQ(agent.GetMode(), DETECTING);

    agent.Stop();
    constexpr int CURL_CANNOT_CONNECT = 7;
    EXPECT_EQ(RunProgram(agent, {"curl", "--silent", url + "/metrics"}).status, CURL_CANNOT_CONNECT);
}

} // namespace
} // namespace SystemTest
