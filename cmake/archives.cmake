# What cpack makes: an archive for each component, the bundle alone and the SDK. Expects
# library_origin and recorder_origin of bundle.cmake.

set(CPACK_GENERATOR TGZ)
set(processors ${CMAKE_SYSTEM_PROCESSOR})
if(APPLE)
  set(CPACK_GENERATOR ZIP)
  # What the bundle is for, and not where it was built.
  list(JOIN CMAKE_OSX_ARCHITECTURES "-" processors)
endif()
set(CPACK_PACKAGE_NAME card-reader-agent)
set(CPACK_PACKAGE_VENDOR "")
set(CPACK_PACKAGE_FILE_NAME card-reader-agent-${PROJECT_VERSION}-${CMAKE_SYSTEM_NAME}-${processors})
set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL agent sdk)
set(CPACK_ARCHIVE_AGENT_FILE_NAME ${CPACK_PACKAGE_FILE_NAME}${library_origin}${recorder_origin})
set(CPACK_ARCHIVE_SDK_FILE_NAME ${CPACK_PACKAGE_FILE_NAME}-sdk)
# What cpack writes tells who packed, when, with which umask, and in which order the disk had the files.
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/repack.cmake)
set(CPACK_CARD_READER_REPACK ${CMAKE_SOURCE_DIR}/packaging/repack)
set(CPACK_PACKAGE_CHECKSUM SHA256)
include(CPack)
