# GoogleTest is built from Debian's source package with the flags of each configuration, so that sanitizers and foreign
# targets match; where that package is missing, an installed GoogleTest is used.

include_guard(GLOBAL)

set(KVFS_GOOGLETEST_DIR "/usr/src/googletest" CACHE PATH "Folder with the sources of GoogleTest")

if(EXISTS "${KVFS_GOOGLETEST_DIR}/CMakeLists.txt")
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  add_subdirectory("${KVFS_GOOGLETEST_DIR}" "${PROJECT_BINARY_DIR}/googletest" EXCLUDE_FROM_ALL SYSTEM)
  if(NOT TARGET GTest::gmock_main)
    add_library(GTest::gmock_main ALIAS gmock_main)
  endif()
else()
  find_package(GTest REQUIRED)
endif()
