# The daemon as it is shipped, with all its modules, against the kernel of this machine.
add_library(system_harness STATIC ${TEST_DIR}/Agent.cpp ${TEST_DIR}/Program.cpp)
target_include_directories(system_harness PUBLIC ${CMAKE_SOURCE_DIR}/tests)
target_compile_definitions(system_harness PRIVATE BUILT_ROOT="${CMAKE_BINARY_DIR}/root")
target_compile_definitions(system_harness PUBLIC FORK_SLEEPERS="${CMAKE_BINARY_DIR}/tests/fork_sleepers"
  STORM="${CMAKE_BINARY_DIR}/tests/storm")
target_link_libraries(system_harness PUBLIC sdk PkgConfig::HTTPLIB GTest::gtest)
add_dependencies(system_harness corvalentd corvalentctl whitelist_module process_collect_module filenotify_module
  isolate_module data_comm_module fork_sleepers storm)

foreach(concern Learning Mode Policy PolicyCheck Detection Blocking Command Lifecycle Operator Directory Preset Trust
    Doctor Top Metrics Explain)
  string(TOLOWER system_${concern}_test name)
  corvalent_add_test(${name} ${TEST_DIR}/${concern}Test.cpp LIBS system_harness LABELS system)
endforeach()
# A terminal that the tests look at.
pkg_check_modules(VTERM REQUIRED IMPORTED_TARGET vterm)
foreach(name system_top_test system_preset_test)
  target_link_libraries(${name} PRIVATE PkgConfig::VTERM)
endforeach()
target_compile_definitions(system_metrics_test PRIVATE LINT_METRICS="${CMAKE_SOURCE_DIR}/tests/tools/lint_metrics.py")
# The daemon under what its systemd unit takes away from it.
corvalent_add_test(system_serviceunit_test ${TEST_DIR}/ServiceUnitTest.cpp LIBS system_harness LABELS system)
target_compile_definitions(system_serviceunit_test PRIVATE UNIT="${CMAKE_SOURCE_DIR}/packaging/corvalent.service")
# Alone, so that it measures the agent and not its neighbours.
corvalent_add_test(system_idle_test ${TEST_DIR}/IdleTest.cpp LIBS system_harness LABELS system-slow
  PROPERTIES RUN_SERIAL ON)
# Alone, because it takes both cores for a while.
corvalent_add_test(system_storm_test ${TEST_DIR}/StormTest.cpp LIBS system_harness LABELS system-slow
  PROPERTIES RUN_SERIAL ON)
target_compile_definitions(system_storm_test PRIVATE OPEN_FILES="${CMAKE_BINARY_DIR}/tests/open_files")
add_dependencies(system_storm_test open_files)
