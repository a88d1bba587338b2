# What `cmake --install` puts where. An image builder takes the component `tool` alone.
#
#   tool         the tool, its man page, shell completions
#   library      the shared library
#   development  headers, static library, their man page, pkg-config file, CMake package
#   python       the Python package, where KVFS_PYTHON_DIR says

include(CMakePackageConfigHelpers)

install(TARGETS kvfslabel RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT tool)
install(FILES man/kvfslabel.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT tool)
install(
  FILES completions/kvfslabel.bash
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
  RENAME kvfslabel
  COMPONENT tool)
install(FILES completions/_kvfslabel DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions COMPONENT tool)
install(FILES completions/kvfslabel.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tool)

install(
  TARGETS kvfs
  EXPORT kvfs
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  FILE_SET HEADERS
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kvfs
    COMPONENT development)
if(BUILD_SHARED_LIBS)
  install(
    TARGETS kvfs_shared
    EXPORT kvfs
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
            COMPONENT library
            NAMELINK_COMPONENT development
    FILE_SET HEADERS
      DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kvfs
      COMPONENT development)
endif()

install(FILES man/kvfs.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)
configure_file(cmake/kvfs.pc.in "${PROJECT_BINARY_DIR}/kvfs.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/kvfs.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/kvfs)
install(EXPORT kvfs NAMESPACE kvfs:: DESTINATION ${package_folder} FILE kvfs-targets.cmake COMPONENT development)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/kvfs-config-version.cmake" COMPATIBILITY SameMajorVersion)
install(FILES cmake/kvfs-config.cmake "${PROJECT_BINARY_DIR}/kvfs-config-version.cmake" DESTINATION ${package_folder}
        COMPONENT development)

# The name and version beside the package are what Python's own tools look for.
set(KVFS_PYTHON_DIR
    ""
    CACHE STRING "Folder below the prefix where Python looks for packages; the Python package is not installed without")
if(KVFS_PYTHON_DIR AND BUILD_SHARED_LIBS)
  install(
    DIRECTORY python/kvfs
    DESTINATION ${KVFS_PYTHON_DIR}
    COMPONENT python
    FILES_MATCHING
    PATTERN "*.py"
    PATTERN "py.typed"
    PATTERN "__pycache__" EXCLUDE)
  file(CONFIGURE OUTPUT "${PROJECT_BINARY_DIR}/METADATA" CONTENT "Metadata-Version: 2.1
Name: kvfs
Version: @PROJECT_VERSION@
Summary: Reads and changes HFS Plus volumes that are not mounted
Requires-Python: >=3.9
")
  install(FILES "${PROJECT_BINARY_DIR}/METADATA" DESTINATION ${KVFS_PYTHON_DIR}/kvfs-${PROJECT_VERSION}.dist-info
          COMPONENT python)
endif()
