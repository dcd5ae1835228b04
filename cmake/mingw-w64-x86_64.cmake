# Cross-compiles for 64-bit Windows.
set(mingw_target x86_64-w64-mingw32)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(wine_bits 64)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64.cmake)
