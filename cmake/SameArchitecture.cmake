# SPDX-License-Identifier: Apache-2.0
# A build folder belongs to the architecture of the system that it was configured on. Another
# one, such as a 32-bit root with the same source tree, would reuse what was found there.
execute_process(COMMAND ${CMAKE_CXX_COMPILER} ${CMAKE_CXX_FLAGS} -dumpmachine
  OUTPUT_VARIABLE machine OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(DEFINED CACHE{FW_UPDATE_MACHINE} AND NOT FW_UPDATE_MACHINE STREQUAL machine)
  message(FATAL_ERROR
    "The build folder ${PROJECT_BINARY_DIR} belongs to ${FW_UPDATE_MACHINE}, and this compiler builds for ${machine}. "
    "Take a folder of its own: cmake --preset PRESET -B build/${machine}")
endif()
set(FW_UPDATE_MACHINE "${machine}" CACHE INTERNAL "What this build folder is for")
