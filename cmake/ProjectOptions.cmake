# The one target that every target of the project links: warnings, and what the
# 32-bit device needs (64-bit file offsets and times).
add_library(project-options INTERFACE)
target_compile_options(project-options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
  $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
  -Wformat=2 -Wno-format-nonliteral
  $<$<BOOL:${FW_UPDATE_WARNINGS_AS_ERRORS}>:-Werror>)
target_compile_definitions(project-options INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
# Clang keeps its sanitizers' run-time in the program alone, undefined in a library.
if(NOT (FW_UPDATE_SANITIZERS AND CMAKE_CXX_COMPILER_ID MATCHES Clang))
  target_link_options(project-options INTERFACE -Wl,--no-undefined)
endif()
if(FW_UPDATE_SANITIZERS)
  target_compile_options(project-options INTERFACE
    -fsanitize=${FW_UPDATE_SANITIZERS} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(project-options INTERFACE -fsanitize=${FW_UPDATE_SANITIZERS})
endif()

# What the sanitizers are not to report is part of each program.
if(FW_UPDATE_SANITIZERS AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  set(sanitizers ${PROJECT_SOURCE_DIR}/tests/sanitizers)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${sanitizers}/leaks.supp ${sanitizers}/threads.supp)
  file(READ ${sanitizers}/leaks.supp FW_LEAK_SUPPRESSIONS)
  file(READ ${sanitizers}/threads.supp FW_THREAD_SUPPRESSIONS)
  configure_file(${sanitizers}/suppressions.cpp.in ${PROJECT_BINARY_DIR}/suppressions.cpp @ONLY)
  add_library(sanitizer-suppressions OBJECT ${PROJECT_BINARY_DIR}/suppressions.cpp)
  target_compile_options(sanitizer-suppressions PRIVATE -fPIE)
  target_link_libraries(project-options INTERFACE
    $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:$<TARGET_OBJECTS:sanitizer-suppressions>>)
endif()
