# Lets everybody read what is in FOLDER, the bundle that was installed, whatever the umask of the user who
# installs it: CMake gives new folders a mode, from which the system takes the umask.
file(GLOB_RECURSE entries LIST_DIRECTORIES true "${FOLDER}/*")
foreach(entry IN ITEMS "${FOLDER}" LISTS entries)
  if(IS_DIRECTORY "${entry}")
    file(CHMOD "${entry}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
      GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  endif()
endforeach()
unset(FOLDER)
