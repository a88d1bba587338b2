# Run by cpack after it has built the packages: takes the scripts out of the library's package that cpack adds for
# ldconfig. The trigger in it does that work, and without a shell.

foreach(package IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name "${package}" NAME)
  if(name MATCHES "^${CPACK_DEBIAN_LIBRARY_PACKAGE_NAME}_")
    set(folder "${CPACK_TEMPORARY_DIRECTORY}/unpacked")
    execute_process(COMMAND dpkg-deb --raw-extract "${package}" "${folder}" COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE "${folder}/DEBIAN/postinst" "${folder}/DEBIAN/postrm")
    execute_process(COMMAND dpkg-deb --root-owner-group -Z${CPACK_DEBIAN_COMPRESSION_TYPE} --build "${folder}"
                            "${package}" OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE_RECURSE "${folder}")
  endif()
endforeach()
