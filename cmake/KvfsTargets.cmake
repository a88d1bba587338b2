# How this project's own targets are compiled. Third-party code (GoogleTest) keeps its own flags.

include_guard(GLOBAL)

# What every target of ours shares: the language level and the warnings.
function(kvfs_set_common_options target)
  set_target_properties(${target} PROPERTIES CXX_STANDARD 20 CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wconversion -Wshadow)
  if(KVFS_WARNINGS_AS_ERRORS)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# Tests and the programs that they use.
function(kvfs_set_test_options target)
  kvfs_set_common_options(${target})
  # g++ 12 sees overlapping copies in every "literal" + std::string that it inlines.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE -Wno-restrict)
  endif()
endfunction()

# Code that is shipped: nothing in it may need the C++ runtime library. Sections of their own let the linker drop the
# library routines that the tool does not reach. Unwind tables serve exceptions and debuggers alone. What is released
# does not name the folders that it was built in, so that it is the same wherever that is.
function(kvfs_set_shipped_options target)
  kvfs_set_common_options(${target})
  target_compile_options(
    ${target}
    PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wmissing-declarations> # the header makes a routine visible, or not
            -fno-exceptions
            -fno-rtti
            -fno-threadsafe-statics
            -ffunction-sections
            -fdata-sections
            $<$<CONFIG:Release,MinSizeRel>:-fno-unwind-tables>
            $<$<CONFIG:Release,MinSizeRel>:-fno-asynchronous-unwind-tables>
            $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>
            $<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_BINARY_DIR}=build>)
  if(KVFS_COVERAGE)
    target_compile_options(${target} PRIVATE -O0 --coverage -fprofile-update=atomic)
  endif()
endfunction()

# The compiler driver names the C++ runtime library on every link. --as-needed stands before it on the command line and
# drops it, because nothing refers to it. The compiler's own support routines, if any are used, are linked in. The map
# tells scripts/check-linkage what was.
function(kvfs_set_shipped_link_options target)
  target_link_options(${target} PRIVATE LINKER:--gc-sections LINKER:--as-needed -static-libgcc
                      LINKER:-Map=$<TARGET_FILE:${target}>.map)
endfunction()
