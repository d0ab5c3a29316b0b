#pragma once

namespace ShellTest {

// In a program that WriteJournal.cpp is part of, every file that is replaced and every file that is
// removed is told to the logs, so that one record of what happened shows files and messages in their
// order: "write NAME: CONTENT, mode N" and "remove NAME", NAME being the file name and N the module's
// mode at that time.
inline constexpr const char* JOURNAL_LOGGER = "test_journal";

} // namespace ShellTest
