# find_package(kvfs): the targets kvfs::kvfs, static, and kvfs::kvfs_shared where the shared library is installed.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
include("${CMAKE_CURRENT_LIST_DIR}/kvfs-targets.cmake")
