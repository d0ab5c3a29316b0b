#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/ScopedProcess.h"
#include "system/Agent.h"
#include "system/PresetDelivery.h"
#include "system/WebServer.h"

namespace SystemTest {
namespace {

using TestSupport::DEADLINE;
using TestSupport::ScopedProcess;

namespace fs = std::filesystem;

constexpr unsigned OWNER_MAY_READ = 0400;
constexpr unsigned AS_IT_WAS = 0755;

unsigned ModeOf(const std::string& path) {
    struct stat file {};
    EXPECT_EQ(stat(path.c_str(), &file), 0) << path;
    return file.st_mode & 07777U;
}

int BlockOf(const Json::Value& alert) {
    return alert["process_info"]["block"].asInt();
}

void ExpectKilledAndMadeUnexecutable(const Agent& agent, ScopedProcess& process, const std::string& image) {
    EXPECT_TRUE(process.Wait(DEADLINE)) << image;
    EXPECT_TRUE(process.WasKilled()) << image;
    EXPECT_EQ(BlockOf(agent.WaitForAlert(process.Pid())), 1) << image;
    EXPECT_EQ(ModeOf(image), OWNER_MAY_READ) << image;
}

void ExpectLeftAlone(const Agent& agent, ScopedProcess& process, const std::string& image) {
    EXPECT_FALSE(process.HasEnded()) << image;
    EXPECT_EQ(agent.AlertsOf(process.Pid()).size(), 0U) << image;
    EXPECT_EQ(ModeOf(image), AS_IT_WAS) << image;
}

TEST(BlockingTest, With51EntriesAnUnknownProgramIsKilled) {
    Agent agent;
    const std::string program = agent.MakeProgram("unknown");
    agent.MakeDetecting({.entries = 51}, {.block = true});
    ScopedProcess unknown(agent.Scope().Path(), {program, "60"});
    ExpectKilledAndMadeUnexecutable(agent, unknown, program);
    EXPECT_THROW(ScopedProcess(agent.Scope().Path(), {program, "60"}), std::runtime_error);
    agent.DrainEvents();
    EXPECT_EQ(agent.AlertsOf(unknown.Pid()).size(), 1U);
}

TEST(BlockingTest, With50EntriesAnUnknownProgramIsOnlyReportedUntilAnotherListAddsOne) {
    Agent agent;
    const std::string program = agent.MakeProgram("unknown");
    agent.MakeDetecting({.entries = 50}, {.block = true});
    ScopedProcess unknown(agent.Scope().Path(), {program, "60"});
    EXPECT_EQ(BlockOf(agent.WaitForAlert(unknown.Pid())), 0);
    EXPECT_FALSE(unknown.HasEnded());
    EXPECT_EQ(ModeOf(program), AS_IT_WAS);

    const std::string served = agent.MakeProgram("served");
    EXPECT_EQ(agent.Command("whitelist_10001", MakeListDocument({MakeEntry(served)})).status, 0);
    ScopedProcess again(agent.Scope().Path(), {program, "60"});
    ExpectKilledAndMadeUnexecutable(agent, again, program);
}

TEST(BlockingTest, WithoutBlockingAnUnknownProgramGoesOn) {
    Agent agent;
    const std::string program = agent.MakeProgram("unknown");
    agent.MakeDetecting({.entries = 51}, {.block = false});
    ScopedProcess unknown(agent.Scope().Path(), {program, "60"});
    EXPECT_EQ(BlockOf(agent.WaitForAlert(unknown.Pid())), 0);
    agent.DrainEvents();
    EXPECT_FALSE(unknown.HasEnded());
    EXPECT_EQ(ModeOf(program), AS_IT_WAS);
}

TEST(BlockingTest, AProgramOutsideTheScopeIsNobodysBusinessAndOneBelowItIs) {
    Agent agent;
    const std::string program = agent.MakeProgram("unknown");
    const std::string below = agent.MakeProgram("below");
    const std::string group = agent.Scope().Path() + "/below";
    agent.MakeDetecting({}, {.block = true});
    ScopedProcess outside("", {program, "60"});
    fs::create_directory(group);
    {
        ScopedProcess inside(group, {below, "60"});
        ExpectKilledAndMadeUnexecutable(agent, inside, below);
    }
    EXPECT_EQ(rmdir(group.c_str()), 0);
    agent.DrainEvents();
    ExpectLeftAlone(agent, outside, program);
}

TEST(BlockingTest, WhatAnyOfTheFourListsVouchesForRuns) {
    Agent agent;
    WebServer server;
    const std::string byLocal = agent.MakeProgram("by-local");
    const std::string byServer = agent.MakeProgram("by-server");
    const std::string byOs = agent.MakeProgram("by-os-preset");
    const std::string byService = agent.MakeProgram("by-service-preset");
    agent.MakeDetecting({.programs = {byLocal}}, {.block = true});
    EXPECT_EQ(agent.Command("whitelist_10001", MakeListDocument({MakeEntry(byServer)})).status, 0);
    SendPreset(agent, server, "whitelist_10002", byOs);
    SendPreset(agent, server, "whitelist_10003", byService);

    const auto start = [&](const std::string& program) {
        return std::make_unique<ScopedProcess>(agent.Scope().Path(), std::vector<std::string>{program, "60"});
    };
    const auto local = start(byLocal);
    const auto served = start(byServer);
    const auto os = start(byOs);
    const auto service = start(byService);
    agent.DrainEvents();
    ExpectLeftAlone(agent, *local, byLocal);
    ExpectLeftAlone(agent, *served, byServer);
    ExpectLeftAlone(agent, *os, byOs);
    ExpectLeftAlone(agent, *service, byService);
}

TEST(BlockingTest, ALearnedPathWithOtherContentIsKilled) {
    Agent agent;
    const std::string tool = agent.MakeProgram("tool");
    agent.MakeDetecting({.programs = {tool}}, {.block = true});
    fs::rename(agent.MakeProgram("other"), tool);
    ScopedProcess replaced(agent.Scope().Path(), {tool, "60"});
    ExpectKilledAndMadeUnexecutable(agent, replaced, tool);
}

// The server's list knows programs by their names, the learned one by their paths.
TEST(BlockingTest, ALearnedProgramUnderAnotherPathIsKilled) {
    Agent agent;
    const std::string tool = agent.MakeProgram("tool");
    const std::string copy = agent.Work() / "programs/copy";
    agent.MakeDetecting({.programs = {tool}}, {.block = true});
    fs::copy_file(tool, copy);
    ScopedProcess copied(agent.Scope().Path(), {copy, "60"});
    ExpectKilledAndMadeUnexecutable(agent, copied, copy);
}

TEST(BlockingTest, AnUnknownScriptUnderATrustedInterpreterRuns) {
    Agent agent;
    const std::string bash = fs::canonical("/bin/bash").string();
    const std::string script = agent.Work().Write("script.sh", "#!/bin/bash\nread -rt 60 <> <(:)\n");
    fs::permissions(script, fs::perms(0755));
    agent.MakeDetecting({.programs = {bash}}, {.block = true});
    ScopedProcess process(agent.Scope().Path(), {script});
    agent.DrainEvents();
    ExpectLeftAlone(agent, process, script);
}

TEST(BlockingTest, AScriptUnderAnUnknownInterpreterIsKilledAndTheInterpreterIsNamed) {
    Agent agent;
    const std::string shell = agent.Work() / "shell";
    fs::copy_file("/bin/bash", shell);
    std::ofstream(shell, std::ios::app | std::ios::binary) << "other";
    const std::string script = agent.Work().Write("script.sh", "#!" + shell + "\nread -rt 60 <> <(:)\n");
    fs::permissions(script, fs::perms(0755));
    agent.MakeDetecting({}, {.block = true});
    ScopedProcess process(agent.Scope().Path(), {script});
    ExpectKilledAndMadeUnexecutable(agent, process, shell);
    EXPECT_EQ(ModeOf(script), AS_IT_WAS);
    EXPECT_EQ(agent.WaitForAlert(process.Pid())["process_info"]["process_path"].asString(), shell);
}

} // namespace
} // namespace SystemTest
