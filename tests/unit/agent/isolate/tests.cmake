corvalent_add_test(isolate_test ${TEST_DIR}/IsolateTest.cpp LIBS isolate_objects)
