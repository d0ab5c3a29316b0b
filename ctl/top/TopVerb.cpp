#include <chrono>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>
#include <unistd.h>

#include "ctl/Client.h"
#include "ctl/Interrupts.h"
#include "ctl/Output.h"
#include "ctl/Verbs.h"
#include "ctl/top/TopLines.h"
#include "ctl/top/TopPainter.h"
#include "ctl/top/TopSampler.h"

namespace Ctl {

namespace {

using namespace Top;
using Clock = std::chrono::steady_clock;

constexpr double MIN_INTERVAL = 0.1;
constexpr double MAX_INTERVAL = 3600;

// A daemon that needs longer is as good as away.
constexpr std::chrono::seconds ANSWER_WITHIN{5};

struct TopOptions {
    double interval = 1;
    std::uint64_t count = 0; // 0: until told to end

    bool IsReached(std::uint64_t samples) const { return count > 0 && samples >= count; }
    Clock::duration Interval() const {
        return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(interval));
    }
};

std::string CheckInterval(const std::string& text) {
    double seconds = 0;
    // Also untrue for what is no number.
    const bool good = CLI::detail::lexical_cast(text, seconds) && seconds >= MIN_INTERVAL && seconds <= MAX_INTERVAL;
    return good ? "" : "[" + text + "] is no number of seconds from 0.1 to 3600";
}

View TakeNow(TopSampler& sampler) {
    return sampler.Take(std::chrono::duration<double>(Clock::now().time_since_epoch()).count());
}

std::chrono::milliseconds Until(Clock::time_point time) {
    return std::max(std::chrono::ceil<std::chrono::milliseconds>(time - Clock::now()), std::chrono::milliseconds(0));
}

// ---- lines

// False when the program is to end before the time has come.
bool WaitUntil(const Interrupts& interrupts, Clock::time_point time) {
    while (!Interrupts::AreThere() && Clock::now() < time) {
        interrupts.Wait(-1, Until(time));
    }
    return !Interrupts::AreThere();
}

void PrintLines(TopSampler& sampler, const TopOptions& options) {
    const Interrupts interrupts;
    Clock::time_point next = Clock::now();
    for (std::uint64_t samples = 0; !options.IsReached(samples); ++samples) {
        if (!WaitUntil(interrupts, next)) {
            return;
        }
        next = Clock::now() + options.Interval();
        PrintLine(FormatLine(TakeNow(sampler)));
        FlushOutput();
    }
}

// ---- full screen

// The run on a terminal: what is seen, and what the keys have made of it.
class FullScreen {
public:
    // The first view is taken before the terminal is: a daemon that is not there is said as anywhere.
    FullScreen(TopSampler& sampler, const TopOptions& options)
        : mSampler(sampler), mOptions(options), mView(TakeNow(sampler)) {}

    void Run() {
        const Interrupts interrupts;
        const TopPainter painter;
        for (std::uint64_t samples = 1; !mEnd; ++samples) {
            painter.Paint(mView, mPaused);
            if (!AwaitNext(interrupts, painter) || mOptions.IsReached(samples)) {
                return;
            }
            mView = TakeNow(mSampler);
        }
    }

private:
    // Until it is time for another view. False when the program is to end.
    bool AwaitNext(const Interrupts& interrupts, const TopPainter& painter) {
        mRefresh = false;
        mNext = Clock::now() + mOptions.Interval();
        while (!mRefresh && (mPaused || Clock::now() < mNext)) {
            const auto wait = mPaused ? std::chrono::milliseconds(std::chrono::hours(1)) : Until(mNext);
            const Interrupts::Wake wake = interrupts.Wait(mKeys, wait);
            if (Interrupts::AreThere() || wake == Interrupts::Wake::GONE) {
                return false;
            }
            if (wake != Interrupts::Wake::TIME) {
                TakeKeys();
                painter.Paint(mView, mPaused);
            }
            if (mEnd) {
                return false;
            }
        }
        return true;
    }

    void TakeKeys() {
        using Key = TopPainter::Key;
        for (Key key = TopPainter::ReadKey(); key != Key::NONE; key = TopPainter::ReadKey()) {
            mEnd = mEnd || key == Key::QUIT;
            mRefresh = mRefresh || key == Key::REFRESH;
            mPaused = key == Key::PAUSE ? !mPaused : mPaused;
        }
    }

    TopSampler& mSampler;
    const TopOptions& mOptions;
    const int mKeys = isatty(STDIN_FILENO) == 1 ? STDIN_FILENO : -1; // -1: there are none
    View mView;
    Clock::time_point mNext;
    bool mPaused = false;
    bool mRefresh = false;
    bool mEnd = false;
};

bool CanPaint() {
    if (isatty(STDOUT_FILENO) != 1) {
        return false;
    }
    const std::string reason = TopPainter::WhyNot();
    if (!reason.empty()) {
        std::cerr << "corvalentctl: " << Escape(reason) << ", going on with plain lines\n";
    }
    return reason.empty();
}

void ShowTop(const Context& context, const TopOptions& options) {
    const Client client(context.root, ANSWER_WITHIN);
    TopSampler sampler([&client](const std::string& path) { return client.Get(path); });
    if (CanPaint()) {
        FullScreen(sampler, options).Run();
    } else {
        PrintLines(sampler, options);
    }
}

} // namespace

void AddTopVerb(CLI::App& app, const Context& context) {
    const auto options = std::make_shared<TopOptions>();
    CLI::App* verb = app.add_subcommand(
        "top", "Watch the agent live: mode, learning, events a second, queues, latest alerts and learned programs. "
               "On a terminal the whole screen (q quits, p pauses, r refreshes), otherwise a line an interval");
    verb->add_option("--interval", options->interval, "Seconds between two looks, 0.1 to 3600; 1 unless given")
        ->type_name("SECONDS")
        ->check(CheckInterval);
    verb->add_option("--count", options->count, "End after so many looks")->type_name("N")->check(CLI::PositiveNumber);
    verb->callback([&context, options] { ShowTop(context, *options); });
}

} // namespace Ctl
