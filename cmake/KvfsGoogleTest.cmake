# GoogleTest as it is installed, which sanitizers need not look into. For foreign machines, and where no library is
# installed, it is built from Debian's source package.

include_guard(GLOBAL)

set(KVFS_GOOGLETEST_DIR "/usr/src/googletest" CACHE PATH "Folder with the sources of GoogleTest")

if(NOT CMAKE_CROSSCOMPILING)
  find_package(GTest QUIET)
endif()
if(TARGET GTest::gmock_main)
  return()
endif()
if(EXISTS "${KVFS_GOOGLETEST_DIR}/CMakeLists.txt")
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  add_subdirectory("${KVFS_GOOGLETEST_DIR}" "${PROJECT_BINARY_DIR}/googletest" EXCLUDE_FROM_ALL SYSTEM)
  if(NOT TARGET GTest::gmock_main)
    add_library(GTest::gmock_main ALIAS gmock_main)
  endif()
else()
  find_package(GTest REQUIRED)
endif()
