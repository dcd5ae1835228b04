# Hardening of every optimised build: a smashed stack or an overrun buffer ends the process, jumps land
# only where the compiler put a target, and the tables of imported functions are read-only.
# tests/api/hardening_test.sh reads it off the built files. The sanitizers bring checks of their own.
if(TAVO_SANITIZE)
  return()
endif()

set(optimised $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
add_compile_options($<${optimised}:-fstack-protector-strong>)
if(WIN32)
  add_link_options($<${optimised}:-fstack-protector-strong>)  # brings the runtime of the protector
  return()
endif()
add_compile_options("$<${optimised}:-fstack-clash-protection;-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|i.86)$")
  add_compile_options($<${optimised}:-fcf-protection>)
endif()
add_link_options("$<${optimised}:LINKER:-z,relro,-z,now>")
# Executables at an address of the system's choice.
include(CheckPIESupported)
check_pie_supported()
