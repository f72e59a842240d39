# Lets everybody read what is in the bundle's folders, whatever the umask of whoever installs or
# packs: CMake gives new folders a mode, from which the system takes the umask. FOLDER is the bundle
# that was installed; without it this is about all that is to be packed.
if(NOT DEFINED FOLDER)
  set(FOLDER ${CPACK_TEMPORARY_DIRECTORY})
endif()
file(GLOB_RECURSE entries LIST_DIRECTORIES true "${FOLDER}/*")
foreach(entry IN ITEMS "${FOLDER}" LISTS entries)
  if(IS_DIRECTORY "${entry}")
    file(CHMOD "${entry}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
      GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  endif()
endforeach()
unset(FOLDER)
