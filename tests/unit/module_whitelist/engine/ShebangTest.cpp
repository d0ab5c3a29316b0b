#include "utils/Shebang.h"

#include <gtest/gtest.h>

#include "support/TempRoot.h"

namespace EngineTest {

namespace {

std::string InterpreterOf(const std::string& content) {
    const TestSupport::TempDir folder;
    return utils::shebang::ReadInterpreter(folder.Write("script", content));
}

} // namespace

TEST(ShebangTest, TheInterpreterIsTheFirstWordOfTheLine) {
    EXPECT_EQ(InterpreterOf("#!/bin/sh\necho"), "/bin/sh");
    EXPECT_EQ(InterpreterOf("#! \t/usr/bin/env python3 -u\n"), "/usr/bin/env");
    EXPECT_EQ(InterpreterOf("#!/bin/sh\t-e"), "/bin/sh");
    EXPECT_EQ(InterpreterOf("#!/bin/sh"), "/bin/sh");
    EXPECT_EQ(InterpreterOf(std::string("#!/bin/sh\0/x\n", 13)), "/bin/sh");
}

TEST(ShebangTest, WhatHasNoSuchLineHasNoInterpreter) {
    EXPECT_EQ(InterpreterOf(""), "");
    EXPECT_EQ(InterpreterOf("#"), "");
    EXPECT_EQ(InterpreterOf("#!"), "");
    EXPECT_EQ(InterpreterOf("#!  \n/bin/sh\n"), "");
    EXPECT_EQ(InterpreterOf("echo\n#!/bin/sh\n"), "");
    EXPECT_EQ(utils::shebang::ReadInterpreter("/no/such/file"), "");
}

TEST(ShebangTest, NoMoreThanTheKernelReadsIsRead) {
    EXPECT_EQ(InterpreterOf("#!/" + std::string(1000, 'x')).size(), 254U);
}

} // namespace EngineTest
