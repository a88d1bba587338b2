# x86-64 with musl (package musl-tools), linked statically.

include("${CMAKE_CURRENT_LIST_DIR}/musl.cmake")

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_CXX_COMPILER x86_64-linux-gnu-g++)
kvfs_use_musl(/usr/lib/x86_64-linux-musl/musl-gcc.specs)
