# Read by cpack once for each kind of package: what takes part in its making.

set(scripts "${CMAKE_CURRENT_LIST_DIR}")
if(CPACK_GENERATOR STREQUAL DEB)
  set(CPACK_PRE_BUILD_SCRIPTS "${scripts}/documents.cmake")
  set(CPACK_POST_BUILD_SCRIPTS "${scripts}/repack.cmake")
else()
  set(CPACK_INSTALL_SCRIPTS "${scripts}/sources.cmake")
  set(CPACK_PACKAGING_INSTALL_PREFIX "/")
endif()
