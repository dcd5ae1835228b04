# Provides the target libusb::libusb.
if(WIN32)
  # To compile, the header is enough, and it is the same on every system.
  find_path(LIBUSB_INCLUDE_DIR libusb.h PATHS /usr/include/libusb-1.0 REQUIRED
            NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
  add_library(libusb::libusb INTERFACE IMPORTED)
  target_include_directories(libusb::libusb SYSTEM INTERFACE ${LIBUSB_INCLUDE_DIR})
else()
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(LIBUSB REQUIRED IMPORTED_TARGET GLOBAL libusb-1.0)
  add_library(libusb::libusb ALIAS PkgConfig::LIBUSB)
endif()
