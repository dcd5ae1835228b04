# What `cmake --install` puts where: the library with header, CMake package and pkg-config file; the
# host tool with manual pages, completions and the simulator; the udev rules. The components, of
# which packages are made: library; common, what it shares with other versions of itself and with
# the tool; development; tool.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TAVO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/FirmwareUpdater)

install(TARGETS FirmwareUpdater EXPORT FirmwareUpdaterTargets
  RUNTIME COMPONENT library
  LIBRARY COMPONENT library NAMELINK_COMPONENT development
  ARCHIVE COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/firmware_updater.h TYPE INCLUDE COMPONENT development)
install(EXPORT FirmwareUpdaterTargets NAMESPACE FirmwareUpdater::
  DESTINATION ${TAVO_CMAKE_DIR} COMPONENT development)
configure_package_config_file(packaging/FirmwareUpdaterConfig.cmake.in FirmwareUpdaterConfig.cmake
  INSTALL_DESTINATION ${TAVO_CMAKE_DIR} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(FirmwareUpdaterConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/FirmwareUpdaterConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/FirmwareUpdaterConfigVersion.cmake
  DESTINATION ${TAVO_CMAKE_DIR} COMPONENT development)
install(FILES CHANGELOG.md THIRD-PARTY-NOTICES.md TYPE DOC COMPONENT common)
if(WIN32)
  return()
endif()

# The paths in the file start from its own folder, so that an installed tree can be moved.
file(RELATIVE_PATH TAVO_PREFIX_FROM_PKGCONFIG
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(packaging/firmware-updater.pc.in firmware-updater.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/firmware-updater.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# udev reads lib/udev below /usr and /usr/local only; whoever installs elsewhere copies the rule.
install(FILES packaging/70-firmware-updater.rules DESTINATION lib/udev/rules.d COMPONENT common)
install(FILES packaging/70-firmware-updater-ftdi.rules TYPE DOC COMPONENT common)

install(TARGETS firmware-updater COMPONENT tool)
# Where the tool looks for it, and no linker does.
install(TARGETS tavo_substitute_libusb LIBRARY
  DESTINATION lib/firmware-updater/substitute COMPONENT tool NAMELINK_SKIP)

# The tool writes its own manual page and completions, from its parser.
set(TAVO_ZSH_DIR ${CMAKE_INSTALL_DATADIR}/zsh/site-functions CACHE STRING
  "Where the zsh completion is installed to")
set(generated ${CMAKE_CURRENT_BINARY_DIR}/generated)
add_custom_command(
  OUTPUT ${generated}/firmware-updater.1.gz ${generated}/firmware-updater ${generated}/_firmware-updater
  COMMAND ${CMAKE_COMMAND} -E make_directory ${generated}
  COMMAND firmware-updater generate man | gzip -9n > ${generated}/firmware-updater.1.gz
  COMMAND firmware-updater generate bash > ${generated}/firmware-updater
  COMMAND firmware-updater generate zsh > ${generated}/_firmware-updater
  DEPENDS firmware-updater
  VERBATIM)
add_custom_target(tavo_generated ALL DEPENDS ${generated}/firmware-updater.1.gz)
install(FILES ${generated}/firmware-updater.1.gz
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
install(FILES ${generated}/firmware-updater
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tool)
install(FILES ${generated}/_firmware-updater DESTINATION ${TAVO_ZSH_DIR} COMPONENT tool)
