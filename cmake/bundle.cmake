# The application bundle: what is in it, and how it is installed, as the component `agent`. Expects the targets
# card-reader-agent and pcProxAPI, and BUNDLE_CONTENTS, the bundle's Contents folder in the build.

set(PCPROX_API_LIBRARY "" CACHE FILEPATH
  "The vendor library, to bundle in place of the virtual reader's")
option(CARD_READER_RECORDER "Record the library's calls: see docs/bring-up.md" OFF)
set(example_identifier local.card-reader-agent)
set(CARD_READER_BUNDLE_IDENTIFIER ${example_identifier} CACHE STRING
  "The bundle's identifier; who ships the agent puts theirs")

get_filename_component(bundle ${BUNDLE_CONTENTS} DIRECTORY)
get_filename_component(bundle_name ${bundle} NAME)
set(bundled_library ${CMAKE_SHARED_LIBRARY_PREFIX}pcProxAPI${CMAKE_SHARED_LIBRARY_SUFFIX})
set(agents_library_path ${BUNDLE_CONTENTS}/Frameworks/${bundled_library})
set(bundled_library_path ${agents_library_path})
set(recorder_origin "")
if(CARD_READER_RECORDER)
  # The agent loads the recorder, and the recorder the library.
  set(bundled_library_path ${BUNDLE_CONTENTS}/Frameworks/${RECORDED_LIBRARY})
  set(recorder_origin "-recorder")
endif()

set(library_to_bundle "")
set(library_origin "-virtual-reader")
if(PCPROX_API_LIBRARY)
  get_filename_component(library_to_bundle "${PCPROX_API_LIBRARY}" REALPATH
    BASE_DIR ${CMAKE_SOURCE_DIR})
  get_filename_component(folder "${library_to_bundle}" DIRECTORY)
  get_filename_component(frameworks ${BUNDLE_CONTENTS}/Frameworks REALPATH)
  # An indented line is printed as it is, however long.
  if(NOT EXISTS "${library_to_bundle}" OR IS_DIRECTORY "${library_to_bundle}")
    message(FATAL_ERROR "  PCPROX_API_LIBRARY: there is no such file: ${PCPROX_API_LIBRARY}")
  elseif(folder STREQUAL frameworks)
    message(FATAL_ERROR "  PCPROX_API_LIBRARY: this is where the library is copied to, so keep it "
      "elsewhere: ${PCPROX_API_LIBRARY}")
  endif()
  # It is none but the virtual reader's, however it comes into the bundle.
  file(STRINGS "${library_to_bundle}" virtual_reader REGEX VIRTUAL_READER_SOCKET LIMIT_COUNT 1)
  if(NOT virtual_reader)
    set(library_origin "")
    if(CARD_READER_BUNDLE_IDENTIFIER STREQUAL example_identifier)
      message(WARNING "  the bundle's identifier is still the example, ${example_identifier}; "
        "yours goes here: -DCARD_READER_BUNDLE_IDENTIFIER=...")
    endif()
  endif()
endif()

# Either library has the same name in the bundle, and when the new one is refused, the one that this
# build folder was configured with before must not pass for it. It is put aside, since it may have
# been put there by hand.
if(NOT "${PCPROX_API_LIBRARY}${recorder_origin}" STREQUAL "${bundled_before}")
  foreach(name IN ITEMS ${bundled_library} ${RECORDED_LIBRARY})
    if(EXISTS ${BUNDLE_CONTENTS}/Frameworks/${name})
      file(RENAME ${BUNDLE_CONTENTS}/Frameworks/${name} ${CMAKE_BINARY_DIR}/replaced-${name})
    endif()
  endforeach()
  set(bundled_before "${PCPROX_API_LIBRARY}${recorder_origin}" CACHE INTERNAL
    "What the last run bundled")
endif()

# The agent links with the virtual reader's library in either case: that one's own name is the path
# in the bundle, and whatever file lies there is loaded, under whatever name its maker gave it.
set(check_library ${CMAKE_COMMAND} -D NM=${CMAKE_NM} -D SYSTEM=${CMAKE_SYSTEM_NAME}
  -D HEADER=${CMAKE_SOURCE_DIR}/src/pc_prox_api.h)
if(APPLE)
  find_program(LIPO NAMES lipo llvm-lipo REQUIRED)
  list(JOIN CMAKE_OSX_ARCHITECTURES "$<SEMICOLON>" architectures)
  list(APPEND check_library -D OTOOL=${CMAKE_OTOOL} -D LIPO=${LIPO} -D MINIMUM=${CMAKE_OSX_DEPLOYMENT_TARGET}
    -D ARCHITECTURES=${architectures})
else()
  list(APPEND check_library -D LIKE=$<TARGET_FILE:pcProxAPI>)
endif()
set(check_library_script ${CMAKE_CURRENT_LIST_DIR}/check_reader_library.cmake)
if(library_to_bundle OR CARD_READER_RECORDER)
  set_target_properties(pcProxAPI PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/link_interface)
endif()
if(library_to_bundle)
  message(STATUS "Bundling the reader library ${library_to_bundle}")
  add_custom_target(bundle ALL
    COMMAND ${check_library} -D "LIBRARY=${library_to_bundle}" -P ${check_library_script}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${BUNDLE_CONTENTS}/Frameworks
    COMMAND ${CMAKE_COMMAND} -E copy_if_different "${library_to_bundle}" ${bundled_library_path}
    COMMENT "Bundling the reader library ${library_to_bundle}" VERBATIM)
else()
  message(STATUS "Bundling the virtual reader's library")
  set(copy_library "")
  if(CARD_READER_RECORDER)
    set(copy_library COMMAND ${CMAKE_COMMAND} -E copy_if_different
      $<TARGET_FILE:pcProxAPI> ${bundled_library_path})
  endif()
  add_custom_target(bundle ALL
    COMMAND ${CMAKE_COMMAND} -E make_directory ${BUNDLE_CONTENTS}/Frameworks
    ${copy_library}
    COMMAND ${check_library} -D LIBRARY=${bundled_library_path} -P ${check_library_script}
    COMMENT "Bundling the virtual reader's library" VERBATIM)
endif()
# To be bundled, or to compare with.
add_dependencies(bundle pcProxAPI)
if(CARD_READER_RECORDER)
  message(STATUS "Bundling the recorder in front of it")
  add_custom_command(TARGET bundle POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E copy_if_different
      $<TARGET_FILE:pcProxAPI-recorder> ${agents_library_path} VERBATIM)
  add_dependencies(bundle pcProxAPI-recorder)
  install(PROGRAMS ${agents_library_path} DESTINATION ${bundle_name}/Contents/Frameworks
    COMPONENT agent)
endif()
# So that building the agent alone also gives a bundle that runs.
add_dependencies(card-reader-agent bundle)

configure_file(${CMAKE_SOURCE_DIR}/packaging/Info.plist.in ${BUNDLE_CONTENTS}/Info.plist @ONLY)

install(FILES ${BUNDLE_CONTENTS}/Info.plist DESTINATION ${bundle_name}/Contents COMPONENT agent)
install(TARGETS card-reader-agent RUNTIME DESTINATION ${bundle_name}/Contents/MacOS
  COMPONENT agent)
# As a program, so that a vendor library keeps every byte, and with it its signature.
install(PROGRAMS ${bundled_library_path} DESTINATION ${bundle_name}/Contents/Frameworks
  COMPONENT agent)
install(CODE "set(FOLDER \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${bundle_name}\")" COMPONENT agent)
install(SCRIPT ${CMAKE_CURRENT_LIST_DIR}/open_folders.cmake COMPONENT agent)
