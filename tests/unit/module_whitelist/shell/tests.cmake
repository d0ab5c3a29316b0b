# One program for each way in which the module's surroundings are replaced: where a source file stands
# in for an operation of a library (the clock, usleep, the CPU governor, the allocator), it is the
# program's own definition that takes precedence.
set(SHELL_LIBS whitelist_objects framework sdk)

corvalent_add_test(whitelist_config_file_test ${TEST_DIR}/ConfigFileTest.cpp LIBS ${SHELL_LIBS})
corvalent_add_test(whitelist_mode_test ${TEST_DIR}/ModeTest.cpp ${TEST_DIR}/FakeClock.cpp
  ${TEST_DIR}/WriteJournal.cpp LIBS ${SHELL_LIBS})
corvalent_add_test(whitelist_policy_content_test ${TEST_DIR}/PolicyContentTest.cpp ${TEST_DIR}/FileScopeRulesTest.cpp
  ${TEST_DIR}/WhitelistPolicyTest.cpp LIBS ${SHELL_LIBS})
corvalent_add_test(whitelist_module_test ${TEST_DIR}/ModuleLifeTest.cpp ${TEST_DIR}/RegistrationJournal.cpp
  ${TEST_DIR}/PolicyRefreshTest.cpp ${TEST_DIR}/CommandsTest.cpp LIBS ${SHELL_LIBS})
corvalent_add_test(whitelist_module_starved_test ${TEST_DIR}/ModuleStarvedTest.cpp ${TEST_DIR}/RefusingAllocator.cpp
  LIBS ${SHELL_LIBS})
corvalent_add_test(whitelist_event_task_test ${TEST_DIR}/ProcessManagerTaskTest.cpp
  ${TEST_DIR}/FakeGovernor.cpp LIBS ${SHELL_LIBS})
corvalent_add_test(whitelist_report_task_test ${TEST_DIR}/FullProcTaskTest.cpp LIBS ${SHELL_LIBS})
corvalent_add_test(whitelist_clock_task_test ${TEST_DIR}/LearnStatusCheckTaskTest.cpp ${TEST_DIR}/FakeClock.cpp
  LIBS ${SHELL_LIBS})

# Loads the library that is shipped; linked to nothing of it.
corvalent_add_test(whitelist_library_test ${TEST_DIR}/LibraryTest.cpp LIBS framework sdk)
target_compile_definitions(whitelist_library_test PRIVATE MODULE_LIBRARY="$<TARGET_FILE:whitelist_module>")
add_dependencies(whitelist_library_test whitelist_module)
