include(${CMAKE_CURRENT_LIST_DIR}/reader_library_functions.cmake)

# as_reader_library(TARGET): makes a shared library one that can take the reader library's place in
# the bundle. It exports the library's functions, and nothing of the C++ library besides; and its
# own name is the path where programs that link with it look for it, beside themselves.
function(as_reader_library TARGET)
  reader_library_functions(${PROJECT_SOURCE_DIR}/src/pc_prox_api.h functions)
  set(exports ${CMAKE_CURRENT_BINARY_DIR}/exports)
  if(APPLE)
    list(TRANSFORM functions PREPEND "_")
    list(JOIN functions "\n" symbols)
    set(link_options "-exported_symbols_list" "${exports}")
    set_target_properties(${TARGET} PROPERTIES
      INSTALL_NAME_DIR "@executable_path/../Frameworks"
      BUILD_WITH_INSTALL_NAME_DIR ON)
  else()
    list(JOIN functions "; " symbols)
    set(symbols "{ global: ${symbols}; local: *; };")
    set(link_options "--version-script=${exports}" "-soname=$ORIGIN/../Frameworks/libpcProxAPI.so")
    set_target_properties(${TARGET} PROPERTIES NO_SONAME ON)
  endif()
  file(CONFIGURE OUTPUT ${exports} CONTENT "@symbols@\n" @ONLY)

  # In a file, since every generator and shell has its own way with a dollar sign, and so that there
  # may be anything in the build folder's path.
  set(link_options_file ${CMAKE_CURRENT_BINARY_DIR}/link_options)
  list(TRANSFORM link_options REPLACE "(.+)" "-Xlinker \"\\1\"\n")
  list(JOIN link_options "" link_options)
  file(CONFIGURE OUTPUT ${link_options_file} CONTENT "@link_options@" @ONLY)
  target_link_options(${TARGET} PRIVATE @${link_options_file})
  with_own_runtime(${TARGET})
  set_target_properties(${TARGET} PROPERTIES
    SKIP_BUILD_RPATH ON
    LINK_DEPENDS "${exports};${link_options_file}")
endfunction()
