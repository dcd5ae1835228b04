# Provides the target miniz::miniz (ZIP archives). In this order:
#   1. the folder named with -DMINIZ_SOURCE_DIR=... or in $MINIZ_DIR, holding miniz.c and miniz.h
#   2. an installed miniz: its CMake package, its pkg-config file, or header and library alone
#   3. the copy that scripts/get-source miniz has put into build/miniz of this repository

enable_language(C)

set(MINIZ_SOURCE_DIR "$ENV{MINIZ_DIR}" CACHE PATH "Folder with miniz.c and miniz.h, instead of an installed miniz")

# Builds miniz from its two files in `folder`.
function(tavo_build_miniz folder)
  add_library(tavo_miniz STATIC "${folder}/miniz.c" "${folder}/miniz.h")
  add_library(miniz::miniz ALIAS tavo_miniz)
  target_include_directories(tavo_miniz SYSTEM INTERFACE "${folder}")
  set_target_properties(tavo_miniz PROPERTIES POSITION_INDEPENDENT_CODE ON C_VISIBILITY_PRESET hidden)
  # Under glibc miniz would otherwise open archives with the 32-bit file calls of older systems.
  target_compile_definitions(tavo_miniz PRIVATE MINIZ_NO_ZLIB_COMPATIBLE_NAMES
                                                $<$<PLATFORM_ID:Linux>:_LARGEFILE64_SOURCE=1>)
  # Third-party code: no warnings, and it reads unaligned words on purpose where that is cheap.
  target_compile_options(tavo_miniz PRIVATE -w)
  if(NOT MINGW)
    target_compile_options(tavo_miniz PRIVATE -fno-sanitize=undefined)
  endif()
endfunction()

# Wraps a miniz that is installed without a CMake package.
function(tavo_find_plain_miniz)
  if(NOT CMAKE_CROSSCOMPILING)
    find_package(PkgConfig QUIET)
    if(PKG_CONFIG_FOUND)
      pkg_check_modules(MINIZ QUIET IMPORTED_TARGET miniz)
    endif()
  endif()
  if(TARGET PkgConfig::MINIZ)
    add_library(miniz::miniz ALIAS PkgConfig::MINIZ)
    return()
  endif()
  find_path(MINIZ_INCLUDE_DIR miniz.h PATH_SUFFIXES miniz)
  find_library(MINIZ_LIBRARY miniz)
  mark_as_advanced(MINIZ_INCLUDE_DIR MINIZ_LIBRARY)
  if(MINIZ_INCLUDE_DIR AND MINIZ_LIBRARY)
    add_library(miniz::miniz UNKNOWN IMPORTED)
    set_target_properties(miniz::miniz PROPERTIES IMPORTED_LOCATION "${MINIZ_LIBRARY}"
                          INTERFACE_INCLUDE_DIRECTORIES "${MINIZ_INCLUDE_DIR}")
  endif()
endfunction()

set(tavo_fetched_miniz "${CMAKE_CURRENT_LIST_DIR}/../build/miniz")
if(MINIZ_SOURCE_DIR)
  tavo_build_miniz("${MINIZ_SOURCE_DIR}")
else()
  find_package(miniz CONFIG QUIET)
  if(NOT TARGET miniz::miniz)
    tavo_find_plain_miniz()
  endif()
  if(NOT TARGET miniz::miniz AND EXISTS "${tavo_fetched_miniz}/miniz.c")
    tavo_build_miniz("${tavo_fetched_miniz}")
  endif()
endif()
if(NOT TARGET miniz::miniz)
  message(FATAL_ERROR "miniz was not found: run scripts/get-source miniz, install a miniz package, "
                      "or give -DMINIZ_SOURCE_DIR=<folder with miniz.c and miniz.h>")
endif()

# miniz would otherwise define macros under the names of zlib's functions.
get_target_property(tavo_miniz_target miniz::miniz ALIASED_TARGET)
if(NOT tavo_miniz_target)
  set(tavo_miniz_target miniz::miniz)
endif()
set_property(TARGET ${tavo_miniz_target} APPEND PROPERTY INTERFACE_COMPILE_DEFINITIONS
             MINIZ_NO_ZLIB_COMPATIBLE_NAMES)
