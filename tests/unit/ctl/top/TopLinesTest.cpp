#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

#include "ctl/top/TopLines.h"

namespace {

using namespace Ctl::Top;

class TopLinesTest : public testing::Test {
protected:
    TopLinesTest() {
        setenv("TZ", "UTC", 1);
        tzset();
        view.time = 1767225599;
        view.modeName = "learning";
        view.learnedMinutes = 17;
        view.learnPeriodMinutes = 10080;
        view.queues = {{"a", 3, 16, 0}, {"b", 4, 16, 0}};
        view.local = 1;
        view.alertCount = 5;
    }

    View view;
};

TEST_F(TopLinesTest, WhatIsNotKnownIsADash) {
    EXPECT_EQ(FormatLine(view), "2025-12-31 23:59:59 mode=\"learning\" learned=17/10080 exec/s=- fork/s=- exit/s=- "
                                "judged/s=- lost=0 queued=7 local=1 server=0 os=0 service=0 alerts=5 cpu%=- "
                                "rss_kib=- last_learned=- last_alert=-");
}

TEST_F(TopLinesTest, RatesHaveOneDecimalAndTextsOfStrangersAreQuoted) {
    view.rates = {1.25, 2, 0, 100000, 0};
    view.usage = {2048, 0.4567};
    view.learned = {{0, "/bin/a b\"c"}, {0, "/bin/old"}};
    view.alerts = {{0, true, "7", "joe", "/tmp/evil"}};
    const std::string line = FormatLine(view);
    EXPECT_NE(line.find(" exec/s=1.2 fork/s=2.0 exit/s=0.0 judged/s=100000.0 "), std::string::npos) << line;
    EXPECT_NE(line.find(" cpu%=0.5 rss_kib=2048 last_learned=\"/bin/a b\\\"c\" last_alert=\"blocked 7 joe /tmp/evil\""),
              std::string::npos)
        << line;
    view.usage->cpuPercent.reset();
    view.alerts[0].blocked = false;
    EXPECT_NE(FormatLine(view).find(" cpu%=- rss_kib=2048 "), std::string::npos);
    EXPECT_NE(FormatLine(view).find("last_alert=\"seen 7 joe"), std::string::npos);
}

TEST_F(TopLinesTest, ADaemonThatIsAwayIsALineThatSaysWhy) {
    view.noAnswer = "no daemon listens on [x]";
    EXPECT_EQ(FormatLine(view), "2025-12-31 23:59:59 no answer: no daemon listens on [x]");
}

} // namespace
