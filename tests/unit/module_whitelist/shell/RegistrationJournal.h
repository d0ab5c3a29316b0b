#pragma once

#include <string>
#include <vector>

namespace ShellTest {

// What modules have asked of their framework base, in order, in a program that RegistrationJournal.cpp
// is part of; the base does as it was asked. "RegisterTasklet KEY", "RegisterPolicy KEY",
// "UnRegisterTasklet KEY", "UnRegisterPolicy KEY", "RegisterTask NAME now|later", "Init", "UnInit".
std::vector<std::string>& RegistrationJournal();

} // namespace ShellTest
