corvalent_add_test(sdk_text_test ${TEST_DIR}/StrUtilsTest.cpp ${TEST_DIR}/PathUtilsTest.cpp
  ${TEST_DIR}/CryptoCodeUtilsTest.cpp ${TEST_DIR}/TimeUtilsTest.cpp ${TEST_DIR}/PrintableTextTest.cpp
  LIBS sdk)
corvalent_add_test(sdk_json_test ${TEST_DIR}/JsonUtilsTest.cpp LIBS sdk)
corvalent_add_test(sdk_file_test
  ${TEST_DIR}/FileUtilsTest.cpp ${TEST_DIR}/DigestCacheTest.cpp ${TEST_DIR}/AheadReaderTest.cpp
  ${TEST_DIR}/TurnTakingTest.cpp
  LIBS sdk OpenSSL::Crypto)
corvalent_add_test(sdk_process_test ${TEST_DIR}/ProcessUtilsTest.cpp ${TEST_DIR}/ProcessImageTest.cpp
  ${TEST_DIR}/PidfdTest.cpp
  LIBS sdk)
corvalent_add_test(sdk_http_test ${TEST_DIR}/HttpUtilsTest.cpp LIBS sdk PkgConfig::HTTPLIB OpenSSL::SSL OpenSSL::Crypto)
corvalent_add_test(sdk_command_test ${TEST_DIR}/CommandLineTest.cpp ${TEST_DIR}/ExecuteCmdUtilsTest.cpp LIBS sdk)
corvalent_add_test(sdk_governor_test ${TEST_DIR}/CpuGovernorTest.cpp LIBS sdk)
corvalent_add_test(sdk_histogram_test ${TEST_DIR}/HistogramTest.cpp LIBS sdk)
corvalent_add_test(sdk_log_test ${TEST_DIR}/LogSetupTest.cpp ${TEST_DIR}/LogCaptureTest.cpp LIBS sdk)
