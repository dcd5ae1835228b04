# Provides the target libusb::libusb. On Windows it is built here, as libusb-1.0.dll, from the source
# that scripts/get-source libusb fetched (or the folder given with -DLIBUSB_SOURCE_DIR=... or in
# $LIBUSB_DIR); elsewhere it is the one that is installed.
if(NOT WIN32)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(LIBUSB REQUIRED IMPORTED_TARGET GLOBAL libusb-1.0)
  add_library(libusb::libusb ALIAS PkgConfig::LIBUSB)
  return()
endif()

set(LIBUSB_SOURCE_DIR "$ENV{LIBUSB_DIR}" CACHE PATH "Folder with the source of libusb 1.0.26")
set(libusb_source "${LIBUSB_SOURCE_DIR}")
if(NOT libusb_source)
  set(libusb_source "${PROJECT_SOURCE_DIR}/build/libusb")
endif()
set(libusb_source "${libusb_source}/libusb")
if(NOT EXISTS "${libusb_source}/libusb.h")
  message(FATAL_ERROR "The source of libusb was not found: run scripts/get-source libusb, "
                      "or give -DLIBUSB_SOURCE_DIR=<folder with the unpacked source>")
endif()

# The settings that libusb's own configure script finds for this compiler.
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/libusb/config.h @ONLY CONTENT [[
#define DEFAULT_VISIBILITY
#define ENABLE_LOGGING 1
#define PLATFORM_WINDOWS 1
#define PRINTF_FORMAT(format, arguments) __attribute__((__format__(__printf__, format, arguments)))
#define HAVE_STRUCT_TIMESPEC 1
]])
enable_language(RC)
add_library(tavo_libusb SHARED)
foreach(file core descriptor hotplug io strerror sync os/events_windows os/threads_windows
             os/windows_common os/windows_usbdk os/windows_winusb)
  target_sources(tavo_libusb PRIVATE ${libusb_source}/${file}.c)
endforeach()
target_sources(tavo_libusb PRIVATE ${libusb_source}/libusb-1.0.def ${libusb_source}/libusb-1.0.rc)
target_include_directories(tavo_libusb SYSTEM PUBLIC ${libusb_source}
                                       PRIVATE ${CMAKE_BINARY_DIR}/libusb)
# Its header includes windows.h, of which this project needs little.
target_compile_definitions(tavo_libusb PRIVATE _WIN32_WINNT=0x0600 INTERFACE WIN32_LEAN_AND_MEAN)
target_compile_options(tavo_libusb PRIVATE $<$<COMPILE_LANGUAGE:C>:-w>)  # not ours to fix
# Its export list also has each name without the suffix of 32-bit calls.
target_link_options(tavo_libusb PRIVATE -Wl,--enable-stdcall-fixup $<$<CONFIG:Release>:-s>)
set_target_properties(tavo_libusb PROPERTIES OUTPUT_NAME libusb-1.0 PREFIX "" C_STANDARD 11
                                             C_EXTENSIONS ON)
add_library(libusb::libusb ALIAS tavo_libusb)
