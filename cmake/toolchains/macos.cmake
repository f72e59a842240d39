# Cross-compiles for macOS on Linux with Debian's LLVM; packaging/macos-check uses it. Expects
# LLVM_BIN, the folder with LLVM's programs, and MACOS_SDK, a folder with macOS's headers and stubs:
#
#   cmake -S . -B build/for-macos --toolchain cmake/toolchains/macos.cmake -D LLVM_BIN=... -D MACOS_SDK=...
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LLVM_BIN MACOS_SDK)
set(CMAKE_SYSTEM_NAME Darwin)
# As a Mac with Apple silicon reports itself.
set(CMAKE_SYSTEM_PROCESSOR arm64)
set(CMAKE_CXX_COMPILER ${LLVM_BIN}/clang++)
set(CMAKE_CXX_FLAGS_INIT "--config \"${MACOS_SDK}/compiler.cfg\"")
set(CMAKE_OSX_SYSROOT ${MACOS_SDK})
foreach(tool AR NM STRIP RANLIB OTOOL INSTALL_NAME_TOOL)
  string(TOLOWER ${tool} name)
  string(REPLACE "_" "-" name llvm-${name})
  set(CMAKE_${tool} ${LLVM_BIN}/${name})
endforeach()
set(CMAKE_FIND_ROOT_PATH ${MACOS_SDK})
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
