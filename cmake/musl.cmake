# How to compile with musl in place of the system's C library: its own specs lead the compiler to its headers, start
# files and library. The C++ headers stay the compiler's; nothing is linked that belongs to them.
#
# kvfs_use_musl(specs)
#
#   specs  file with the specs
#
# CMAKE_CXX_COMPILER is set before. Where its C++ headers are, those that differ by target included, it says itself.
function(kvfs_use_musl specs)
  execute_process(
    COMMAND ${CMAKE_CXX_COMPILER} -E -v -x c++ /dev/null
    OUTPUT_QUIET
    ERROR_VARIABLE search
    COMMAND_ERROR_IS_FATAL ANY)
  set(headers "")
  string(REGEX MATCHALL "\n /[^\n]*/c\\+\\+/[^\n]*" folders "${search}")
  foreach(folder IN LISTS folders)
    string(STRIP "${folder}" folder)
    string(APPEND headers " -isystem ${folder}")
  endforeach()
  # These headers ask for the version of glibc, by a macro that musl does not have.
  set(CMAKE_CXX_FLAGS_INIT "-specs=${specs} -nostdinc++${headers} '-D__GLIBC_PREREQ(major,minor)=0' -fno-pie" PARENT_SCOPE)
  set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -no-pie -s -Wl,--build-id=none" PARENT_SCOPE)
endfunction()
