# with_own_runtime(TARGET): on Linux, links the C++ runtime into a program or shared library and strips
# release builds. The file then needs only the C library.
function(with_own_runtime TARGET)
  if(CMAKE_SYSTEM_NAME STREQUAL "Linux" AND NOT CARD_READER_SANITIZERS)
    target_link_options(${TARGET} PRIVATE -static-libstdc++ -static-libgcc $<$<CONFIG:Release>:-s>)
  endif()
endfunction()
