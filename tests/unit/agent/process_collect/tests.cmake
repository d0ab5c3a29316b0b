corvalent_add_test(process_collect_pure_test
  ${TEST_DIR}/ProcEventTest.cpp ${TEST_DIR}/ForkHoldTest.cpp ${TEST_DIR}/EventMergeTest.cpp
  ${TEST_DIR}/ProcStatTest.cpp
  LIBS process_collect_objects)
corvalent_add_test(process_collect_announcer_test ${TEST_DIR}/AnnouncerTest.cpp
  ${CMAKE_SOURCE_DIR}/tests/support/AllocationCounter.cpp LIBS process_collect_objects)
corvalent_add_test(process_collect_kernel_test
  ${TEST_DIR}/ProcSocketTest.cpp ${TEST_DIR}/ProcConnectorTest.cpp ${TEST_DIR}/ProcsRealTaskTest.cpp ${TEST_DIR}/ProcsLossTest.cpp
  ${TEST_DIR}/ProcsScanTaskTest.cpp ${TEST_DIR}/ProcessCollectModuleTest.cpp
  ${CMAKE_SOURCE_DIR}/tests/support/AllocationCounter.cpp
  LIBS process_collect_objects TIMEOUT 180)
