#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "system/Agent.h"
#include "system/CtlOutput.h"

// Whether an operator gets to know of what went wrong, by each of the ways that there are.
namespace SystemTest {

inline std::int64_t CounterOf(const Agent& agent, const std::string& counter) {
    return agent.Status()["counters"][counter].asInt64();
}

// "events.lost" is corvalent_events_lost_total.
inline std::string MetricOf(const std::string& counter) {
    std::string name = "corvalent_" + counter + "_total";
    std::replace(name.begin(), name.end(), '.', '_');
    return name;
}

// The counter is above 0 in `status` and in the metrics, and `doctor` warns of it and says what to do.
inline void ExpectCounted(Agent& agent, const std::string& counter) {
    const std::int64_t count = CounterOf(agent, counter);
    EXPECT_GT(count, 0) << counter;
    EXPECT_THAT(agent.Ctl({"metrics"}).out, testing::ContainsRegex("\n" + MetricOf(counter) + " [1-9]"));
    const std::vector<Json::Value> findings = ParseLines(agent.Ctl({"doctor", "--json"}).out);
    const auto found = std::find_if(findings.begin(), findings.end(),
                                    [&](const Json::Value& finding) { return finding["check"] == counter; });
    ASSERT_NE(found, findings.end()) << counter;
    EXPECT_EQ((*found)["result"].asString(), "warning") << counter;
    EXPECT_THAT((*found)["remedy"].asString(), testing::Not(testing::IsEmpty())) << counter;
}

// The same, and a record in the log says it.
inline void ExpectTold(Agent& agent, const std::string& counter, const std::string& logged) {
    ExpectCounted(agent, counter);
    EXPECT_GE(agent.CountInLog(logged), 1) << logged;
}

} // namespace SystemTest
