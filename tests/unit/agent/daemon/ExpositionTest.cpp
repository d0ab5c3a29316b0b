#include "agent/daemon/Exposition.h"

#include <cmath>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using Daemon::Exposition;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

TEST(ExpositionTest, AFamilyIsItsHelpItsTypeAndItsSamples) {
    Exposition exposition;
    exposition.AddCounter({"eggs_total", "Eggs laid."}, 3, {{"hen", "b"}});
    exposition.AddCounter({"eggs_total", "Eggs laid."}, 5, {{"hen", "a"}});
    EXPECT_EQ(exposition.Render(), "# HELP eggs_total Eggs laid.\n"
                                   "# TYPE eggs_total counter\n"
                                   "eggs_total{hen=\"a\"} 5\n"
                                   "eggs_total{hen=\"b\"} 3\n");
}

TEST(ExpositionTest, TheOrderOfAddingDoesNotMatter) {
    Exposition one;
    one.AddGauge({"b", "B."}, 1);
    one.AddGauge({"a", "A."}, 2);
    Exposition other;
    other.AddGauge({"a", "A."}, 2);
    other.AddGauge({"b", "B."}, 1);
    EXPECT_EQ(one.Render(), other.Render());
    EXPECT_THAT(one.Render(), StartsWith("# HELP a "));
}

TEST(ExpositionTest, NothingIsAnEmptyText) {
    EXPECT_EQ(Exposition().Render(), "");
}

TEST(ExpositionTest, LabelsAndHelpAreEscaped) {
    Exposition exposition;
    exposition.AddGauge({"g", "a\\b\n\"c\""}, 1, {{"l", "a\\b\n\"c\""}});
    EXPECT_EQ(exposition.Render(), "# HELP g a\\\\b\\n\"c\"\n"
                                   "# TYPE g gauge\n"
                                   "g{l=\"a\\\\b\\n\\\"c\\\"\"} 1\n");
}

TEST(ExpositionTest, WhatIsNoTextBecomesAReplacementCharacter) {
    Exposition exposition;
    exposition.AddGauge({"g", "G."}, 1, {{"l", "caf\xC3\xA9 \xFF \x1b[31m\t"}});
    EXPECT_THAT(exposition.Render(), HasSubstr("l=\"caf\xC3\xA9 \xEF\xBF\xBD \xEF\xBF\xBD[31m\xEF\xBF\xBD\"} 1\n"));
}

TEST(ExpositionTest, NumbersAreExactAndReadable) {
    Exposition exposition;
    exposition.AddGauge({"a", "A."}, 20557824);
    exposition.AddGauge({"b", "B."}, 0.1);
    exposition.AddGauge({"c", "C."}, -0.0);
    exposition.AddGauge({"d", "D."}, 1e300);
    exposition.AddGauge({"e", "E."}, 9007199254740991.0);
    const std::string text = exposition.Render();
    for (const char* line : {"\na 20557824\n", "\nb 0.1\n", "\nc 0\n", "\nd 1e+300\n", "\ne 9007199254740991\n"}) {
        EXPECT_THAT(text, HasSubstr(line));
    }
}

TEST(ExpositionTest, WhatIsNotFiniteIsLeftOut) {
    Exposition exposition;
    exposition.AddGauge({"a", "A."}, std::nan(""));
    exposition.AddGauge({"b", "B."}, std::numeric_limits<double>::infinity());
    exposition.AddCounter({"c_total", "C."}, -std::numeric_limits<double>::infinity());
    EXPECT_EQ(exposition.Render(), "");
}

TEST(ExpositionTest, ASampleIsThereOnceWithTheSum) {
    Exposition exposition;
    exposition.AddGauge({"g", "G."}, 1, {{"l", "x"}});
    exposition.AddGauge({"g", "Another help."}, 2, {{"l", "x"}});
    EXPECT_EQ(exposition.Render(), "# HELP g G.\n# TYPE g gauge\ng{l=\"x\"} 3\n");
}

TEST(ExpositionTest, AFamilyKeepsItsType) {
    Exposition exposition;
    exposition.AddGauge({"g", "G."}, 1);
    exposition.AddCounter({"g", "G."}, 2);
    exposition.AddHistogram({"g", "G."}, {});
    EXPECT_EQ(exposition.Render(), "# HELP g G.\n# TYPE g gauge\ng 1\n");
}

TEST(ExpositionTest, TheBucketsOfAHistogramAreSummedUpInSeconds) {
    SDK::Histogram histogram;
    histogram.Record(1'500);
    histogram.Record(2'500);
    histogram.Record(3'000'000);
    histogram.Record(100'000'000'000);
    Exposition exposition;
    exposition.AddHistogram({"h_seconds", "H."}, histogram.Read(), {{"l", "x"}});
    const std::string text = exposition.Render();
    EXPECT_THAT(text, StartsWith("# HELP h_seconds H.\n# TYPE h_seconds histogram\n"));
    for (const char* line :
         {"h_seconds_bucket{l=\"x\",le=\"1e-06\"} 0\n", "h_seconds_bucket{l=\"x\",le=\"2.5e-06\"} 2\n",
          "h_seconds_bucket{l=\"x\",le=\"0.0025\"} 2\n", "h_seconds_bucket{l=\"x\",le=\"0.005\"} 3\n",
          "h_seconds_bucket{l=\"x\",le=\"10\"} 3\n", "h_seconds_bucket{l=\"x\",le=\"+Inf\"} 4\n",
          "h_seconds_sum{l=\"x\"} 100.003004\n", "h_seconds_count{l=\"x\"} 4\n"}) {
        EXPECT_THAT(text, HasSubstr(line));
    }
}

TEST(ExpositionTest, AHistogramWithoutLabelsHasTheBoundAlone) {
    Exposition exposition;
    exposition.AddHistogram({"h_seconds", "H."}, {});
    EXPECT_THAT(exposition.Render(),
                HasSubstr("\nh_seconds_bucket{le=\"+Inf\"} 0\nh_seconds_sum 0\nh_seconds_count 0\n"));
}
