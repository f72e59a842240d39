# Fails unless a reader library has every function that the agent calls, and names those it lacks.
#
#   cmake -D LIBRARY=FILE -D HEADER=FILE -D NM=COMMAND -D SYSTEM=Linux|Darwin
#         [-D ARCHITECTURES=x86_64] -P check_reader_library.cmake
#
# HEADER is the agent's declaration of the library.

include(${CMAKE_CURRENT_LIST_DIR}/reader_library_functions.cmake)
reader_library_functions("${HEADER}" functions)

set(options -g)
set(prefix "")
if(SYSTEM STREQUAL "Darwin")
  set(prefix "_")
  foreach(architecture IN LISTS ARCHITECTURES)
    list(APPEND options -arch ${architecture})
  endforeach()
else()
  list(APPEND options -D)
endif()
execute_process(COMMAND ${NM} ${options} "${LIBRARY}"
  OUTPUT_VARIABLE symbols ERROR_VARIABLE complaint RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "  not a reader library: ${LIBRARY}: ${complaint}")
endif()

set(missing "")
foreach(function IN LISTS functions)
  if(NOT symbols MATCHES " [TWi] ${prefix}${function}(@[^\n]*)?\n")
    list(APPEND missing ${function})
  endif()
endforeach()
if(missing)
  list(JOIN missing ", " missing)
  # An indented line is printed as it is, however long.
  message(FATAL_ERROR "  ${LIBRARY} lacks functions of the reader library: ${missing}")
endif()
