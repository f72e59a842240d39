# What keeps a fault in the agent or its library from being of use to anybody. Everything is compiled
# and linked so, tests too; packaging/test reads it from the files that are shipped.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckPIESupported)

# Programs that the loader can put anywhere.
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
check_pie_supported(LANGUAGES CXX)

add_compile_options(-fstack-protector-strong)

# Calls that the C library checks, as strictly as it and the compiler know. Sanitizers have checks of
# their own, and the library's headers refuse this without optimization.
set(CMAKE_REQUIRED_FLAGS "-O2 -Werror -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
check_cxx_source_compiles("#include <cstring>\nint main() {}" FORTIFY_LEVEL_3_KNOWN)
unset(CMAKE_REQUIRED_FLAGS)
set(fortify_level $<IF:$<BOOL:${FORTIFY_LEVEL_3_KNOWN}>,3,2>)
if(NOT CARD_READER_SANITIZERS)
  add_compile_options("$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:\
-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=${fortify_level}>")
endif()

# All functions of other files are looked up at the start, so that one that is missing is found out
# then, and what was looked up can be written to by nobody.
if(APPLE)
  add_compile_options(-fno-plt)
else()
  add_link_options(LINKER:-z,relro LINKER:-z,now)
  # Jumps land where they may, on processors that see to it.
  check_cxx_compiler_flag(-fcf-protection CF_PROTECTION_KNOWN)
  if(CF_PROTECTION_KNOWN)
    add_compile_options(-fcf-protection)
  endif()
endif()
