# Run by cpack after it has built the packages: lets dpkg-deb put each together once more, because what cpack makes tells
# the umask of who made it; and takes the scripts out of the library's package that cpack adds for ldconfig. The trigger
# in it does that work, and without a shell.

set(folder "${CPACK_TEMPORARY_DIRECTORY}/unpacked")
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  execute_process(COMMAND dpkg-deb --raw-extract "${package}" "${folder}" COMMAND_ERROR_IS_FATAL ANY)
  get_filename_component(name "${package}" NAME)
  if(name MATCHES "^${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME}_")
    file(REMOVE "${folder}/DEBIAN/postinst" "${folder}/DEBIAN/postrm")
  endif()
  execute_process(COMMAND dpkg-deb --root-owner-group -Z${CPACK_DEBIAN_COMPRESSION_TYPE} --build "${folder}"
                          "${package}" OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE "${folder}")
endforeach()
