corvalent_add_test(ctl_test ${TEST_DIR}/OutputTest.cpp ${TEST_DIR}/SinceTimeTest.cpp LIBS ctl_objects)

# The program itself, talking to a control server in the test.
corvalent_add_test(ctl_process_test ${TEST_DIR}/CtlProcessTest.cpp LIBS daemon_objects data_comm_objects)
target_compile_definitions(ctl_process_test PRIVATE CORVALENTCTL="$<TARGET_FILE:corvalentctl>")
add_dependencies(ctl_process_test corvalentctl)
