corvalent_add_test(whitelist_trust_stores_test ${TEST_DIR}/ProcessRecordTest.cpp ${TEST_DIR}/TrustStoresTest.cpp
  LIBS whitelist_objects OpenSSL::Crypto)
