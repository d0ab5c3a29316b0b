corvalent_add_test(ctl_preset_test ${TEST_DIR}/SurveyTest.cpp ${TEST_DIR}/PresetDocumentTest.cpp
  ${TEST_DIR}/VerificationTest.cpp ${TEST_DIR}/ParallelTest.cpp ${TEST_DIR}/ProgressBarTest.cpp LIBS ctl_objects)
