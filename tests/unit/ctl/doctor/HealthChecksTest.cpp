#include "unit/ctl/doctor/PatientTest.h"

namespace DoctorTest {
namespace {

using HealthChecksTest = PatientTest;

TEST_F(HealthChecksTest, AHealthyAgentIsOkInEverything) {
    for (const Check& check : HealthChecks(patient)) {
        ExpectOk(check.name);
    }
}

TEST_F(HealthChecksTest, APolicyIsInForceAndEnabled) {
    patient.status["policy"]["enabled"] = false;
    ExpectWarning("policy", "switches the feature off");
    patient.status["policy"] = Json::nullValue;
    ExpectFailure("policy", "conf/policy.json is not in force");
    patient.policy.accepted = false;
    ExpectWarning("policy", "none accepted yet");
}

TEST_F(HealthChecksTest, DetectionIsComparedWithTheWish) {
    ExpectOk("detection", "wished, and a fact");
    patient.status["desired_detect"] = false;
    ExpectOk("detection", "a fact, started by the policy");

    patient.status["mode"] = 1;
    patient.status["mode_name"] = "learning";
    patient.status["learned_minutes"] = 17;
    patient.status["learn_period_minutes"] = 10080;
    ExpectOk("detection", "not wished; learning, 17 of 10080 minutes");
    patient.status["mode"] = 2;
    ExpectWarning("detection", "nothing is judged");
    EXPECT_EQ(Examine("detection").remedy, "corvalentctl detect start");
    patient.status["mode"] = 0;
    EXPECT_EQ(Examine("detection").remedy, "corvalentctl learn reset");

    patient.status["desired_detect"] = true;
    ExpectWarning("detection", "wished, but the agent is learning");

    patient.status["mode"] = Json::nullValue;
    patient.status["mode_error"] = "not now";
    ExpectFailure("detection", "the mode is not known: not now");
}

TEST_F(HealthChecksTest, BlockingNeedsListsAboveTheFloorInGlobalMode) {
    ExpectOk("blocking", "off");
    patient.policy.blocks = true;
    ExpectOk("blocking", "on: untrusted programs are killed");
    patient.status["lists"]["local"] = 50;
    ExpectWarning("blocking", "only 50 entries");
    patient.status["lists"]["server"] = 1;
    ExpectOk("blocking");
    patient.status["lists"] = Json::nullValue;
    patient.policy.directoryMode = true;
    ExpectOk("blocking", "touch a watched file");
}

TEST_F(HealthChecksTest, ATaskThatDoesNotRunIsAFailure) {
    ExpectOk("tasks", "1 running");
    patient.status["tasks"][0]["state"] = "finished";
    ExpectFailure("tasks", "a_task is finished");
}

TEST_F(HealthChecksTest, AQueueThatIsNearlyFullIsAWarning) {
    patient.status["tasks"][0]["depth"] = 1000;
    ExpectWarning("queues", "that of a_task holds 1000 of 1024");
}

TEST_F(HealthChecksTest, MarksThatDoNotStandAreSaid) {
    ExpectOk("marks", "2 stand");
    patient.status["files"]["failed_marks"] = 3;
    ExpectFailure("marks", "3 could not be placed, 2 stand");
    patient.status["files"]["failed_marks"] = 0;
    patient.status["files"]["marks"] = 0;
    ExpectOk("marks", "0 stand");
    patient.policy.directoryMode = true;
    ExpectWarning("marks", "none stands");
}

TEST_F(HealthChecksTest, EveryLossIsAWarningWithItsMeaning) {
    for (const char* counter :
         {"events.lost", "events.garbled", "events.overflow", "files.lost", "files.overflow", "queue.lost",
          "reports.write_errors", "reports.given_up", "messages.undeliverable", "isolate.failed", "task.exceptions",
          "module.exceptions", "task.init_failures", "task.abandoned"}) {
        ExpectOk(counter, "0");
        patient.status["counters"][counter] = 3;
        ExpectWarning(counter, "3 since the start: ");
    }
}

} // namespace
} // namespace DoctorTest
