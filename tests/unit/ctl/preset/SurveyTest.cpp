#include "ctl/preset/Survey.h"

#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "ctl/Failure.h"
#include "ctl/preset/OsRelease.h"
#include "sdk/FileUtils.h"
#include "support/TempMount.h"
#include "unit/ctl/preset/FakeHost.h"

namespace Ctl::Preset {

// How GoogleTest shows a remark.
static void PrintTo(const Remark& remark, std::ostream* stream) {
    *stream << remark.path << ": " << remark.text;
}

namespace {

using testing::ElementsAre;
using testing::FieldsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using TestSupport::MakeElf;

namespace fs = std::filesystem;

constexpr std::uint64_t LIMIT = 10485760;

class SurveyTest : public testing::Test {
protected:
    Survey Conduct(const std::vector<std::string>& sources = {FROM_DPKG}, unsigned threads = 2) const {
        HostRoot root(host.Path());
        return ConductSurvey(root, sources, threads);
    }

    static std::vector<std::string> PathsOf(const Survey& survey) {
        std::vector<std::string> paths;
        for (const auto& executable : survey.executables) {
            paths.push_back(executable.path);
        }
        return paths;
    }

    std::string FailureOf(const std::vector<std::string>& sources) const {
        try {
            Conduct(sources);
        } catch (const Failure& failure) {
            return failure.what();
        }
        return "";
    }

