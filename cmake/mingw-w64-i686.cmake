# Cross-compiles for 32-bit Windows.
set(mingw_target i686-w64-mingw32)
set(CMAKE_SYSTEM_PROCESSOR x86)
set(wine_bits 32)
# Other compilers align a host's stack to 4 bytes only; GCC relies on 16.
set(CMAKE_C_FLAGS_INIT -mstackrealign)
set(CMAKE_CXX_FLAGS_INIT -mstackrealign)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64.cmake)
