corvalent_add_test(lockless_queue_test ${TEST_DIR}/LocklessQueueTest.cpp LIBS sdk_headers)
corvalent_add_test(lockless_queue_hold_up_test ${TEST_DIR}/LocklessQueueHoldUpTest.cpp LIBS sdk_headers)
corvalent_add_test(lockless_queue_allocation_test ${TEST_DIR}/LocklessQueueAllocationTest.cpp LIBS sdk_headers)
corvalent_add_test(lockless_queue_stress_test ${TEST_DIR}/LocklessQueueStressTest.cpp LIBS sdk_headers TIMEOUT 300)

# The stress test once more under the thread sanitizer, whatever the rest is built with. All that counts
# is in the queue's header and the test's source, so the libraries need not be instrumented. A build
# that is instrumented as a whole has its own.
if(NOT CORVALENT_SANITIZER)
  add_executable(lockless_queue_tsan_test ${TEST_DIR}/LocklessQueueStressTest.cpp)
  target_include_directories(lockless_queue_tsan_test PRIVATE ${CMAKE_SOURCE_DIR}/sdk)
  target_compile_definitions(lockless_queue_tsan_test PRIVATE STRESS_ELEMENTS_PER_PRODUCER=15000)
  target_compile_options(lockless_queue_tsan_test PRIVATE -fsanitize=thread -O1 -g)
  target_link_options(lockless_queue_tsan_test PRIVATE -fsanitize=thread)
  target_link_libraries(lockless_queue_tsan_test PRIVATE corvalent_options Threads::Threads GTest::gtest_main)
  set_target_properties(lockless_queue_tsan_test PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  gtest_discover_tests(lockless_queue_tsan_test TEST_PREFIX Tsan. DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endif()