    TestSupport::FakeHost host;
};

// ---- what is an executable

TEST_F(SurveyTest, ProgramsAndScriptsWithAnExecutableBitAreExecutables) {
    host.Add("/usr/bin/pie", MakeElf(ET_DYN));
    host.Add("/usr/bin/fixed", MakeElf(ET_EXEC));
    host.Add("/usr/bin/script", "#!/bin/sh\n");
    host.Add("/usr/bin/short-script", "#!");
    host.Add("/usr/bin/for-others-only", MakeElf(ET_DYN, "x"), 0745);
    std::string bigEndian = MakeElf(0, "other machine");
    bigEndian[EI_DATA] = ELFDATA2MSB;
    bigEndian[EI_NIDENT + 1] = ET_EXEC;
    host.Add("/usr/bin/big-endian", bigEndian);
    EXPECT_THAT(PathsOf(Conduct({"/usr"})),
                ElementsAre("/usr/bin/big-endian", "/usr/bin/fixed", "/usr/bin/for-others-only", "/usr/bin/pie",
                            "/usr/bin/script", "/usr/bin/short-script"));
}

TEST_F(SurveyTest, WhatCannotBeExecutedIsNone) {
    host.Add("/usr/lib/library.so", MakeElf(ET_DYN), 0644);
    host.Add("/usr/share/script-without-bit", "#!/bin/sh\n", 0644);
    host.Add("/usr/lib/module.ko", MakeElf(ET_REL));
    host.Add("/usr/lib/core", MakeElf(ET_CORE));
    host.Add("/usr/bin/text", "hello");
    host.Add("/usr/bin/empty", "");
    host.Add("/usr/bin/cut-off", std::string(ELFMAG));
    host.Link("/usr/bin/link", "/usr/bin/text");
    ASSERT_EQ(mkfifo((host / "usr/bin/fifo").c_str(), 0755), 0);
    host.Install(
        {"odd", {"/usr", "/usr/bin", "/usr/lib/library.so", "/usr/bin/link", "/usr/bin/fifo", "/usr/bin/text"}});
    EXPECT_THAT(PathsOf(Conduct({"/usr", FROM_DPKG})), IsEmpty());
}

TEST_F(SurveyTest, ADigestCoversNoMoreThanTheAgentReads) {
    host.Add("/opt/a", MakeElf(ET_DYN));
    fs::resize_file(host / "opt/a", LIMIT);
    host.Add("/opt/b", MakeElf(ET_DYN));
    fs::resize_file(host / "opt/b", 200 * LIMIT);
    const Survey survey = Conduct({"/opt"});
    ASSERT_EQ(survey.executables.size(), 2U);
    EXPECT_EQ(survey.executables[0].sha256, survey.executables[1].sha256);
    std::string digest;
    ASSERT_EQ(SDK::FileUtils::GetFileSha256(host / "opt/a", digest, LIMIT), 0);
    EXPECT_EQ(survey.executables[0].sha256, digest);
    EXPECT_EQ(survey.bytes, 2 * LIMIT);
    EXPECT_THAT(ToEntries(survey, "os"), ElementsAre(FieldsAre("/opt/a", digest, "os", "")));
}

// ---- the package database

TEST_F(SurveyTest, AFileOfAPackageBearsItsOwnerAndVersion) {
    host.AddProgram("/usr/bin/tool");
    host.Install({.name = "tools", .files = {"/usr", "/usr/bin", "/usr/bin/tool"}, .version = "1:2.3-4+deb12u1"});
    const Survey survey = Conduct();
    ASSERT_EQ(survey.executables.size(), 1U);
    EXPECT_EQ(survey.executables[0].path, "/usr/bin/tool");
    EXPECT_EQ(survey.executables[0].origin, "tools 1:2.3-4+deb12u1");
    EXPECT_EQ(survey.looked, 4U);
    EXPECT_THAT(survey.remarks, IsEmpty());
}

TEST_F(SurveyTest, OnlyPackagesWhoseFilesAreInPlaceCount) {
    const std::vector<std::pair<std::string, std::string>> states = {
        {"installed", "install ok installed"},        {"held", "hold ok installed"},
        {"pending", "install ok triggers-pending"},   {"awaited", "install ok triggers-awaited"},
        {"removed", "deinstall ok config-files"},     {"gone", "purge ok not-installed"},
        {"half", "install reinstreq half-installed"}, {"unpacked", "install ok unpacked"}};
    for (const auto& [name, status] : states) {
        host.AddProgram("/usr/bin/" + name);
        host.Install({.name = name, .files = {"/usr/bin/" + name}, .status = status});
    }
    EXPECT_THAT(PathsOf(Conduct()),
                ElementsAre("/usr/bin/awaited", "/usr/bin/held", "/usr/bin/installed", "/usr/bin/pending"));
}

TEST_F(SurveyTest, AListMayBearTheArchitecture) {
    host.AddProgram("/usr/bin/multi");
    host.Install({.name = "libmulti", .files = {"/usr/bin/multi"}, .list = "libmulti:amd64.list"});
    EXPECT_THAT(PathsOf(Conduct()), ElementsAre("/usr/bin/multi"));
}

TEST_F(SurveyTest, ADivertedFileIsFoundWhereItLies) {
    host.AddProgram("/usr/bin/tool");
    host.AddProgram("/usr/bin/tool.distrib");
    host.AddProgram("/usr/bin/local.mine");
    host.Install({"wrapper", {"/usr/bin/tool"}});
    host.Install({"tools", {"/usr/bin/tool", "/usr/bin/local"}});
    host.Divert("/usr/bin/tool", "/usr/bin/tool.distrib", "wrapper");
    host.Divert("/usr/bin/local", "/usr/bin/local.mine", ":");
    const Survey survey = Conduct();
    ASSERT_THAT(PathsOf(survey), ElementsAre("/usr/bin/local.mine", "/usr/bin/tool", "/usr/bin/tool.distrib"));
    EXPECT_EQ(survey.executables[0].origin, "tools 1.0-1");
    EXPECT_EQ(survey.executables[1].origin, "wrapper 1.0-1");
    EXPECT_EQ(survey.executables[2].origin, "tools 1.0-1");
}

TEST_F(SurveyTest, AConffileIsTakenAsItIsNowAndAChangeIsRemarkedOn) {
    constexpr const char* MD5 = "d4c52b4d5f7e4a7ff2ec0b5b1d3d1ba3"; // of something else
    host.Add("/etc/init.d/changed", "#!/bin/sh\n# by the administrator\n");
    host.Add("/etc/init.d/as it came", "#!/bin/sh\n");
    std::string unchanged;
    ASSERT_EQ(SDK::FileUtils::GetFileHash(host / "etc/init.d/as it came", "MD5", unchanged, LIMIT), 0);
    host.Install({.name = "daemon",
                  .files = {"/etc/init.d/changed", "/etc/init.d/as it came"},
                  .fields = std::string("Conffiles:\n /etc/init.d/changed ") + MD5 +
                            " obsolete\n /etc/init.d/as it came " + unchanged + "\n /etc/new newconffile\n"});
    const Survey survey = Conduct();
    EXPECT_THAT(PathsOf(survey), ElementsAre("/etc/init.d/as it came", "/etc/init.d/changed"));
    EXPECT_EQ(survey.changedConffiles, 1U);
    EXPECT_THAT(survey.remarks, ElementsAre(FieldsAre("/etc/init.d/changed", HasSubstr("conffile"))));
    std::string digest;
    ASSERT_EQ(SDK::FileUtils::GetFileSha256(host / "etc/init.d/changed", digest, LIMIT), 0);
    EXPECT_EQ(survey.executables[1].sha256, digest);
}

TEST_F(SurveyTest, AFileBelowALinkedFolderAppearsOnceAndAsTheKernelReportsIt) {
    host.AddProgram("/usr/bin/ls");
    host.AddProgram("/usr/sbin/init");
    host.Link("/bin", "usr/bin");
    host.Link("/sbin", "/usr/sbin"); // absolute: must not lead out of the host
    host.Install({"coreutils", {"/bin", "/bin/ls"}});
    host.Install({"twice", {"/usr/bin/ls", "/sbin/init"}});
    const Survey survey = Conduct();
    EXPECT_THAT(PathsOf(survey), ElementsAre("/usr/bin/ls", "/usr/sbin/init"));
    EXPECT_EQ(survey.executables[0].origin, "coreutils 1.0-1");
}

TEST_F(SurveyTest, WhatAPackageBroughtAndIsNoMoreIsCounted) {
    host.AddProgram("/usr/bin/there");
    host.Install({"tools", {"/usr/bin/there", "/usr/bin/not-there", "/usr/no-folder/file"}});
    const Survey survey = Conduct();
    EXPECT_THAT(PathsOf(survey), ElementsAre("/usr/bin/there"));
    EXPECT_EQ(survey.absent, 2U);
    EXPECT_THAT(survey.remarks, IsEmpty());
}

TEST_F(SurveyTest, APackageWithoutAListIsRemarkedOn) {
    host.AddProgram("/usr/bin/tool");
    host.Install({"tools", {"/usr/bin/tool"}});
    host.Install({"lost", {}});
    fs::remove(host / "var/lib/dpkg/info/lost.list");
    const Survey survey = Conduct();
    EXPECT_THAT(PathsOf(survey), ElementsAre("/usr/bin/tool"));
    EXPECT_THAT(survey.remarks, ElementsAre(FieldsAre("/var/lib/dpkg/info/lost.list", HasSubstr("missing"))));
}

TEST_F(SurveyTest, AHostWithoutAPackageDatabaseIsRefused) {
    EXPECT_THAT(FailureOf({FROM_DPKG}), HasSubstr("var/lib/dpkg/status]: No such file"));
    host.Write("var/lib/dpkg/status", "no paragraph\n");
    EXPECT_THAT(FailureOf({FROM_DPKG}), HasSubstr("names no installed package"));
}

// ---- trees

TEST_F(SurveyTest, ATreeIsWalkedThroughWithoutFollowingLinks) {
    host.AddProgram("/opt/app/bin/deep/program");
    host.AddProgram("/srv/elsewhere");
    host.Link("/opt/app/link", "/srv");
    host.Link("/opt/loop", ".");
    host.Link("/to-app", "/opt/app");
    EXPECT_THAT(PathsOf(Conduct({"/opt"})), ElementsAre("/opt/app/bin/deep/program"));
    EXPECT_THAT(PathsOf(Conduct({"/to-app/"})), ElementsAre("/opt/app/bin/deep/program"));
    EXPECT_THAT(PathsOf(Conduct({"/"})), ElementsAre("/opt/app/bin/deep/program", "/srv/elsewhere"));
}

TEST_F(SurveyTest, AnotherFileSystemIsNotEntered) {
    if (const std::string reason = TestSupport::WhyNoMount(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    host.AddProgram("/opt/here");
    fs::create_directory(host / "opt/mounted");
    const TestSupport::TempMount other;
    other.Write("program", "#!/bin/sh\n");
    chmod((other / "program").c_str(), 0755);
    ASSERT_EQ(mount(other.Path().c_str(), (host / "opt/mounted").c_str(), nullptr, MS_BIND, nullptr), 0);
    const std::vector<std::string> below = PathsOf(Conduct({"/opt"}));
    const std::vector<std::string> itself = PathsOf(Conduct({"/opt/mounted"}));
    umount2((host / "opt/mounted").c_str(), MNT_DETACH);
    EXPECT_THAT(below, ElementsAre("/opt/here"));
    EXPECT_THAT(itself, ElementsAre("/opt/mounted/program"));
}

TEST_F(SurveyTest, ATreeThatIsNoneIsRefused) {
    host.Add("/file", "x");
    EXPECT_THAT(FailureOf({"/none"}), HasSubstr("[/none]: No such file"));
    EXPECT_THAT(FailureOf({"/file"}), HasSubstr("[/file]: Not a directory"));
}

TEST_F(SurveyTest, OddNamesAreKeptByteForByte) {
    const std::vector<std::string> names = {"/opt/\x01"
                                            "control",
                                            "/opt/ blank", "/opt/\"quote\\", "/opt/new\nline", "/opt/not-\xff-utf8"};
    for (const std::string& name : names) {
        host.AddProgram(name);
    }
    const Survey survey = Conduct({"/opt"});
    EXPECT_EQ(PathsOf(survey), names);
    const std::vector<Entry> entries = FromDocument(ToDocument(ToEntries(survey, "os")), "a document");
    ASSERT_EQ(entries.size(), names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(entries[i].filename, names[i]);
    }
}

TEST_F(SurveyTest, WhatCannotBeReadIsLeftOutAndRemarkedOn) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can make what the test's own user cannot read";
    }
    constexpr uid_t NOBODY = 65534;
    host.AddProgram("/opt/good");
    host.Add("/opt/secret", MakeElf(ET_DYN), 0711);
    host.AddProgram("/opt/closed/program");
    chmod((host / "opt/closed").c_str(), 0700);
    ASSERT_EQ(seteuid(NOBODY), 0);
    const Survey survey = Conduct({"/opt"});
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_THAT(PathsOf(survey), ElementsAre("/opt/good"));
    EXPECT_EQ(survey.unreadable, 2U);
    EXPECT_THAT(survey.remarks, ElementsAre(FieldsAre("/opt/closed", "Permission denied"),
                                            FieldsAre("/opt/secret", "Permission denied")));
}

// ---- the whole

TEST_F(SurveyTest, SourcesAreJoinedAndTheOwnerIsKept) {
    host.AddProgram("/usr/bin/owned");
    host.AddProgram("/usr/bin/stray");
    host.Install({"tools", {"/usr/bin/owned"}});
    const Survey survey = Conduct({"/usr", FROM_DPKG});
    ASSERT_THAT(PathsOf(survey), ElementsAre("/usr/bin/owned", "/usr/bin/stray"));
    EXPECT_EQ(survey.executables[0].origin, "tools 1.0-1");
    EXPECT_EQ(survey.executables[1].origin, "");
}

TEST_F(SurveyTest, TheNumberOfThreadsMakesNoDifference) {
    for (int i = 0; i < 300; ++i) {
        host.AddProgram("/opt/" + std::to_string(i % 7) + "/" + std::to_string(i));
    }
    const std::string one = ToDocument(ToEntries(Conduct({"/opt"}, 1), "os"));
    EXPECT_EQ(ToDocument(ToEntries(Conduct({"/opt"}, 16), "os")), one);
    EXPECT_EQ(FromDocument(one, "").size(), 300U);
}

TEST_F(SurveyTest, TheOperatingSystemIsNamedAsItsReleaseFileHasIt) {
    const HostRoot root(host.Path());
    EXPECT_EQ(NameOs(root), "debian 12");
    host.Write("etc/os-release", "ID='arch'\nVERSION=1\n");
    EXPECT_EQ(NameOs(root), "arch");
    fs::remove(host / "etc/os-release");
    EXPECT_EQ(NameOs(root), "linux");
    host.Write("usr/lib/os-release", "ID=other\nVERSION_ID=7\n");
    EXPECT_EQ(NameOs(root), "other 7");
}

} // namespace
} // namespace Ctl::Preset
