#include <ctime>

#include <sqlite3.h>
#include <sys/stat.h>
#include <utime.h>

#include "ctl/doctor/History.h"
#include "support/ChildProcess.h"
#include "unit/ctl/doctor/SubjectTest.h"

namespace DoctorTest {
namespace {

constexpr std::uint64_t MIB = 1U << 20U;

class StateChecksTest : public SubjectTest {
protected:
    StateChecksTest() { clock.now = std::time(nullptr); }

    void Execute(const std::string& sql) const {
        sqlite3* database = nullptr;
        sqlite3_open((root / "data/reports.db").c_str(), &database);
        EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(database);
        sqlite3_close(database);
    }

    void MakeHistory() const {
        Execute("PRAGMA journal_mode=WAL; CREATE TABLE reports(id INTEGER PRIMARY KEY, time, type, data);"
                "INSERT INTO reports VALUES(1, 1, 'a', 'b'), (2, 1, 'a', 'b');");
    }
};

TEST_F(StateChecksTest, AFreshInstallationIsOkInEverything) {
    for (const Check& check : StateChecks()) {
        ExpectOk(check.name);
    }
}

TEST_F(StateChecksTest, RoomRunsOutInBytesAndInodes) {
    for (const std::string folder : {"room in conf/", "room in data/", "room in log/"}) {
        space = {1024 * MIB, 2048 * MIB, 10000, 20000, false};
        ExpectOk(folder, "1024 of 2048 MiB free, 10000 inodes");
        space.freeBytes = 500 * MIB;
        ExpectWarning(folder, "500 of 2048 MiB free");
        space.freeBytes = 60 * MIB;
        ExpectFailure(folder, "60 of 2048 MiB free");

        space = {1024 * MIB, 2048 * MIB, 4000, 20000, false};
        ExpectWarning(folder, "4000 inodes");
        space.freeInodes = 99;
        ExpectFailure(folder, "99 inodes");
        space.totalInodes = 0; // a file system that makes them as it goes
        ExpectOk(folder, "1024 of 2048 MiB free");

        space.readOnly = true;
        ExpectFailure(folder, "read-only");
    }
    std::filesystem::remove_all(root / "data");
    ExpectFailure("room in data/", "No such file");
}

TEST_F(StateChecksTest, TheSocketsFolderIsTheAgentsAloneAndMayBeMissing) {
    std::filesystem::create_directory(root / "run");
    ExpectOk("rights in run/");
    chmod((root / "run").c_str(), 0777);
    ExpectFailure("rights in run/", "run has mode 0777");
    std::filesystem::remove_all(root / "run");
    ExpectOk("rights in run/");
}

TEST_F(StateChecksTest, NobodyElseMayChangeTheInstallation) {
    for (const std::string folder : {"bin", "lib", "module", "conf", "data", "log"}) {
        const std::string check = "rights in " + folder + "/";
        const std::string file = root.Write(folder + "/file", "");
        chmod(file.c_str(), 0664);
        ExpectFailure(check, folder + "/file has mode 0664");
        chmod(file.c_str(), 0644);
        ExpectOk(check);
        EXPECT_EQ(chown(file.c_str(), 4711, 0), 0);
        ExpectFailure(check, folder + "/file belongs to user 4711");
        std::filesystem::remove(file);
        chmod((root / folder).c_str(), 0777);
        ExpectFailure(check, folder + " has mode 0777");
        std::filesystem::remove_all(root / folder);
        ExpectFailure(check, "there is no folder");
    }
}

TEST_F(StateChecksTest, NobodyElseMayReplaceTheRoot) {
    subject.root = root / "inner/";
    ExpectFailure("root", "No such file");
    std::filesystem::create_directory(root / "inner");
    ExpectOk("root", root.Path() + "/inner");
    chmod(root.Path().c_str(), 0777);
    ExpectFailure("root", root.Path() + " has mode 0777");
    chmod(root.Path().c_str(), 01777); // as /tmp: only the owner may rename
    ExpectOk("root");
}

TEST_F(StateChecksTest, WhatIsNotInstalledIsNamed) {
    std::filesystem::remove(root / "module/libisolate_module.so");
    ExpectFailure("installed", "module/libisolate_module.so is missing");
}

TEST_F(StateChecksTest, StateFilesAreReadAsTheAgentReadsThem) {
    for (const std::string file : {"conf/agent.json", "conf/policy.json", "conf/desired.json"}) {
        root.Write(file, "{}");
        ExpectOk(file, "2 bytes");
        for (const std::string bad : {"", "[]", "{ torn"}) {
            root.Write(file, bad);
            ExpectFailure(file, "not a JSON object");
        }
    }
    for (const std::string file : {"conf/whitelist.data", "conf/arsserverproc.data", "conf/osPresetProcess.dat",
                                   "conf/servicePresetProcess.dat"}) {
        for (const std::string good : {"", R"({"process_info": []})"}) {
            root.Write(file, good);
            ExpectOk(file, " bytes");
        }
        root.Write(file, "{ torn");
        ExpectFailure(file, "not JSON");
        root.Write(file, "{}");
        ExpectFailure(file, "process_info");
    }
    const std::string file = "conf/modwhitelist.ini";
    for (const std::string good : {"", "[Driver]\n LearnTime = 17\nLearnMod=3\n", "[Other]\nLearnMod=9\n"}) {
        root.Write(file, good);
        ExpectOk(file);
    }
    root.Write(file, "[Driver]\nLearnTime=soon\n");
    ExpectFailure(file, "its LearnTime is no number");
    root.Write(file, "[Driver]\nLearnTime=1\nLearnMod=4\n");
    ExpectFailure(file, "its LearnMod is none of 0 to 3");
}

TEST_F(StateChecksTest, AStateFileThatNearsOrPassesItsLimitIsSaid) {
    const std::string list = R"({"process_info": [)";
    root.Write("conf/whitelist.data", list + std::string(9 * MIB, ' ') + "]}");
    ExpectWarning("conf/whitelist.data", "of at most 10485760");
    root.Write("conf/whitelist.data", list + std::string(10 * MIB, ' ') + "]}");
    ExpectFailure("conf/whitelist.data", "larger than 10485760 bytes");
    std::filesystem::remove(root / "conf/whitelist.data");
    std::filesystem::create_directory(root / "conf/whitelist.data");
    ExpectFailure("conf/whitelist.data", "Is a directory");
}

TEST_F(StateChecksTest, AStateFileFromTheFutureMeansThatTheClockWasSetBack) {
    const std::string file = root.Write("conf/policy.json", "{}");
    const utimbuf future{clock.now + 3600, clock.now + 3600};
    utime(file.c_str(), &future);
    ExpectFailure("ages of state", "conf/policy.json is from the future");
    clock.now += 3600;
    ExpectOk("ages of state");
}

TEST_F(StateChecksTest, TheHistoryIsReadThrough) {
    ExpectOk("data/reports.db", "none yet");
    MakeHistory();
    ExpectOk("data/reports.db", "whole, 2 reports");
}

TEST_F(StateChecksTest, AHistoryThatIsDamagedOrNoneIsAFailure) {
    MakeHistory();
    std::string bytes = root.Read("data/reports.db");
    bytes.replace(bytes.size() - 4096, 4096, std::string(4096, 'x')); // the table's page
    root.Write("data/reports.db", bytes);
    ExpectFailure("data/reports.db", "damaged: ");
    root.Write("data/reports.db", std::string(4096, 'x'));
    ExpectFailure("data/reports.db", "damaged: file is not a database");
}

TEST_F(StateChecksTest, AHistoryTooLargeForTheTimeIsAWarning) {
    Execute("CREATE TABLE reports(id INTEGER PRIMARY KEY, data);"
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 20000)"
            "INSERT INTO reports SELECT i, hex(i) FROM n;");
    const Finding finding = CheckHistory(root / "data/reports.db", std::chrono::milliseconds(0));
    EXPECT_EQ(finding.grade, Grade::WARNING) << testing::PrintToString(finding);
    EXPECT_THAT(finding.found, testing::HasSubstr("too large"));
}

TEST_F(StateChecksTest, AHistoryThatIsBeingWrittenIsReadAlongside) {
    MakeHistory();
    sqlite3* writer = nullptr;
    sqlite3_open((root / "data/reports.db").c_str(), &writer);
    ASSERT_EQ(sqlite3_exec(writer,
                           "INSERT INTO reports VALUES(3, 1, 'a', 'b'); BEGIN IMMEDIATE;"
                           "INSERT INTO reports VALUES(4, 1, 'a', 'b');",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    ExpectOk("data/reports.db", "whole, 3 reports");
    EXPECT_EQ(sqlite3_exec(writer, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(writer);
}

// Somebody without rights is not told that all is well, nor to throw anything away.
TEST_F(StateChecksTest, WhatCannotBeSeenIsAWarning) {
    MakeHistory();
    chmod(root.Write("conf/whitelist.data", "{}").c_str(), 0600);
    chmod((root / "data").c_str(), 0700);
    for (const char* folder : {"", "conf"}) {
        chmod((root / folder).c_str(), 0755);
    }
    auto nobody = TestSupport::ChildProcess::Fork([this] {
        constexpr uid_t NOBODY = 65534;
        if (setresuid(NOBODY, NOBODY, NOBODY) == 0) {
            ExpectWarning("rights in data/", "cannot be examined: Permission denied");
            ExpectWarning("conf/whitelist.data", "cannot be examined: Permission denied");
            ExpectWarning("data/reports.db", "cannot be examined: Permission denied");
            _exit(HasFailure() ? 1 : 0);
        }
    });
    EXPECT_EQ(nobody.Wait(), 0);
}

TEST_F(StateChecksTest, HistoriesThatWereSetAsideAreCounted) {
    root.Write("data/reports.db.corrupt-100", "");
    root.Write("data/reports.db.corrupt-200", "");
    root.Write("data/reports.db.corrupt-200-wal", "");
    ExpectWarning("damaged histories", "2 damaged histories were set aside, the last is data/reports.db.corrupt-200");
}

} // namespace
} // namespace DoctorTest
