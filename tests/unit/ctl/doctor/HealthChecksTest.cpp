#include "unit/ctl/doctor/SubjectTest.h"

namespace DoctorTest {
namespace {

using HealthChecksTest = SubjectTest;

TEST_F(HealthChecksTest, AHealthyAgentIsOkInEverything) {
    for (const Check& check : HealthChecks(subject)) {
        ExpectOk(check.name);
    }
}

TEST_F(HealthChecksTest, APolicyIsInForceAndEnabled) {
    subject.status["policy"]["enabled"] = false;
    ExpectWarning("policy", "switches the feature off");
    subject.status["policy"] = Json::nullValue;
    ExpectFailure("policy", "conf/policy.json is not in force");
    subject.policy.accepted = false;
    ExpectWarning("policy", "none accepted yet");
}

TEST_F(HealthChecksTest, DetectionIsComparedWithTheWish) {
    ExpectOk("detection", "wished, and a fact");
    subject.status["desired_detect"] = false;
    ExpectOk("detection", "a fact, started by the policy");

    subject.status["mode"] = 1;
    subject.status["mode_name"] = "learning";
    subject.status["learned_minutes"] = 17;
    subject.status["learn_period_minutes"] = 10080;
    ExpectOk("detection", "not wished; learning, 17 of 10080 minutes");
    subject.status["mode"] = 2;
    ExpectWarning("detection", "nothing is judged");
    EXPECT_EQ(Examine("detection").remedy, "corvalentctl detect start");
    subject.status["mode"] = 0;
    EXPECT_EQ(Examine("detection").remedy, "corvalentctl learn reset");

    subject.status["desired_detect"] = true;
    ExpectWarning("detection", "wished, but the agent is learning");

    subject.status["mode"] = Json::nullValue;
    subject.status["mode_error"] = "not now";
    ExpectFailure("detection", "the mode is not known: not now");
}

TEST_F(HealthChecksTest, BlockingNeedsListsAboveTheFloorInGlobalMode) {
    ExpectOk("blocking", "off");
    Json::Value& blocking = subject.status["blocking"];
    blocking["policy"] = true;
    ExpectWarning("blocking", "only 50 entries that count: nothing is killed up to 50");
    blocking["in_force"] = true;
    ExpectOk("blocking", "on: untrusted programs are killed");
    subject.policy.directoryMode = true;
    ExpectOk("blocking", "touch a watched file");
    blocking = Json::nullValue;
    ExpectWarning("blocking", "not known");
}

TEST_F(HealthChecksTest, ATaskThatDoesNotRunIsAFailure) {
    ExpectOk("tasks", "1 running");
    subject.status["tasks"][0]["state"] = "finished";
    ExpectFailure("tasks", "a_task is finished");
}

TEST_F(HealthChecksTest, AQueueThatIsNearlyFullIsAWarning) {
    subject.status["tasks"][0]["depth"] = 1000;
    ExpectWarning("queues", "that of a_task holds 1000 of 1024");
}

TEST_F(HealthChecksTest, MarksThatDoNotStandAreSaid) {
    ExpectOk("marks", "2 stand");
    subject.status["files"]["failed_marks"] = 3;
    ExpectFailure("marks", "3 could not be placed, 2 stand");
    subject.status["files"]["failed_marks"] = 0;
    subject.status["files"]["marks"] = 0;
    ExpectOk("marks", "0 stand");
    subject.policy.directoryMode = true;
    ExpectWarning("marks", "none stands");
}

TEST_F(HealthChecksTest, EveryLossIsAWarningWithItsMeaning) {
    for (const char* counter :
         {"events.lost", "events.garbled", "events.overflow", "files.lost", "files.overflow", "queue.lost",
          "reports.write_errors", "reports.given_up", "log.lost", "messages.undeliverable", "isolate.failed",
          "task.exceptions", "module.exceptions", "task.init_failures", "task.abandoned"}) {
        ExpectOk(counter, "0");
        subject.status["counters"][counter] = 3;
        ExpectWarning(counter, "3 since the start: ");
    }
}

} // namespace
} // namespace DoctorTest
