# Run by cpack when it makes the archive of the sources: lays out the files under version control. A folder that is no
# work tree of git is such an archive, unpacked: all of it is taken but the folders of builds.

if(EXISTS "${CPACK_KVFS_SOURCE_DIR}/.git")
  execute_process(COMMAND git ls-files WORKING_DIRECTORY "${CPACK_KVFS_SOURCE_DIR}" OUTPUT_VARIABLE files
                  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  string(REPLACE "\n" ";" files "${files}")
else()
  file(GLOB_RECURSE files RELATIVE "${CPACK_KVFS_SOURCE_DIR}" "${CPACK_KVFS_SOURCE_DIR}/*")
  list(FILTER files EXCLUDE REGEX "^build(-[^/]*)?/")
endif()

foreach(file IN LISTS files)
  get_filename_component(folder "${file}" DIRECTORY)
  file(COPY "${CPACK_KVFS_SOURCE_DIR}/${file}" DESTINATION "${CMAKE_INSTALL_PREFIX}/${folder}")
endforeach()

# Whatever the umask of whoever makes the archive.
execute_process(COMMAND chmod --recursive u=rwX,go=rX "${CMAKE_INSTALL_PREFIX}" COMMAND_ERROR_IS_FATAL ANY)
