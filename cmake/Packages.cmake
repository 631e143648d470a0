# SPDX-License-Identifier: Apache-2.0
# Debian packages, one a component of the installation:
#   cmake --preset package && cmake --build --preset package --target package
# writes them to build/package. The version is the project's, the changelog
# packaging/debian/changelog.

# fw_describe_package(<component> <package> <section> <one line> <further lines>
#                     [DEPENDS <component>...])
function(fw_describe_package component package section summary description)
  cmake_parse_arguments(PARSE_ARGV 5 package "" "" "DEPENDS")
  string(TOUPPER ${component} key)
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${package} PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_COMPONENT_${key}_DEPENDS ${package_DEPENDS} PARENT_SCOPE)
  set(CPACK_COMPONENT_${key}_DESCRIPTION "${summary}\n${description}" PARENT_SCOPE)
  set(documents ${CMAKE_INSTALL_DATADIR}/doc/${package})
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/debian/copyright
    DESTINATION ${documents} COMPONENT ${component})
  install(FILES ${PROJECT_BINARY_DIR}/changelog.gz DESTINATION ${documents} COMPONENT ${component})
  set(overrides ${PROJECT_SOURCE_DIR}/packaging/debian/${component}/lintian-overrides)
  if(EXISTS ${overrides})
    install(FILES ${overrides} DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides
      RENAME ${package} COMPONENT ${component})
  endif()
endfunction()

# The pages lie there as they lie here, so that their links hold.
set(pages ${CMAKE_INSTALL_DATADIR}/doc/libfw-update-control-dev)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  ${PROJECT_SOURCE_DIR}/CONTRIBUTING.md ${PROJECT_SOURCE_DIR}/SECURITY.md
  DESTINATION ${pages} COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION ${pages} COMPONENT development
  FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.png"
  PATTERN man EXCLUDE PATTERN reference EXCLUDE PATTERN troubleshooting EXCLUDE)

find_program(GZIP gzip REQUIRED)
add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/changelog.gz
  COMMAND ${GZIP} -9nc ${PROJECT_SOURCE_DIR}/packaging/debian/changelog > ${PROJECT_BINARY_DIR}/changelog.gz
  DEPENDS ${PROJECT_SOURCE_DIR}/packaging/debian/changelog)
add_custom_target(changelog ALL DEPENDS ${PROJECT_BINARY_DIR}/changelog.gz)

# A set's own platform is a package that provides fw-update-platform.
set(platform_package "libfw-platform1 | fw-update-platform")
fw_describe_package(library libfw-update-control1 libs
  "firmware update control for televisions - library"
  "Finds the update modules of a set's components, checks their firmware images
and runs the updates, one at a time across all processes of the set.")
fw_describe_package(platform libfw-platform1 libs
  "firmware update control for televisions - ordinary Linux"
  "What the library calls on the device, for ordinary Linux: log, traces, power,
mounting and downloading packages. A set may bring its own.")
fw_describe_package(verifier fw-update-verifier libs
  "firmware update control for televisions - verification library"
  "Checks the signatures of firmware packages. Without it, or one of the set's
own at its place, the library takes packages that are not signed.")
fw_describe_package(platform-check fw-platform-check admin
  "firmware update control for televisions - check of a set"
  "fw-platform-check finds out whether a platform library keeps what the update
library relies on, and whether a set would use anything unsigned.")
fw_describe_package(development libfw-update-control-dev libdevel
  "firmware update control for televisions - headers"
  "The headers, the CMake package and the pkg-config file, for programs that ask
for updates, for modules and for platforms."
  DEPENDS library)
fw_describe_package(tools fw-update-tools admin
  "firmware update control for televisions - commands"
  "fw-update lists and runs updates, fw-trace shows what they did, fw-pack makes
and checks firmware packages."
  DEPENDS library)
fw_describe_package(fleet fw-fleet admin
  "firmware update control for televisions - client of a fleet's server"
  "fw-fleet asks a server, or a signed list in a directory, which updates there
are for this set, downloads them, hands them over to the update service, and
tells the server what came of it."
  DEPENDS tools)
fw_describe_package(module-kit fw-update-module-kit devel
  "firmware update control for televisions - module kit"
  "fw-module writes and checks update modules, fw-device makes devices in
directories to try them on; with four example modules."
  DEPENDS library tools development)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME fw-update-control)
# Each package has a first line of its own; otherwise the project's stands above it.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_CONTACT "fw-update-control maintainers <maintainers@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL library platform verifier platform-check development tools fleet module-kit)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# Between the packages the components' dependencies speak; the rest is looked up.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
# Packages of programs that link them depend on this version at least.
function(fw_write_shlibs component library packages)
  file(WRITE ${PROJECT_BINARY_DIR}/packaging/${component}/shlibs
    "${library} ${PROJECT_VERSION_MAJOR} ${packages}\n")
endfunction()
fw_write_shlibs(library libfw-update-control "libfw-update-control1 (>= ${PROJECT_VERSION})")
fw_write_shlibs(platform libfw-platform "libfw-platform1 (>= ${PROJECT_VERSION}) | fw-update-platform")
set(debian ${PROJECT_SOURCE_DIR}/packaging/debian)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
  ${debian}/triggers ${PROJECT_BINARY_DIR}/packaging/library/shlibs)
set(CPACK_DEBIAN_PLATFORM_PACKAGE_CONTROL_EXTRA
  ${debian}/triggers ${PROJECT_BINARY_DIR}/packaging/platform/shlibs
  ${debian}/platform/postinst ${debian}/platform/prerm ${debian}/platform/postrm)
set(CPACK_DEBIAN_VERIFIER_PACKAGE_CONTROL_EXTRA ${debian}/triggers)
list(APPEND CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${debian}/library/postinst ${debian}/library/postrm)
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA
  ${debian}/tools/postinst ${debian}/tools/prerm ${debian}/tools/postrm)
set(CPACK_DEBIAN_FLEET_PACKAGE_CONTROL_EXTRA
  ${debian}/fleet/postinst ${debian}/fleet/prerm ${debian}/fleet/postrm)
set(CPACK_DEBIAN_PLATFORM_PACKAGE_PROVIDES fw-update-platform)
foreach(component IN ITEMS LIBRARY PLATFORM-CHECK DEVELOPMENT TOOLS FLEET MODULE-KIT)
  set(CPACK_DEBIAN_${component}_PACKAGE_DEPENDS ${platform_package})
endforeach()
set(CPACK_DEBIAN_LIBRARY_PACKAGE_RECOMMENDS fw-update-verifier)
# mksquashfs makes extension packages.
string(APPEND CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS ", squashfs-tools")
include(CPack)
