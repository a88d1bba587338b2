# 32-bit ARM with hardware floating point and musl, linked statically: Debian's cross compiler (package
# g++-arm-linux-gnueabihf) with the files that scripts/fetch-musl-arm unpacks. The programs run under qemu-arm.

include("${CMAKE_CURRENT_LIST_DIR}/musl.cmake")

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)

kvfs_use_musl("${CMAKE_CURRENT_LIST_DIR}/../build/musl-armhf/musl-gcc.specs")
# Small pages keep relocation data apart from the rest at the cost of padding; a static program has next to none.
string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-z,norelro -Wl,-z,max-page-size=65536 -Wl,-z,common-page-size=65536")
