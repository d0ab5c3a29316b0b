# The Debian package, made once for the tests that look into it, and its unit.
add_test(NAME packaging.build COMMAND ${TEST_DIR}/build-package.sh ${CMAKE_BINARY_DIR} ${CMAKE_CPACK_COMMAND})
set_tests_properties(packaging.build PROPERTIES FIXTURES_SETUP package LABELS packaging TIMEOUT 300)
foreach(script package package-life service)
  add_test(NAME packaging.${script} COMMAND ${TEST_DIR}/${script}.sh ${CMAKE_BINARY_DIR})
  set_tests_properties(packaging.${script} PROPERTIES FIXTURES_REQUIRED package LABELS packaging TIMEOUT 300
    SKIP_RETURN_CODE 77)
endforeach()
find_package(Python3 REQUIRED COMPONENTS Interpreter)
add_test(NAME packaging.documentation
  COMMAND Python3::Interpreter ${TEST_DIR}/documentation.py ${CMAKE_RUNTIME_OUTPUT_DIRECTORY} ${CMAKE_SOURCE_DIR}/packaging)
set_tests_properties(packaging.documentation PROPERTIES LABELS packaging TIMEOUT 60)

# A debug build is not hardened.
if(CORVALENT_HARDENING_COMPILE)
  add_test(NAME packaging.hardening
    COMMAND Python3::Interpreter ${TEST_DIR}/hardening.py ${CMAKE_BINARY_DIR}/root ${CMAKE_CXX_COMPILER}
      ${CORVALENT_HARDENING_COMPILE} ${CORVALENT_HARDENING_LINK})
  set_tests_properties(packaging.hardening PROPERTIES LABELS packaging TIMEOUT 120)
endif()
