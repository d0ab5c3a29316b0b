corvalent_add_test(data_comm_test
  ${TEST_DIR}/ReportStoreTest.cpp ${TEST_DIR}/DataCommTaskTest.cpp ${TEST_DIR}/DataCommModuleTest.cpp
  ${TEST_DIR}/AlertLineTest.cpp ${TEST_DIR}/AlertSummaryTest.cpp
  LIBS data_comm_objects)
