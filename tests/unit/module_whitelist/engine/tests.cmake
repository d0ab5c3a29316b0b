corvalent_add_test(whitelist_trust_stores_test ${TEST_DIR}/ProcessRecordTest.cpp ${TEST_DIR}/TrustStoresTest.cpp
  LIBS whitelist_objects OpenSSL::Crypto)
corvalent_add_test(whitelist_list_storage_test ${TEST_DIR}/TrustRecordTest.cpp ${TEST_DIR}/ListDocumentTest.cpp
  ${TEST_DIR}/BackgroundStoringTest.cpp LIBS whitelist_objects OpenSSL::Crypto)
corvalent_add_test(whitelist_presets_test ${TEST_DIR}/PresetListsTest.cpp
  LIBS whitelist_objects PkgConfig::HTTPLIB OpenSSL::SSL OpenSSL::Crypto)
corvalent_add_test(whitelist_decision_test ${TEST_DIR}/TrustDecisionTest.cpp ${TEST_DIR}/PrelinkTest.cpp
  ${TEST_DIR}/InterpreterNamesTest.cpp LIBS whitelist_objects OpenSSL::Crypto)
corvalent_add_test(whitelist_explanation_test ${TEST_DIR}/ListOpinionTest.cpp ${TEST_DIR}/TrustExplanationTest.cpp
  ${TEST_DIR}/ShebangTest.cpp LIBS whitelist_objects OpenSSL::Crypto)
corvalent_add_test(whitelist_tracking_test ${TEST_DIR}/RunningProcessesTest.cpp ${TEST_DIR}/ProcessTrackingTest.cpp
  ${TEST_DIR}/DetectionTest.cpp LIBS whitelist_objects OpenSSL::Crypto)
corvalent_add_test(whitelist_image_digests_test ${TEST_DIR}/ImageDigestsTest.cpp
  LIBS whitelist_objects OpenSSL::Crypto)
corvalent_add_test(whitelist_inspection_test ${TEST_DIR}/ProcessInspectionTest.cpp
  ${TEST_DIR}/InterpreterScriptTest.cpp LIBS whitelist_objects OpenSSL::Crypto)
corvalent_add_test(whitelist_concurrency_test ${TEST_DIR}/ConcurrencyTest.cpp LIBS whitelist_objects OpenSSL::Crypto
  TIMEOUT 300)
