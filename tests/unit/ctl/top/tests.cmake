corvalent_add_test(ctl_top_test ${TEST_DIR}/TopSamplerTest.cpp ${TEST_DIR}/TopLinesTest.cpp LIBS ctl_objects)
