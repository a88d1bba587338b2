# Run by cpack before it builds the packages: gives each package the documents that Debian expects in it, and compresses
# manual pages as Debian does. No time goes into the compressed files, so that packages can be reproduced.

string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
string(CONCAT changelog
       "kvfs (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium\n\n"
       "  * Release ${CPACK_PACKAGE_VERSION}; changelog.gz tells what is new.\n\n"
       " -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} COMPONENT)
  set(root "${CPACK_TEMPORARY_DIRECTORY}/${component}")
  set(documents "${root}${CPACK_KVFS_DOC_DIR}/${CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME}")
  configure_file("${CPACK_KVFS_SOURCE_DIR}/packaging/debian/copyright" "${documents}/copyright" COPYONLY)
  configure_file("${CPACK_KVFS_SOURCE_DIR}/CHANGELOG.md" "${documents}/changelog" COPYONLY)
  file(WRITE "${documents}/changelog.Debian" "${changelog}")

  file(GLOB_RECURSE pages "${root}${CPACK_KVFS_MAN_DIR}/*")
  execute_process(COMMAND gzip -9n "${documents}/changelog" "${documents}/changelog.Debian" ${pages}
                  COMMAND_ERROR_IS_FATAL ANY)

  # Whatever the umask of whoever makes the packages.
  execute_process(COMMAND chmod --recursive u=rwX,go=rX "${root}" COMMAND_ERROR_IS_FATAL ANY)
endforeach()
