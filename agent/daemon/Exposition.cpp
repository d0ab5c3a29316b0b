#include "agent/daemon/Exposition.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include <Poco/TextConverter.h>
#include <Poco/UTF8Encoding.h>

namespace Daemon {

namespace {

constexpr double NS_PER_SECOND = 1e9;

// Control characters could steer the terminal of whoever looks; the format knows a form of its own for
// the newline alone.
int HideControls(int character) {
    constexpr int FIRST_PRINTABLE = 0x20;
    constexpr int DELETE = 0x7F;
    constexpr int LAST_CONTROL = 0x9F;
    constexpr int REPLACEMENT = 0xFFFD;
    const bool control = character < FIRST_PRINTABLE || (character >= DELETE && character <= LAST_CONTROL);
    return control && character != '\n' ? REPLACEMENT : character;
}

// The format is UTF-8; paths and names are bytes.
std::string MakePrintable(const std::string& text) {
    constexpr int REPLACEMENT = 0xFFFD;
    Poco::UTF8Encoding utf8;
    Poco::TextConverter converter(utf8, utf8, REPLACEMENT);
    std::string printable;
    converter.convert(text, printable, HideControls);
    return printable;
}

// The quotation mark is written as it is in a help text and escaped in the value of a label.
std::string EscapeText(const std::string& text, bool quoted) {
    std::string escaped;
    for (const char c : MakePrintable(text)) {
        if (c == '\\') {
            escaped += "\\\\";
        } else if (c == '\n') {
            escaped += "\\n";
        } else if (c == '"' && quoted) {
            escaped += "\\\"";
        } else {
            escaped += c;
        }
    }
    return escaped;
}

std::string FormatLabels(const Exposition::Labels& labels) {
    std::string text;
    for (const auto& [name, value] : labels) {
        text += text.empty() ? "" : ",";
        text.append(name).append("=\"").append(EscapeText(value, true)).append("\"");
    }
    return text;
}

// Whole numbers without exponent as long as they are exact, everything else in the shortest form that
// leads back to the same number.
std::string FormatNumber(double value) {
    constexpr double FIRST_INEXACT = 9007199254740992.0; // 2^53
    std::array<char, 32> digits{};
    char* const end = digits.data() + digits.size();
    const bool isWhole = std::trunc(value) == value && std::fabs(value) < FIRST_INEXACT;
    const std::to_chars_result result = isWhole ? std::to_chars(digits.data(), end, static_cast<std::int64_t>(value))
                                                : std::to_chars(digits.data(), end, value);
    return {digits.data(), result.ptr};
}

std::string FormatSample(const std::string& name, const std::string& labels, double value) {
    std::string line = name;
    if (!labels.empty()) {
        line.append("{").append(labels).append("}");
    }
    return line.append(" ").append(FormatNumber(value)).append("\n");
}

std::string FormatBucket(const std::string& name, const std::string& labels, const std::string& bound, double count) {
    std::string all = labels;
    all.append(all.empty() ? "" : ",").append("le=\"").append(bound).append("\"");
    return FormatSample(name + "_bucket", all, count);
}

std::string FormatHistogram(const std::string& name, const std::string& labels,
                            const SDK::Histogram::Snapshot& snapshot) {
    std::string text;
    std::uint64_t atMost = 0;
    for (std::size_t i = 0; i < SDK::Histogram::BOUNDS_NS.size(); ++i) {
        atMost += snapshot.counts[i];
        const double bound = static_cast<double>(SDK::Histogram::BOUNDS_NS[i]) / NS_PER_SECOND;
        text += FormatBucket(name, labels, FormatNumber(bound), static_cast<double>(atMost));
    }
    text += FormatBucket(name, labels, "+Inf", static_cast<double>(snapshot.count));
    text += FormatSample(name + "_sum", labels, static_cast<double>(snapshot.sumNs) / NS_PER_SECOND);
    return text + FormatSample(name + "_count", labels, static_cast<double>(snapshot.count));
}

} // namespace

void Exposition::AddCounter(const Family& family, double value, const Labels& labels) {
    AddValue(family, "counter", value, labels);
}

void Exposition::AddGauge(const Family& family, double value, const Labels& labels) {
    AddValue(family, "gauge", value, labels);
}

void Exposition::AddHistogram(const Family& family, const SDK::Histogram::Snapshot& snapshot, const Labels& labels) {
    Samples* const samples = Find(family, "histogram");
    if (samples == nullptr) {
        return;
    }
    SDK::Histogram::Snapshot& sum = samples->histograms[FormatLabels(labels)];
    for (std::size_t i = 0; i < sum.counts.size(); ++i) {
        sum.counts[i] += snapshot.counts[i];
    }
    sum.count += snapshot.count;
    sum.sumNs += snapshot.sumNs;
}

std::string Exposition::Render() const {
    std::string text;
    for (const auto& [name, samples] : mFamilies) {
        text.append("# HELP ").append(name).append(" ").append(EscapeText(samples.help, false)).append("\n");
        text.append("# TYPE ").append(name).append(" ").append(samples.type).append("\n");
        for (const auto& [labels, value] : samples.values) {
            text += FormatSample(name, labels, value);
        }
        for (const auto& [labels, snapshot] : samples.histograms) {
            text += FormatHistogram(name, labels, snapshot);
        }
    }
    return text;
}

// Null when the family has another type.
Exposition::Samples* Exposition::Find(const Family& family, const char* type) {
    Samples& samples = mFamilies[family.name];
    if (samples.type.empty()) {
        samples.type = type;
        samples.help = family.help;
    }
    return samples.type == type ? &samples : nullptr;
}

void Exposition::AddValue(const Family& family, const char* type, double value, const Labels& labels) {
    if (!std::isfinite(value)) {
        return;
    }
    if (Samples* const samples = Find(family, type)) {
        samples->values[FormatLabels(labels)] += value;
    }
}

} // namespace Daemon
