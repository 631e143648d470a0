# SPDX-License-Identifier: Apache-2.0
# With FW_UPDATE_QUICK_BUILD, for checks: what makes a build of everything take less time,
# and what a build for use goes without.

# A quick linker takes a quarter of the time of the usual one.
find_program(FW_QUICK_LINKER ld.lld)
if(FW_UPDATE_QUICK_BUILD AND FW_QUICK_LINKER)
  add_link_options(-fuse-ld=lld)
endif()

# fw_precompile(<library>...)
#
# Compiles the standard headers that most sources of these libraries include once, which
# saves about a third of their time.
function(fw_precompile)
  if(NOT FW_UPDATE_QUICK_BUILD)
    return()
  endif()
  file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/precompiled.cpp
       CONTENT "// Nothing but the headers that CMake compiles once.\n")
  add_library(precompiled OBJECT ${PROJECT_BINARY_DIR}/precompiled.cpp)
  target_link_libraries(precompiled PRIVATE project-options)
  target_precompile_headers(precompiled PRIVATE
    <algorithm> <chrono> <cstring> <filesystem> <fstream> <functional> <iostream> <map> <memory> <optional> <set>
    <sstream> <string> <string_view> <system_error> <thread> <vector>)
  foreach(library IN LISTS ARGN)
    target_precompile_headers(${library} REUSE_FROM precompiled)
  endforeach()
endfunction()

# fw_compile_together(<test program>)
#
# Compiles its sources several at a time: what they share, templates above all, takes most of
# the time of each. A name is therefore to be another one in each of them; a source that
# cannot do without says so by SKIP_UNITY_BUILD_INCLUSION. The files that this makes name the
# sources without the place of this tree, so that the compiler cache knows them in every clone.
set(FW_SOURCES_TOGETHER 5)
function(fw_compile_together name)
  get_target_property(sources ${name} SOURCES)
  set(apart "")
  set(together "")
  foreach(source IN LISTS sources)
    get_source_file_property(skipped ${source} SKIP_UNITY_BUILD_INCLUSION)
    if(skipped OR NOT source MATCHES "\\.cpp$")
      list(APPEND apart ${source})
    else()
      get_filename_component(source ${source} ABSOLUTE)
      file(RELATIVE_PATH source ${PROJECT_SOURCE_DIR} ${source})
      list(APPEND together ${source})
    endif()
  endforeach()

  list(LENGTH together number)
  if(number LESS 2)
    return()
  endif()
  set(number 0)
  while(together)
    math(EXPR number "${number} + 1")
    list(SUBLIST together 0 ${FW_SOURCES_TOGETHER} several)
    list(REMOVE_ITEM together ${several})
    list(TRANSFORM several REPLACE "(.+)" "#include \"\\1\"\n")
    list(JOIN several "" several)
    set(file ${CMAKE_CURRENT_BINARY_DIR}/${name}-${number}.cpp)
    file(CONFIGURE OUTPUT ${file} CONTENT "${several}" @ONLY)
    list(APPEND apart ${file})
  endwhile()
  set_target_properties(${name} PROPERTIES SOURCES "${apart}")
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  # Fixtures in unnamed namespaces look as if they came from a header.
  target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
endfunction()
