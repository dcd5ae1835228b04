# Warnings are errors in our own code; what we only compile (miniz) is left alone.
add_library(tavo_warnings INTERFACE)
target_compile_options(tavo_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  -Wnon-virtual-dtor -Woverloaded-virtual -Werror)
# GCC before 13 takes "literal" + std::string for an overlapping copy, and in code that a sanitizer has
# added to it sees copies beyond the end that are none.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(tavo_warnings INTERFACE -Wno-restrict)
  if(TAVO_SANITIZE)
    target_compile_options(tavo_warnings INTERFACE
      -Wno-array-bounds -Wno-stringop-overread -Wno-stringop-overflow)
  endif()
endif()
