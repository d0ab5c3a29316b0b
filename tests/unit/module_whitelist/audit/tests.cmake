# One program for each way in which the audit's surroundings are replaced: the wall clock, the CPU
# clock, or the CPU governor and the allocator.
set(AUDIT_LIBS whitelist_objects framework sdk OpenSSL::Crypto)
set(STAND_INS ${CMAKE_SOURCE_DIR}/tests/unit/module_whitelist/shell)

corvalent_add_test(whitelist_file_audit_test ${TEST_DIR}/AuditScopeTest.cpp ${TEST_DIR}/InodeCacheTest.cpp
  ${TEST_DIR}/AuditedProcessesTest.cpp ${TEST_DIR}/FileEventTest.cpp ${TEST_DIR}/FileVerdictTest.cpp
  ${STAND_INS}/FakeClock.cpp LIBS ${AUDIT_LIBS})
corvalent_add_test(whitelist_audit_rates_test ${TEST_DIR}/AuditRatesTest.cpp LIBS ${AUDIT_LIBS})
corvalent_add_test(whitelist_audit_task_test ${TEST_DIR}/FileAuditTaskTest.cpp ${TEST_DIR}/AuditLifeTest.cpp
  ${STAND_INS}/FakeGovernor.cpp ${STAND_INS}/RefusingAllocator.cpp LIBS ${AUDIT_LIBS})
