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
