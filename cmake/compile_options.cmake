# compile_options: what every target of this project compiles and links with. Base libraries link it
# as PUBLIC, so that whatever uses them does too.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckPIESupported)

add_library(compile_options INTERFACE)
target_compile_options(compile_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor
  $<$<BOOL:${CARD_READER_WERROR}>:-Werror>
  # libc++ warns of targets below macOS 11 with a #warning in its own headers.
  $<$<BOOL:${APPLE}>:-Werror=unguarded-availability -Wno-error=\#warnings>)

if(CARD_READER_SANITIZERS)
  target_compile_options(compile_options INTERFACE -fsanitize=${CARD_READER_SANITIZERS}
    -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(compile_options INTERFACE -fsanitize=${CARD_READER_SANITIZERS})
endif()

# Hardening, which packaging/test reads from the shipped files: programs that the loader can put
# anywhere, guarded stacks, and jumps that land only where they may, on processors that check it.
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
check_pie_supported(LANGUAGES CXX)
check_cxx_compiler_flag(-fcf-protection CF_PROTECTION_KNOWN)
target_compile_options(compile_options INTERFACE -fstack-protector-strong
  $<$<AND:$<BOOL:${CF_PROTECTION_KNOWN}>,$<NOT:$<BOOL:${APPLE}>>>:-fcf-protection>)

# Calls that the C library checks, as strictly as it and the compiler can. Sanitizers have checks of
# their own, and the library's headers refuse this without optimization.
set(CMAKE_REQUIRED_FLAGS "-O2 -Werror -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
check_cxx_source_compiles("#include <cstring>\nint main() {}" FORTIFY_LEVEL_3_KNOWN)
unset(CMAKE_REQUIRED_FLAGS)
set(fortify_level $<IF:$<BOOL:${FORTIFY_LEVEL_3_KNOWN}>,3,2>)
if(NOT CARD_READER_SANITIZERS)
  target_compile_options(compile_options INTERFACE
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=${fortify_level}>)
endif()

# The loader resolves every function at the start, so that a missing one shows then, and makes the
# results read-only.
if(APPLE)
  target_compile_options(compile_options INTERFACE -fno-plt)
else()
  target_link_options(compile_options INTERFACE LINKER:-z,relro LINKER:-z,now)
endif()
