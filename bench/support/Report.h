#pragma once

#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

namespace Bench {

// What a measurement ought to be, as a ratio to another series of the same figure and case in the same
// round; to nothing but the number itself where no series is named. The median of the rounds has to meet it; the
// worst of them where it says so, or names no series.
struct Goal {
    enum class Bound { AtLeast, AtMost };
    Bound bound = Bound::AtLeast;
    double limit = 0;
    std::string of;
    bool everyRound = of.empty();
};

// One value out of one round. Higher levels repeat the rounds and compare; a program only reports.
struct Measurement {
    std::string figure; // what a plot is drawn of
    std::string kase;   // a group of bars in the plot, or the x of a curve; may be empty
    std::string series; // the product, a peer, a floor
    double value = 0;
    std::string unit;
    std::vector<Goal> goals;
};

inline Json::Value ToJson(const Goal& goal) {
    Json::Value json(Json::objectValue);
    json[goal.bound == Goal::Bound::AtLeast ? "at_least" : "at_most"] = goal.limit;
    if (!goal.of.empty()) {
        json["of"] = goal.of;
    }
    if (goal.everyRound) {
        json["every_round"] = true;
    }
    return json;
}

// Prints the measurement as one line of JSON.
inline void Report(const Measurement& measurement) {
    Json::Value json(Json::objectValue);
    json["figure"] = measurement.figure;
    json["case"] = measurement.kase;
    json["series"] = measurement.series;
    json["value"] = measurement.value;
    json["unit"] = measurement.unit;
    for (const Goal& goal : measurement.goals) {
        json["goals"].append(ToJson(goal));
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::cout << Json::writeString(builder, json) << std::endl;
}

} // namespace Bench
