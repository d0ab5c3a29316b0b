#include <csignal>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/ScopedProcess.h"
#include "support/Terminal.h"
#include "support/WaitFor.h"
#include "system/Agent.h"

namespace SystemTest {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using TestSupport::ScopedProcess;
using TestSupport::Terminal;
using TestSupport::WaitFor;

constexpr Terminal::Size SCREEN = {40, 120};
constexpr int RED = 1; // as terminals number their colours

std::vector<std::string> TopOf(const Agent& agent, const std::vector<std::string>& options = {}) {
    std::vector<std::string> words = {
        agent.Root() / "bin/corvalentctl", "--root", agent.Root().Path(), "top", "--interval", "0.1"};
    words.insert(words.end(), options.begin(), options.end());
    return words;
}

// ---- a line an interval

TEST(TopTest, WithoutATerminalThereIsALineAnIntervalAndNothingElse) {
    Agent agent;
    agent.Start();

    const Result top = agent.Ctl({"top", "--interval", "0.1", "--count", "3"});

    EXPECT_EQ(top.status, 0);
    EXPECT_EQ(top.err, "");
    EXPECT_EQ(std::count(top.out.begin(), top.out.end(), '\n'), 3) << top.out;
    EXPECT_THAT(top.out,
                AllOf(HasSubstr("mode="), HasSubstr(" exec/s=- "), HasSubstr(" exec/s=0.0 "), HasSubstr(" lost=0 "),
                      HasSubstr("last_learned=- last_alert=-\n"), Not(HasSubstr("\033"))));
    EXPECT_THAT(top.out, ContainsRegex("rss_kib=[1-9][0-9]+ "));
}

TEST(TopTest, TheLinesShowWhatIsLearnedAndWhatIsAlerted) {
    Agent agent;
    agent.MakeDetecting();
    const std::string stranger = agent.MakeProgram("str\"ange\n");
    const ScopedProcess process(agent.Scope().Path(), {stranger, "60"});
    agent.WaitForAlert(process.Pid());

    const Result top = agent.Ctl({"top", "--count", "1"});

    EXPECT_EQ(top.status, 0);
    EXPECT_THAT(top.out, HasSubstr(" mode=\"detect"));
    EXPECT_THAT(top.out, HasSubstr(" local=60 "));
    EXPECT_THAT(top.out, HasSubstr("last_alert=\"seen " + std::to_string(process.Pid()) + " "));
    EXPECT_THAT(top.out, HasSubstr("str\\\"ange\\n\"\n"));
}

TEST(TopTest, TheLinesGoOnWhenTheDaemonGoesAwayAndWhenItIsBack) {
    Agent agent;
    agent.Start();
    Program top(TopOf(agent), agent.Work() / "top");
    ASSERT_TRUE(WaitFor([&] { return top.GetOutput().find("mode=") != std::string::npos; }));

    agent.Stop();
    EXPECT_TRUE(
        WaitFor([&] { return top.GetOutput().find(" no answer: no daemon listens on [") != std::string::npos; }));
    agent.Start();
    EXPECT_TRUE(WaitFor([&] { return top.GetOutput().rfind("mode=") > top.GetOutput().rfind("no answer"); }))
        << top.GetOutput();

    top.Signal(SIGTERM);
    ASSERT_TRUE(top.WaitForEnd(TestSupport::DEADLINE));
    EXPECT_EQ(top.GetStatus(), 0);
    EXPECT_EQ(top.GetErrors(), "");
}

TEST(TopTest, WithoutADaemonAtTheStartItIsStatus69OnATerminalToo) {
    Agent agent;
    const Result top = agent.Ctl({"top"});
    EXPECT_EQ(top.status, 69);
    EXPECT_EQ(top.out, "");
    EXPECT_THAT(top.err, HasSubstr("corvalentctl: no daemon listens on ["));

    Terminal terminal(TopOf(agent), SCREEN);
    EXPECT_EQ(terminal.Wait(), 69);
    EXPECT_THAT(terminal.Raw(), AllOf(HasSubstr("no daemon listens on ["), Not(HasSubstr("\033"))));
}

TEST(TopTest, IntervalsAndCountsThatAreNoneAreBadUsage) {
    Agent agent;
    for (const std::vector<std::string>& options : std::vector<std::vector<std::string>>{{"--interval", "0"},
                                                                                         {"--interval", "nan"},
                                                                                         {"--interval", "-1"},
                                                                                         {"--interval", "4000"},
                                                                                         {"--interval", "x"},
                                                                                         {"--count", "0"},
                                                                                         {"--count", "-1"},
                                                                                         {"--count", "1.5"},
                                                                                         {"surplus"}}) {
        std::vector<std::string> words = {"top"};
        words.insert(words.end(), options.begin(), options.end());
        const Result top = agent.Ctl(words);
        EXPECT_EQ(top.status, 2) << testing::PrintToString(options);
        EXPECT_EQ(top.out, "");
        EXPECT_EQ(std::count(top.err.begin(), top.err.end(), '\n'), 1) << top.err;
    }
}

// ---- the whole screen

TEST(TopTest, TheScreenShowsTheAgentDetectingAndItsAlerts) {
    Agent agent;
    agent.MakeDetecting();
    Terminal top(TopOf(agent), SCREEN);
    ASSERT_TRUE(top.WaitForText("LATEST LEARNED")) << top.Text();
    EXPECT_THAT(top.Text(), AllOf(HasSubstr("pid " + std::to_string(agent.GetPid())), HasSubstr("mode      detect"),
                                  HasSubstr(agent.Scope().Name()), HasSubstr("##] 100 %, 43200 of 10080 minutes"),
                                  HasSubstr("local 60  server 0"), HasSubstr("process_manager_task        ["),
                                  HasSubstr("q quit  p pause  r refresh")));
    EXPECT_TRUE(top.WaitForText("judged 0.0")) << top.Text();

    const ScopedProcess process(agent.Scope().Path(), {agent.MakeProgram("\033[31mstranger"), "60"});
    EXPECT_TRUE(top.WaitForText("\\x1b[31mstranger")) << top.Text();
    EXPECT_EQ(top.ColourOf("seen"), 3);

    top.Type("q");
    EXPECT_EQ(top.Wait(), 0);
    EXPECT_TRUE(top.IsRestored());
}

TEST(TopTest, AProgramThatWasBlockedIsRed) {
    Agent agent;
    PolicyOptions options;
    options.block = true;
    agent.MakeDetecting({}, options);
    ScopedProcess process(agent.Scope().Path(), {agent.MakeProgram("stranger"), "60"});
    agent.WaitForAlert(process.Pid());

    Terminal top(TopOf(agent), SCREEN);
    EXPECT_TRUE(top.WaitForText("blocked")) << top.Text();
    EXPECT_EQ(top.ColourOf("blocked"), RED);

    Terminal colourless(TopOf(agent), SCREEN, {"NO_COLOR=1"});
    EXPECT_TRUE(colourless.WaitForText("blocked")) << colourless.Text();
    EXPECT_EQ(colourless.ColourOf("blocked"), -1);
}

TEST(TopTest, TheScreenShowsProgramsAsTheyAreLearned) {
    Agent agent;
    agent.Start();
    agent.ApplyAndWatch({});
    Terminal top(TopOf(agent), SCREEN);
    ASSERT_TRUE(top.WaitForText("0 %, 0 of 10080 minutes")) << top.Text();

    const ScopedProcess process(agent.Scope().Path(), {agent.MakeProgram("novice"), "60"});

    EXPECT_TRUE(top.WaitForText("programs/novice")) << top.Text();
    EXPECT_THAT(top.Text(), HasSubstr("mode      learning"));
}

TEST(TopTest, KeysPauseAndRefreshTheScreen) {
    Agent agent;
    agent.MakeDetecting();
    Terminal top(TopOf(agent), SCREEN);
    ASSERT_TRUE(top.WaitForText("p pause"));

    top.Type("p");
    ASSERT_TRUE(top.WaitForText("PAUSED")) << top.Text();
    const ScopedProcess process(agent.Scope().Path(), {agent.MakeProgram("stranger"), "60"});
    agent.WaitForAlert(process.Pid());
    EXPECT_THAT(top.Text(), Not(HasSubstr("programs/stranger")));

    top.Type("r");
    EXPECT_TRUE(top.WaitForText("programs/stranger")) << top.Text();
    EXPECT_THAT(top.Text(), HasSubstr("PAUSED"));

    top.Type("p");
    EXPECT_TRUE(top.WaitUntilGone("PAUSED")) << top.Text();
}

TEST(TopTest, AScreenOfAnySizeIsFilledAndNothingWraps) {
    Agent agent;
    agent.MakeDetecting();
    Terminal top(TopOf(agent), SCREEN);
    ASSERT_TRUE(top.WaitForText("LATEST LEARNED"));

    top.Resize({12, 30});
    EXPECT_TRUE(WaitFor([&] { return top.Text().find("\nq quit  p pause  r refresh\n") != std::string::npos; }))
        << top.Text();
    EXPECT_THAT(top.Text(), Not(HasSubstr("LATEST LEARNED")));
    top.Resize({3, 8});
    EXPECT_TRUE(WaitFor([&] { return top.Text().ends_with("\nq quit\n") || top.Text().ends_with("\nq quit  \n"); }))
        << top.Text();
    top.Resize({30, 100});
    EXPECT_TRUE(top.WaitForText("LATEST LEARNED")) << top.Text();

    top.Type("q");
    EXPECT_EQ(top.Wait(), 0);
}

TEST(TopTest, TheScreenSaysWhenTheDaemonIsAwayAndGoesOnWhenItIsBack) {
    Agent agent;
    agent.Start();
    Terminal top(TopOf(agent), SCREEN);
    ASSERT_TRUE(top.WaitForText("LATEST LEARNED"));

    agent.Stop();
    EXPECT_TRUE(top.WaitForText("no answer: no daemon listens on [")) << top.Text();
    agent.Start();
    EXPECT_TRUE(top.WaitUntilGone("no answer")) << top.Text();
    EXPECT_TRUE(top.WaitForText("pid " + std::to_string(agent.GetPid()))) << top.Text();
}

TEST(TopTest, ASignalEndsItAndTheTerminalIsAsItWas) {
    Agent agent;
    agent.Start();
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        Terminal top(TopOf(agent), SCREEN);
        ASSERT_TRUE(top.WaitForText("LATEST LEARNED"));
        EXPECT_FALSE(top.IsRestored());

        top.Signal(signal);

        EXPECT_EQ(top.Wait(), 0) << signal;
        EXPECT_TRUE(top.IsRestored()) << signal;
    }
}

TEST(TopTest, ACountEndsTheScreen) {
    Agent agent;
    agent.Start();
    Terminal top(TopOf(agent, {"--count", "2"}), SCREEN);
    EXPECT_EQ(top.Wait(), 0);
    EXPECT_TRUE(top.IsRestored());
}

TEST(TopTest, ATerminalThatCannotBePaintedOnGetsPlainLinesAndANote) {
    Agent agent;
    agent.Start();
    for (const std::string name : {"no-such-terminal", "dumb", ""}) {
        Terminal top(TopOf(agent, {"--count", "1"}), SCREEN, {"TERM=" + name});
        EXPECT_EQ(top.Wait(), 0) << name;
        EXPECT_THAT(top.Raw(), AllOf(HasSubstr("the terminal [" + name + "] "), HasSubstr("going on with plain lines"),
                                     HasSubstr(" mode="), Not(HasSubstr("\033"))));
    }
}

} // namespace
} // namespace SystemTest
