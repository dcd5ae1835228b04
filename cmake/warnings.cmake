# Warnings are errors in our own code, not in miniz.
add_library(tavo_warnings INTERFACE)
target_compile_options(tavo_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  -Wnon-virtual-dtor -Woverloaded-virtual -Werror)
# GCC before 13 mistakes "literal" + std::string for an overlapping copy, and sees copies beyond the end
# in the code that a sanitizer adds.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(tavo_warnings INTERFACE -Wno-restrict)
  if(TAVO_SANITIZE)
    target_compile_options(tavo_warnings INTERFACE
      -Wno-array-bounds -Wno-stringop-overread -Wno-stringop-overflow)
  endif()
endif()
