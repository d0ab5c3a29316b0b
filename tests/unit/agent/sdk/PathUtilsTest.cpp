#include <cstdlib>

#include <gtest/gtest.h>

#include "sdk/PathUtils.h"

using SDK::PathUtils;

TEST(InstallationPath, IsTheDefaultWhereNothingSaysOtherwise) {
    unsetenv("CORVALENT_ROOT");
    EXPECT_EQ(PathUtils::GetInstallationPath(), "/usr/local/corvalent/");
}

TEST(InstallationPath, AnEmptyVariableSaysNothing) {
    setenv("CORVALENT_ROOT", "", 1);
    EXPECT_EQ(PathUtils::GetInstallationPath(), "/usr/local/corvalent/");
}

TEST(InstallationPath, IsTakenFromTheEnvironmentWithATrailingSlash) {
    setenv("CORVALENT_ROOT", "/opt/agent", 1);
    EXPECT_EQ(PathUtils::GetInstallationPath(), "/opt/agent/");
}

TEST(InstallationPath, WhatWasSetGoesBeforeTheEnvironment) {
    setenv("CORVALENT_ROOT", "/opt/agent", 1);
    PathUtils::SetInstallationPath("/srv/agent");
    EXPECT_EQ(PathUtils::GetInstallationPath(), "/srv/agent/");
    PathUtils::SetInstallationPath("/srv/other/");
    EXPECT_EQ(PathUtils::GetInstallationPath(), "/srv/other/");
}

TEST(InstallationPath, IsEmptyOnlyWhenSetToEmpty) {
    PathUtils::SetInstallationPath("");
    EXPECT_EQ(PathUtils::GetInstallationPath(), "");
}

TEST(FileNameFromPath, IsWhatStandsBehindTheLastSlash) {
    EXPECT_EQ(PathUtils::GetFileNameFromPath("/usr/bin/ls"), "ls");
    EXPECT_EQ(PathUtils::GetFileNameFromPath("ls"), "ls");
    EXPECT_EQ(PathUtils::GetFileNameFromPath("/usr/bin/"), "");
    EXPECT_EQ(PathUtils::GetFileNameFromPath(""), "");
}
