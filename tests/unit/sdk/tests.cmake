corvalent_add_test(lockless_queue_test ${TEST_DIR}/LocklessQueueTest.cpp LIBS sdk_headers)
corvalent_add_test(lockless_queue_hold_up_test ${TEST_DIR}/LocklessQueueHoldUpTest.cpp LIBS sdk_headers)
corvalent_add_test(lockless_queue_allocation_test ${TEST_DIR}/LocklessQueueAllocationTest.cpp
  ${CMAKE_SOURCE_DIR}/tests/support/AllocationCounter.cpp LIBS sdk_headers)
corvalent_add_test(lockless_queue_stress_test ${TEST_DIR}/LocklessQueueStressTest.cpp LIBS sdk_headers TIMEOUT 300)
if(CORVALENT_SANITIZER)
  # An element costs more here, and fewer are enough: what a sanitizer sees does not depend on luck as much.
  target_compile_definitions(lockless_queue_stress_test PRIVATE STRESS_ELEMENTS_PER_PRODUCER=15000)
endif()
