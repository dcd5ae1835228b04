# Rules of `cmake --install`, by component. Each component becomes a package:
#   library      the shared library
#   common       files that all versions of the library and the tool share: udev rules, documents
#   development  header, CMake package, pkg-config file
#   tool         the host tool with manual pages, completions and the libusb that finds simulators
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
install(FILES CHANGELOG.md THIRD-PARTY-NOTICES.md docs/security.md TYPE DOC COMPONENT common)
if(WIN32)
  return()
endif()

# Its paths are relative to its own folder, so an installed tree can be moved.
file(RELATIVE_PATH TAVO_PREFIX_FROM_PKGCONFIG
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(packaging/firmware-updater.pc.in firmware-updater.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/firmware-updater.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# udev reads lib/udev below /usr and /usr/local only; with another prefix, copy the rule.
install(FILES packaging/70-firmware-updater.rules DESTINATION lib/udev/rules.d COMPONENT common)
install(FILES packaging/70-firmware-updater-ftdi.rules TYPE DOC COMPONENT common)

install(TARGETS firmware-updater COMPONENT tool)
# The tool looks for it here; no linker does.
install(TARGETS tavo_substitute_libusb LIBRARY
  DESTINATION lib/firmware-updater/substitute COMPONENT tool NAMELINK_SKIP)

# help2man makes the manual pages from the help texts; the completions ask the tool at run time.
find_program(HELP2MAN_EXECUTABLE help2man REQUIRED)
set(manual ${CMAKE_CURRENT_BINARY_DIR}/manual)
add_custom_command(OUTPUT ${manual}/firmware-updater.1.gz
  COMMAND ${PROJECT_SOURCE_DIR}/packaging/make-manual $<TARGET_FILE:firmware-updater>
          ${PROJECT_VERSION} ${manual}
  DEPENDS firmware-updater packaging/make-manual packaging/manual.h2m
  VERBATIM)
add_custom_target(tavo_manual ALL DEPENDS ${manual}/firmware-updater.1.gz)
install(DIRECTORY ${manual}/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)

set(TAVO_ZSH_DIR ${CMAKE_INSTALL_DATADIR}/zsh/site-functions CACHE STRING
  "Where the zsh completion is installed to")
install(FILES packaging/completion.bash RENAME firmware-updater
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tool)
install(FILES packaging/completion.zsh RENAME _firmware-updater
  DESTINATION ${TAVO_ZSH_DIR} COMPONENT tool)
