# Warnings are errors in our own code; what we only compile (miniz) is left alone.
add_library(tavo_warnings INTERFACE)
target_compile_options(tavo_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  -Wnon-virtual-dtor -Woverloaded-virtual -Werror)
