# What `cpack` makes: a Debian package of each component, and an archive of the sources.
#
#   tool         kvfslabel
#   library      libkvfs1
#   development  libkvfs-dev
#   python       python3-kvfs
#
# The packages are laid out for CMAKE_INSTALL_PREFIX, which is also written into the pkg-config file. The preset
# `package` gives what Debian expects.

set(KVFS_PACKAGE_MAINTAINER
    "kvfs maintainers <maintainers@kvfs.invalid>"
    CACHE STRING "Name and mail address of who answers for the packages")

set(CPACK_PACKAGE_VENDOR kvfs)
set(CPACK_PACKAGE_CONTACT "${KVFS_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_CHECKSUM SHA256)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)

set(CPACK_COMPONENTS_ALL tool)
if(BUILD_SHARED_LIBS)
  list(APPEND CPACK_COMPONENTS_ALL library development)
  if(KVFS_PYTHON_DIR)
    list(APPEND CPACK_COMPONENTS_ALL python)
  endif()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE kvfs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME kvfslabel)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION otherosfs)
set(CPACK_DEBIAN_TOOL_DESCRIPTION
    "print or change the label of an HFS Plus volume
kvfslabel prints the label of an HFS Plus or HFSX volume that is not mounted,
or changes it in place. It works on a block device or on a disk image.")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libkvfs${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/packaging/debian/triggers")
set(CPACK_DEBIAN_LIBRARY_DESCRIPTION
    "reads and changes HFS Plus volumes (shared library)
libkvfs reads HFS Plus and HFSX volumes that are not mounted, and changes
their catalogs and files. It needs nothing but the C library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkvfs-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "reads and changes HFS Plus volumes (development files)
libkvfs reads HFS Plus and HFSX volumes that are not mounted, and changes
their catalogs and files. This package has its headers, the static library,
a pkg-config file and a CMake package.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-kvfs)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
    "python3 (>= 3.9), libkvfs${PROJECT_VERSION_MAJOR} (>= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/packaging/debian/python3-kvfs/postinst"
                                              "${PROJECT_SOURCE_DIR}/packaging/debian/python3-kvfs/prerm")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION
    "reads and changes HFS Plus volumes (Python package)
libkvfs reads HFS Plus and HFSX volumes that are not mounted, and changes
their catalogs and files. This package makes it a Python module.")

# For the scripts of packaging/cpack, which learn of variables that begin with CPACK_ alone.
set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_SOURCE_DIR}/packaging/cpack/options.cmake")
set(CPACK_KVFS_DOC_DIR "${CMAKE_INSTALL_FULL_DATADIR}/doc")
set(CPACK_KVFS_MAN_DIR "${CMAKE_INSTALL_FULL_MANDIR}")
set(CPACK_KVFS_SOURCE_DIR "${PROJECT_SOURCE_DIR}")

# A script lays out the sources, because only those under version control belong into the archive.
set(CPACK_SOURCE_GENERATOR TXZ)
set(CPACK_SOURCE_PACKAGE_FILE_NAME ${PROJECT_NAME}-${PROJECT_VERSION})
set(CPACK_SOURCE_INSTALLED_DIRECTORIES "")

include(CPack)
