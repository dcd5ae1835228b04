# The target api_reference makes the API reference. The public header is its only input, so the header
# has to document everything that a host needs.
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${CMAKE_BINARY_DIR}/Doxyfile @ONLY)
  add_custom_target(api_reference COMMAND ${DOXYGEN_EXECUTABLE} ${CMAKE_BINARY_DIR}/Doxyfile
                    COMMENT "api-reference/html/firmware__updater_8h.html")
endif()
