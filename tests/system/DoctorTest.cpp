#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/WaitFor.h"
#include "system/Agent.h"
#include "system/CtlOutput.h"

namespace SystemTest {
namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

// What `doctor --json` found, by the name of the check.
std::map<std::string, Json::Value> FindingsOf(const Result& doctor) {
    std::map<std::string, Json::Value> findings;
    for (const Json::Value& finding : ParseLines(doctor.out)) {
        const std::string name = finding["check"].asString();
        EXPECT_FALSE(findings.contains(name)) << name;
        // Who is warned is told what to do.
        EXPECT_EQ(finding["result"] == "ok", finding["remedy"].asString().empty()) << name;
        EXPECT_NE(finding["found"].asString(), "") << name;
        findings[name] = finding;
    }
    return findings;
}

void ExpectFinding(const Result& doctor, const std::string& check, const std::string& result,
                   const std::string& found) {
    const auto findings = FindingsOf(doctor);
    ASSERT_TRUE(findings.contains(check)) << check << "\n" << doctor.out;
    EXPECT_EQ(findings.at(check)["result"].asString(), result) << testing::PrintToString(findings.at(check));
    EXPECT_THAT(findings.at(check)["found"].asString(), HasSubstr(found));
}

TEST(DoctorTest, AnAgentThatDetectsIsWell) {
    Agent agent;
    agent.MakeDetecting();

    const Result doctor = agent.Ctl({"doctor", "--json"});

    EXPECT_EQ(doctor.status, 0) << doctor.err << doctor.out;
    EXPECT_EQ(doctor.err, "");
    ExpectFinding(doctor, "process events", "ok", "");
    ExpectFinding(doctor, "fanotify", "ok", "marks can be placed");
    ExpectFinding(doctor, "control groups", "ok", agent.Scope().Name());
    ExpectFinding(doctor, "daemon", "ok", "pid " + std::to_string(agent.GetPid()));
    ExpectFinding(doctor, "its version", "ok", "as corvalentctl");
    ExpectFinding(doctor, "its rights", "ok", "all that it needs");
    ExpectFinding(doctor, "its service", "warning", "not started by a service manager");
    ExpectFinding(doctor, "policy", "ok", "hash policy-1");
    ExpectFinding(doctor, "detection", "ok", "wished, and a fact");
    ExpectFinding(doctor, "data/reports.db", "ok", "whole");
    ExpectFinding(doctor, "conf/whitelist.data", "ok", "bytes");
    ExpectFinding(doctor, "events.lost", "ok", "0");
}

TEST(DoctorTest, PeopleReadTheSameFindingsAndASum) {
    Agent agent;
    agent.MakeDetecting();

    const Result doctor = agent.Ctl({"doctor"});

    EXPECT_EQ(doctor.status, 0) << doctor.err;
    EXPECT_THAT(doctor.out,
                AllOf(HasSubstr("ok       detection                      wished, and a fact\n"),
                      HasSubstr("warning  its service                    not started by a service manager"),
                      HasSubstr("\n                                        -> run it as a service"),
                      ContainsRegex("[0-9]+ checks, [0-9]+ warnings?, 0 failures\n"), Not(HasSubstr("\033"))));
}

TEST(DoctorTest, WithoutADaemonTheRestIsExaminedAndNothingIsLeftBehind) {
    Agent agent;
    agent.Start();
    agent.Stop();

    const Result doctor = agent.Ctl({"doctor", "--json"});

    EXPECT_EQ(doctor.status, 0) << doctor.err << doctor.out;
    ExpectFinding(doctor, "daemon", "warning", "not running");
    ExpectFinding(doctor, "data/reports.db", "ok", "whole, ");
    EXPECT_FALSE(FindingsOf(doctor).contains("its rights"));
    EXPECT_EQ(access((agent.Root() / "data/reports.db-wal").c_str(), F_OK), -1);
}

TEST(DoctorTest, ADaemonThatIsMissingAlthoughAPolicyWasAcceptedIsAFailure) {
    Agent agent;
    agent.Root().Write("conf/policy.json", "{}");
    for (const char* folder : {"data", "log"}) {
        mkdir((agent.Root() / folder).c_str(), 0700);
    }

    const Result doctor = agent.Ctl({"doctor", "--json"});

    EXPECT_EQ(doctor.status, 1);
    EXPECT_THAT(doctor.err, AllOf(HasSubstr("corvalentctl: 1 of "), HasSubstr(" checks failed\n")));
    ExpectFinding(doctor, "daemon", "failure", "a policy was accepted");
}

TEST(DoctorTest, DamageIsFoundWithTheRemedy) {
    Agent agent;
    agent.MakeDetecting();
    agent.Stop();
    agent.Root().Write("conf/whitelist.data", "{ torn");
    agent.Root().Write("data/reports.db", std::string(8192, 'x'));
    chmod((agent.Root() / "conf/desired.json").c_str(), 0666);

    const Result doctor = agent.Ctl({"doctor"});

    EXPECT_EQ(doctor.status, 1);
    EXPECT_THAT(doctor.err, HasSubstr("4 of ")); // the daemon is missing, too
    EXPECT_THAT(doctor.out,
                AllOf(HasSubstr("failure  conf/whitelist.data            not JSON: it is not loaded\n"),
                      HasSubstr("corvalentctl learn reset"),
                      HasSubstr("failure  data/reports.db                damaged: file is not a database\n"),
                      HasSubstr("conf/desired.json has mode 0666")));
}

TEST(DoctorTest, ADaemonWhosePolicyNamesNoDirectoryThatIsThereHasNoMarks) {
    Agent agent;
    agent.Start();
    PolicyOptions options;
    options.dirs = {agent.Work() / "not-there"};
    agent.ApplyAndWatch(options);

    ExpectFinding(agent.Ctl({"doctor", "--json"}), "marks", "warning", "none stands");
}

TEST(DoctorTest, WhatIsNoRootIsAFailureAndNotAnError) {
    Agent agent;
    Program ctl({agent.Root() / "bin/corvalentctl", "--root", agent.Root() / "nowhere", "doctor", "--json"},
                agent.Work() / "nowhere");
    ASSERT_TRUE(ctl.WaitForEnd(TestSupport::DEADLINE));
    const Result doctor{ctl.GetStatus(), ctl.GetOutput(), ctl.GetErrors()};

    EXPECT_EQ(doctor.status, 1);
    ExpectFinding(doctor, "root", "failure", "No such file or directory");
    ExpectFinding(doctor, "installed", "failure", "is missing");
}

TEST(DoctorTest, SurplusWordsAreBadUsage) {
    Agent agent;
    const Result doctor = agent.Ctl({"doctor", "please"});
    EXPECT_EQ(doctor.status, 2);
    EXPECT_EQ(doctor.out, "");
}

} // namespace
} // namespace SystemTest
