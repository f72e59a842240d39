# The SDK, a component of the installation: everything an application author needs; nothing has to be built.
# Expects bundle_name and bundled_library of bundle.cmake.

set(sdk_pages ${CMAKE_BINARY_DIR}/sdk-pages)

# sdk_page(FROM TO): a page of the project, with the paths that things have in the
# SDK; links to sources become plain text.
function(sdk_page FROM TO)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${FROM})
  file(READ ${PROJECT_SOURCE_DIR}/${FROM} page)
  if(FROM MATCHES "^virtual_reader/")
    string(REPLACE "](scenarios" "](../scenarios" page "${page}")
    string(REPLACE "](demo.txt" "](../scenarios/demo.txt" page "${page}")
    string(REPLACE "](reference.md" "](virtual-reader-reference.md" page "${page}")
    string(REPLACE "](README.md" "](virtual-reader.md" page "${page}")
  endif()
  string(REGEX REPLACE "\\[([^]]*)\\]\\((call|device|events|language|library|program|reader|server|ui|verbs|wire|[.][.]/bench|[.][.]/src)/[^)]*\\)"
    "\\1" page "${page}")
  foreach(path IN ITEMS
      bringup/library-check=bin/library-check
      build/virtual-reader=bin/virtual-reader
      build/CardReaderAgent.app=CardReaderAgent.app
      build/recorder/CardReaderAgent.app=CardReaderAgent.app
      virtual_reader/README.md=docs/virtual-reader.md
      virtual_reader/reference.md=docs/virtual-reader-reference.md
      virtual_reader/scenarios/=scenarios/
      virtual_reader/ui/serve=bin/ui/serve
      clients/=clients/)
    string(REGEX MATCH "(.*)=(.*)" path "${path}")
    string(REPLACE "${CMAKE_MATCH_1}" "${CMAKE_MATCH_2}" page "${page}")
  endforeach()
  file(WRITE ${sdk_pages}/${TO} "${page}")
endfunction()

set(in_sdk COMPONENT sdk EXCLUDE_FROM_ALL)

install(FILES ${BUNDLE_CONTENTS}/Info.plist DESTINATION ${bundle_name}/Contents ${in_sdk})
install(PROGRAMS $<TARGET_FILE:card-reader-agent> DESTINATION ${bundle_name}/Contents/MacOS ${in_sdk})
# Whatever library the other archive has.
install(PROGRAMS $<TARGET_FILE:pcProxAPI> DESTINATION ${bundle_name}/Contents/Frameworks ${in_sdk}
  RENAME ${bundled_library})
install(PROGRAMS $<TARGET_FILE:virtual-reader> ${PROJECT_SOURCE_DIR}/bringup/library-check DESTINATION bin ${in_sdk})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/bringup/library_check DESTINATION bin ${in_sdk} FILES_MATCHING PATTERN *.py)
install(PROGRAMS $<TARGET_FILE:pcProxAPI-recorder> DESTINATION lib ${in_sdk})

set(ui ${PROJECT_SOURCE_DIR}/virtual_reader/ui)
install(PROGRAMS ${ui}/serve DESTINATION bin/ui ${in_sdk})
install(DIRECTORY ${ui}/ DESTINATION bin/ui ${in_sdk} FILES_MATCHING
  PATTERN *.html PATTERN *.css PATTERN *.js PATTERN *.svg)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/virtual_reader/scenarios DESTINATION . ${in_sdk} FILES_MATCHING
  PATTERN *.txt)
install(FILES ${PROJECT_SOURCE_DIR}/virtual_reader/demo.txt DESTINATION scenarios ${in_sdk})

set(clients ${PROJECT_SOURCE_DIR}/clients)
foreach(client IN ITEMS node python swift)
  install(DIRECTORY ${clients}/${client} DESTINATION clients ${in_sdk}
    PATTERN README.md EXCLUDE
    # What tests and builds leave there.
    PATTERN __pycache__ EXCLUDE
    PATTERN *.egg-info EXCLUDE
    PATTERN build EXCLUDE
    PATTERN .build EXCLUDE
    PATTERN node_modules EXCLUDE
    PATTERN .swiftpm EXCLUDE
    # Tests of the client itself, which need more than the SDK has. Swift wants the folder there.
    REGEX /node/test$ EXCLUDE
    REGEX /python/tests$ EXCLUDE
    REGEX /swift/test$ EXCLUDE)
  sdk_page(clients/${client}/README.md clients/${client}/README.md)
endforeach()
install(FILES ${clients}/conformance.txt DESTINATION clients ${in_sdk})
sdk_page(clients/README.md clients/README.md)
sdk_page(clients/api.md clients/api.md)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples DESTINATION . USE_SOURCE_PERMISSIONS ${in_sdk}
  PATTERN __pycache__ EXCLUDE)

sdk_page(packaging/sdk.md ../sdk-readme.md)
sdk_page(virtual_reader/README.md docs/virtual-reader.md)
sdk_page(virtual_reader/reference.md docs/virtual-reader-reference.md)
foreach(page IN ITEMS
    CHANGELOG SECURITY docs/bring-up docs/performance docs/protocol docs/shipping docs/security-model)
  sdk_page(${page}.md ${page}.md)
endforeach()
install(DIRECTORY ${sdk_pages}/ DESTINATION . ${in_sdk})
install(CODE "set(SYSTEM ${CMAKE_SYSTEM_NAME})\nset(MINIMUM_MACOS ${CMAKE_OSX_DEPLOYMENT_TARGET})
set(PROGRAMS \"$<TARGET_FILE:card-reader-agent>;$<TARGET_FILE:pcProxAPI>;$<TARGET_FILE:virtual-reader>;\
$<TARGET_FILE:pcProxAPI-recorder>\")\nset(README \"${CMAKE_BINARY_DIR}/sdk-readme.md\")" ${in_sdk})
install(SCRIPT ${CMAKE_CURRENT_LIST_DIR}/sdk_readme.cmake ${in_sdk})

# To sign the bundle after another library was put into it.
install(PROGRAMS ${PROJECT_SOURCE_DIR}/packaging/macos/sign-ad-hoc DESTINATION packaging/macos ${in_sdk})
install(FILES ${PROJECT_SOURCE_DIR}/packaging/macos/other-team-library.entitlements
  DESTINATION packaging/macos ${in_sdk})
