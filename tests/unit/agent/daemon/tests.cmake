corvalent_add_test(daemon_test
  ${TEST_DIR}/SettingsTest.cpp ${TEST_DIR}/DesiredTest.cpp ${TEST_DIR}/RootLockTest.cpp ${TEST_DIR}/NotifyTest.cpp
  ${TEST_DIR}/DeliveriesTest.cpp ${TEST_DIR}/ControlServerTest.cpp
  LIBS daemon_objects data_comm_objects)
corvalent_add_test(daemon_metrics_test
  ${TEST_DIR}/ExpositionTest.cpp ${TEST_DIR}/MetricsTest.cpp ${TEST_DIR}/MetricsServerTest.cpp LIBS daemon_objects)
target_compile_definitions(daemon_metrics_test PRIVATE REFERENCE="${CMAKE_SOURCE_DIR}/docs/reference.md")
corvalent_add_test(daemon_heartbeat_test ${TEST_DIR}/HeartbeatTest.cpp LIBS daemon_objects)

# The program itself, with modules from the build that need no permission of the kernel.
corvalent_add_test(daemon_process_test ${TEST_DIR}/DaemonProcessTest.cpp LIBS daemon_objects)
add_library(stopper_test_module MODULE ${TEST_DIR}/StopperModule.cpp)
target_link_libraries(stopper_test_module PRIVATE framework)
set_target_properties(stopper_test_module PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
target_compile_definitions(daemon_process_test PRIVATE
  CORVALENTD="$<TARGET_FILE:corvalentd>"
  DATA_COMM_MODULE="$<TARGET_FILE:data_comm_module>"
  STOPPER_MODULE="$<TARGET_FILE:stopper_test_module>")
add_dependencies(daemon_process_test corvalentd data_comm_module stopper_test_module)
