# SPDX-License-Identifier: Apache-2.0
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

# What makes a mistake harder to use, in what is optimised and not measured; tests/hardening
# reads it from the built files. The last two are not there for every processor and compiler.
if(NOT FW_UPDATE_SANITIZERS AND NOT FW_UPDATE_COVERAGE)
  include(CheckCXXCompilerFlag)
  set(hardening -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 $<$<COMPILE_LANGUAGE:CXX>:-D_GLIBCXX_ASSERTIONS>
    -fstack-protector-strong)
  foreach(flag IN ITEMS -fstack-clash-protection -fcf-protection)
    string(MAKE_C_IDENTIFIER "FW_UPDATE_HAS${flag}" known)
    check_cxx_compiler_flag(${flag} ${known})
    if(${known})
      list(APPEND hardening ${flag})
    endif()
  endforeach()
  target_compile_options(project-options INTERFACE $<$<NOT:$<CONFIG:Debug>>:${hardening}>)
  target_link_options(project-options INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-Wl,-z,relro,-z,now,-z,noexecstack>)
endif()
include(CheckPIESupported)
check_pie_supported(LANGUAGES C CXX)

# fw_find_libraries_when_built(<target> <component> <destination>)
#
# For what links the project's libraries and is installed. CMake ends the path that it is
# built with by an empty element, which means the current directory: whoever can write there
# chooses the library. The path is given by hand therefore, and taken out when it is installed.
function(fw_find_libraries_when_built target component destination)
  set_target_properties(${target} PROPERTIES BUILD_WITH_INSTALL_RPATH ON)
  # The slash at its end keeps the linker from using its tail as the name of a symbol.
  target_link_options(${target} PRIVATE -Wl,-rpath,${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/)
  install(CODE "file(RPATH_REMOVE FILE
    \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${destination}/$<TARGET_FILE_NAME:${target}>\")"
    COMPONENT ${component})
endfunction()
