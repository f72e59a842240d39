# reader_library_functions(HEADER RESULT): the names of the reader library's functions, taken from
# the extern "C" block of HEADER, the agent's declaration of the library. The one list of them.
function(reader_library_functions HEADER RESULT)
  file(READ "${HEADER}" text)
  # A semicolon separates list items in CMake, so it steps aside while the text is taken apart.
  string(REPLACE ";" "@" text "${text}")
  string(REGEX REPLACE "//[^\n]*" "" text "${text}")
  if(NOT text MATCHES "extern \"C\" {([^}]*)}")
    message(FATAL_ERROR "${HEADER} has no extern \"C\" block")
  endif()
  set(block "${CMAKE_MATCH_1}")
  string(REGEX MATCHALL "@" declarations "${block}")
  string(REGEX MATCHALL "[A-Za-z0-9_]+\\([^@]*@" functions "${block}")
  list(TRANSFORM functions REPLACE "\\(.*" "")
  list(LENGTH declarations declaration_count)
  list(LENGTH functions function_count)
  if(function_count EQUAL 0 OR NOT function_count EQUAL declaration_count)
    message(FATAL_ERROR
      "${HEADER}: ${declaration_count} declarations, but ${function_count} names found in them")
  endif()
  set(${RESULT} "${functions}" PARENT_SCOPE)
endfunction()
