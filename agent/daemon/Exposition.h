#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "sdk/Histogram.h"

namespace Daemon {

// Writes metrics in the Prometheus text exposition format, version 0.0.4
// (https://prometheus.io/docs/instrumenting/exposition_formats/).
//
// The text is the same for the same metrics in whatever order they were added: families are sorted by
// name and samples by labels. Each family has its help and type once; a sample that is added twice is
// one sample with the sum; a family that already has another type keeps it and what is added is left
// out. Values that are not finite are left out: there is nothing to say where nothing is known.
//
// Names of metrics and labels are the caller's to get right; texts may be any bytes.
//
// Not thread-safe.
class Exposition {
public:
    // What the format is called in HTTP.
    static constexpr const char* CONTENT_TYPE = "text/plain; version=0.0.4; charset=utf-8";

    struct Family {
        std::string name;
        std::string help;
    };
    using Labels = std::vector<std::pair<std::string, std::string>>;

    void AddCounter(const Family& family, double value, const Labels& labels = {});
    void AddGauge(const Family& family, double value, const Labels& labels = {});

    // Durations are written in seconds, so the family's name ends in "_seconds".
    void AddHistogram(const Family& family, const SDK::Histogram::Snapshot& snapshot, const Labels& labels = {});

    std::string Render() const;

private:
    struct Samples {
        std::string type;
        std::string help;
        // By the labels as they are written, without braces. A family has either values or histograms.
        std::map<std::string, double> values;
        std::map<std::string, SDK::Histogram::Snapshot> histograms;
    };

    Samples* Find(const Family& family, const char* type);
    void AddValue(const Family& family, const char* type, double value, const Labels& labels);

    std::map<std::string, Samples> mFamilies;
};

} // namespace Daemon
