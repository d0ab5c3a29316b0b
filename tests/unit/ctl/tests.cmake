corvalent_add_test(ctl_test ${TEST_DIR}/OutputTest.cpp ${TEST_DIR}/SinceTimeTest.cpp ${TEST_DIR}/ClientTest.cpp LIBS ctl_objects)

# The program itself, talking to a control server in the test.
corvalent_add_test(ctl_process_test ${TEST_DIR}/CtlProcessTest.cpp LIBS daemon_objects data_comm_objects)
target_compile_definitions(ctl_process_test PRIVATE CORVALENTCTL="$<TARGET_FILE:corvalentctl>")
add_dependencies(ctl_process_test corvalentctl)

corvalent_add_test(ctl_policy_test ${TEST_DIR}/PolicyCheckTest.cpp ${TEST_DIR}/PolicyTextTest.cpp
  ${TEST_DIR}/PolicyReferenceTest.cpp LIBS ctl_objects)
target_compile_definitions(ctl_policy_test PRIVATE SOURCE_DIR="${CMAKE_SOURCE_DIR}")
# The check beside the module's own parser.
corvalent_add_test(ctl_policy_agreement_test ${TEST_DIR}/PolicyAgreementTest.cpp
  LIBS ctl_objects whitelist_objects framework)
