# Fails unless LIBRARY is a shared library for the agent's system, architectures and oldest macOS,
# and has every function that the agent calls; names those it lacks.
#
#   cmake -D LIBRARY=FILE -D HEADER=FILE -D NM=COMMAND -D SYSTEM=Linux -D LIKE=FILE
#         -P check_reader_library.cmake
#   cmake -D LIBRARY=FILE -D HEADER=FILE -D NM=COMMAND -D SYSTEM=Darwin -D OTOOL=COMMAND -D LIPO=COMMAND
#         -D ARCHITECTURES=x86_64 -D MINIMUM=10.11 -P check_reader_library.cmake
#
# HEADER is the agent's declaration of the library; LIKE a shared library that the agent can load.

include(${CMAKE_CURRENT_LIST_DIR}/reader_library_functions.cmake)
reader_library_functions("${HEADER}" functions)

# refuse(WHAT): an indented line is printed as it is, however long.
function(refuse)
  list(JOIN ARGV "" why)
  message(FATAL_ERROR "  not a reader library: ${LIBRARY}: ${why}")
endfunction()

# elf_kind(FILE RESULT): class and byte order, file type and machine, as they stand in the file.
function(elf_kind FILE RESULT)
  file(READ "${FILE}" header LIMIT 20 HEX)
  string(REGEX REPLACE "^(7f454c46....)....................(........)$" "\\1 \\2" kind "${header}")
  set(${RESULT} "${kind}" PARENT_SCOPE)
endfunction()

set(options -g)
set(prefix "")
if(SYSTEM STREQUAL "Darwin")
  set(prefix "_")
  execute_process(COMMAND ${LIPO} -archs "${LIBRARY}" ERROR_VARIABLE complaint RESULT_VARIABLE status
    OUTPUT_VARIABLE contained OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT status EQUAL 0)
    refuse("${complaint}")
  endif()
  foreach(architecture IN LISTS ARCHITECTURES)
    list(APPEND options -arch ${architecture})
    if(NOT " ${contained} " MATCHES " ${architecture} ")
      refuse("it is no dynamic library for ${architecture}, but for: ${contained}")
    endif()
    # Not every otool can pick one architecture out of a universal file.
    set(slice "${LIBRARY}")
    set(extracted ${CMAKE_CURRENT_BINARY_DIR}/reader-library-slice)
    if(contained MATCHES " ")
      set(slice ${extracted})
      execute_process(COMMAND ${LIPO} "${LIBRARY}" -thin ${architecture} -output ${slice})
    endif()
    execute_process(COMMAND ${OTOOL} -h -l "${slice}"
      OUTPUT_VARIABLE commands ERROR_VARIABLE complaint RESULT_VARIABLE status)
    file(REMOVE ${extracted})
    if(NOT status EQUAL 0)
      refuse("${complaint}")
    endif()
    # No system for this processor is older.
    set(minimum ${MINIMUM})
    if(architecture STREQUAL "arm64" AND minimum VERSION_LESS 11.0)
      set(minimum 11.0)
    endif()
    # 6 is a library that is loaded; an object file, in an archive too, says 1.
    if(NOT commands MATCHES "\n *0xfeedfac[ef] +[0-9]+ +[0-9]+ +0x[0-9a-f]+ +6 ")
      refuse("it cannot be loaded on ${architecture}, being no dynamic library for it")
    endif()
    set(old "LC_VERSION_MIN_MACOSX\n[^\n]*\n +version")
    set(new "LC_BUILD_VERSION\n[^\n]*\n +platform (1|MACOS|macos)\n( +sdk [^\n]*\n)? +minos")
    if(NOT commands MATCHES "(${old}|${new}) ([0-9.]+)")
      refuse("it does not say that it is for macOS")
    endif()
    set(needed ${CMAKE_MATCH_4})
    if(needed VERSION_GREATER minimum)
      refuse("it needs macOS ${needed} on ${architecture}, and the agent is for ${minimum} and later; "
        "for later ones alone: -DCMAKE_OSX_DEPLOYMENT_TARGET=${needed}")
    endif()
  endforeach()
else()
  list(APPEND options -D)
  elf_kind("${LIBRARY}" kind)
  elf_kind("${LIKE}" needed)
  if(NOT kind STREQUAL needed)
    refuse("it is no shared library for the architecture of the agent")
  endif()
endif()
execute_process(COMMAND ${NM} ${options} "${LIBRARY}"
  OUTPUT_VARIABLE symbols ERROR_VARIABLE complaint RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  refuse("${complaint}")
endif()

set(missing "")
foreach(function IN LISTS functions)
  if(NOT symbols MATCHES " [TWi] ${prefix}${function}(@[^\n]*)?\n")
    list(APPEND missing ${function})
  endif()
endforeach()
if(missing)
  list(JOIN missing ", " missing)
  message(FATAL_ERROR "  ${LIBRARY} lacks functions of the reader library: ${missing}")
endif()
