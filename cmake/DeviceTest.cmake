# SPDX-License-Identifier: Apache-2.0
include(GoogleTest)

# fw_set_up_test(<name>)
#
# What every test program has in common: where it lies, how it is compiled.
function(fw_set_up_test name)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/tests")
  target_link_libraries(${name} PRIVATE test-options)
  if(FW_UPDATE_QUICK_BUILD)
    fw_compile_together(${name})
    target_precompile_headers(${name} REUSE_FROM test-precompiled)
  endif()
endfunction()

# fw_discover_tests(<name> [<argument of gtest_discover_tests>...])
#
# One ctest entry for each test in the program. It is started for that, which takes a busy
# machine longer than the usual five seconds now and then.
function(fw_discover_tests name)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 120 ${ARGN})
endfunction()

# fw_add_device_test(<name> <source>... [LIBS <library>...])
#
# Adds a test program whose tests run inside a device of their own, and one ctest
# entry for each test in it. Exit code 77 counts as skipped: the kernel allows no
# private device.
function(fw_add_device_test name)
  cmake_parse_arguments(PARSE_ARGV 1 test "" "" "LIBS")
  add_executable(${name} ${test_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE project-options test-device ${test_LIBS})
  fw_set_up_test(${name})
  fw_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES SKIP_RETURN_CODE 77)
endfunction()

# fw_add_library_test(<topic> [<source>...])
#
# Adds the test program of <topic>.cpp and further sources: the library in a device, against a recording
# platform and scripted modules, which call back into the program. Its symbols take
# the place of the platform's.
function(fw_add_library_test topic)
  fw_add_device_test(test-${topic} ${topic}.cpp ${ARGN} LIBS -Wl,--whole-archive test-library test-recording-platform
                     -Wl,--no-whole-archive)
  set_target_properties(test-${topic} PROPERTIES ENABLE_EXPORTS ON)
endfunction()
