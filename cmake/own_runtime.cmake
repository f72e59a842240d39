# with_own_runtime(TARGET): on Linux, puts the C++ runtime into a program or shared library, which then
# needs the C library alone: it goes to machines with another runtime or none, and starts faster.
function(with_own_runtime TARGET)
  if(CMAKE_SYSTEM_NAME STREQUAL "Linux" AND NOT CARD_READER_SANITIZERS)
    target_link_options(${TARGET} PRIVATE -static-libstdc++ -static-libgcc)
  endif()
endfunction()
