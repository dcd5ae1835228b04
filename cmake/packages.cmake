# Debian packages of what cmake/install.cmake installs; scripts/package-debian makes them.
set(TAVO_MAINTAINER "FirmwareUpdater maintainers <maintainers@firmware-updater.invalid>")

# The change log alone holds the date of a release: "## 1.0.0 (2026-11-23)".
file(STRINGS CHANGELOG.md releases REGEX "^## ${PROJECT_VERSION} \\([0-9-]+\\)$")
if(NOT releases MATCHES "\\(([0-9-]+)\\)")
  message(FATAL_ERROR "CHANGELOG.md has no dated entry for version ${PROJECT_VERSION}")
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS CHANGELOG.md THIRD-PARTY-NOTICES.md)
execute_process(COMMAND date --utc --rfc-email --date=${CMAKE_MATCH_1}
  OUTPUT_VARIABLE TAVO_RELEASE_DATE OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME firmware-updater)
set(CPACK_PACKAGE_CONTACT ${TAVO_MAINTAINER})
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE "")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENTS_ALL library common development tool)
# Each component's description brings its own summary.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")

set(library_package libfirmwareupdater${PROJECT_VERSION_MAJOR})
set(common_package "libfirmwareupdater-common (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME ${library_package})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS ${common_package})
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION "firmware updates for modules on the Tavo bus - library
A shared library that updates the firmware of control modules on the Tavo
bus, over USB or through an FTDI USB-serial adapter.")
# CPack would also offer the tool's substitute libusb to other packages, so the file is written here.
file(CONFIGURE OUTPUT debian/shlibs CONTENT "libFirmwareUpdater @PROJECT_VERSION_MAJOR@ ${library_package}\n")
file(CONFIGURE OUTPUT debian/triggers CONTENT "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA
  ${CMAKE_BINARY_DIR}/debian/shlibs ${CMAKE_BINARY_DIR}/debian/triggers)

set(CPACK_DEBIAN_COMMON_PACKAGE_NAME libfirmwareupdater-common)
set(CPACK_DEBIAN_COMMON_PACKAGE_SECTION misc)
set(CPACK_DEBIAN_COMMON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_COMMON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_COMMON_DESCRIPTION "firmware updates for modules on the Tavo bus - udev rule
The udev rule that gives the person at the machine access to control modules
on USB, an optional rule for FTDI adapters, and documents.")
set(CPACK_DEBIAN_COMMON_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/debian/postinst ${PROJECT_SOURCE_DIR}/packaging/debian/postrm)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libfirmwareupdater-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${library_package} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "firmware updates for modules on the Tavo bus - header
Files for building a host program in C or C++: the header of the library, its
CMake package and its pkg-config file.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME firmware-updater)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS ${common_package})
set(CPACK_DEBIAN_TOOL_DESCRIPTION "firmware updates for modules on the Tavo bus - tool
A command that lists control modules on the Tavo bus, inspects and builds
update files, updates devices and recovers interrupted ones. Simulated devices
let you try all of it without hardware.")

# Debian expects the change log and copyright of a package in its document folder, under fixed names.
set(debian ${CMAKE_BINARY_DIR}/debian)
configure_file(packaging/debian/changelog.in ${debian}/changelog @ONLY)
file(READ THIRD-PARTY-NOTICES.md TAVO_NOTICES)
configure_file(packaging/debian/copyright.in ${debian}/copyright @ONLY)
execute_process(COMMAND gzip -9nf ${debian}/changelog COMMAND_ERROR_IS_FATAL ANY)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  install(FILES ${debian}/changelog.gz ${debian}/copyright COMPONENT ${component}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME} EXCLUDE_FROM_ALL)
endforeach()
include(CPack)
