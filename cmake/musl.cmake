# How to compile with musl in place of the system's C library: its own specs lead the compiler to its headers, start
# files and library. The C++ headers stay the compiler's; nothing is linked that belongs to them.
#
# kvfs_use_musl(specs headers target)
#
#   specs    file with the specs
#   headers  folder of the compiler's C++ headers
#   target   folder of those among them that differ by target
macro(kvfs_use_musl specs headers target)
  # These headers ask for the version of glibc, by a macro that musl does not have.
  string(CONCAT CMAKE_CXX_FLAGS_INIT "-specs=${specs} -nostdinc++ -isystem ${headers} -isystem ${target} "
                "'-D__GLIBC_PREREQ(major,minor)=0' -fno-pie")
  set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -no-pie -s -Wl,--build-id=none")
endmacro()
