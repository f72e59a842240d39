# What cpack does with the archives that it has written, before it copies them and takes their digests.
execute_process(COMMAND python3 ${CPACK_CARD_READER_REPACK} ${CPACK_PACKAGE_FILES}
  RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "  packaging/repack failed (it needs Python 3.8 or later): ${status}")
endif()
