include_guard(GLOBAL)

include(KvfsGoogleTest)

# The headers of GoogleTest, compiled once with the target kvfs_test_support, where the configuration wants that. Who
# shares them has the same definitions.
function(kvfs_use_precompiled_headers target)
  target_compile_definitions(${target} PRIVATE _LARGEFILE64_SOURCE)
  if(KVFS_PRECOMPILED_TEST_HEADERS)
    target_precompile_headers(${target} REUSE_FROM kvfs_test_support)
  endif()
endfunction()

# kvfs_add_test(name [LABELS label...] [LIBRARIES target...] SOURCES file...)
#
# One test program, linked with GoogleTest, the log capture, the fault injection (whose --wrap options come along) and
# the libraries named, by default the fixtures of tests/, the library under test and the volume builder. It is one test
# of ctest under the given labels (default: unit): its cases share a process. A program that KVFS_TESTS_LEFT_OUT names is
# no test, and is built only when somebody asks for its target.
function(kvfs_add_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "LABELS;LIBRARIES;SOURCES")
  if(NOT arg_LABELS)
    set(arg_LABELS unit)
  endif()
  if(NOT arg_LIBRARIES)
    set(arg_LIBRARIES kvfs_test_fixtures)
  endif()

  add_executable(${name} ${arg_SOURCES})
  kvfs_set_test_options(${name})
  target_link_libraries(${name} PRIVATE ${arg_LIBRARIES} kvfs_test_support GTest::gmock_main)
  kvfs_use_precompiled_headers(${name})
  if(KVFS_TESTS_LEFT_OUT AND name MATCHES "${KVFS_TESTS_LEFT_OUT}")
    set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
    return()
  endif()
  # The option tells scripts/report-tests that the output is GoogleTest's.
  add_test(NAME ${name} COMMAND ${name} --gtest_color=no)
  set_tests_properties(${name} PROPERTIES LABELS "${arg_LABELS}")
endfunction()

# kvfs_replace_routine(test header routine)
#
# Sends the library's calls of a routine that a header of lib/ declares to the one that the test puts in its place; see
# tests/support/replaced_routine.h. What the routine is called in object files the compiler says.
function(kvfs_replace_routine test header routine)
  set(source "${CMAKE_CURRENT_BINARY_DIR}/symbols/${routine}.cc")
  file(CONFIGURE OUTPUT "${source}" CONTENT "#include \"@header@\"\nauto* routine = &@routine@;\n" @ONLY)
  separate_arguments(flags NATIVE_COMMAND "${CMAKE_CXX_FLAGS}")
  execute_process(
    COMMAND ${CMAKE_CXX_COMPILER} ${flags} -std=c++20 -I "${PROJECT_SOURCE_DIR}/lib" -S -o - "${source}"
    OUTPUT_VARIABLE assembly COMMAND_ERROR_IS_FATAL ANY)
  if(NOT assembly MATCHES "(_Z[0-9]+${routine}[A-Za-z0-9_]+)")
    message(FATAL_ERROR "${header} declares no ${routine}")
  endif()
  target_link_options(${test} PRIVATE LINKER:--wrap=${CMAKE_MATCH_1})
  target_compile_definitions(${test} PRIVATE KVFS_SYMBOL_OF_${routine}="${CMAKE_MATCH_1}")
endfunction()

# kvfs_add_tool_runner(target SOURCES file...)
#
# What test programs run the built tool with. They find the programs through the macros KVFSLABEL_PATH,
# KVFSLABEL_FAULTY_PATH (the tool with injected faults), MAKE_VOLUME_PATH and SET_AND_PRINT_PATH; KVFS_EMULATOR has the
# words that start programs of the target, if they do not run by themselves.
function(kvfs_add_tool_runner target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES")
  add_library(${target} STATIC ${arg_SOURCES})
  kvfs_set_test_options(${target})
  target_include_directories(${target} PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}/tool")
  target_link_libraries(${target} PUBLIC kvfs_test_fixtures kvfs_test_support GTest::gmock)
  kvfs_use_precompiled_headers(${target})
  string(JOIN " " emulator ${CMAKE_CROSSCOMPILING_EMULATOR})
  target_compile_definitions(${target} PUBLIC KVFS_EMULATOR="${emulator}")
  foreach(program IN ITEMS kvfslabel kvfslabel_faulty make_volume set_and_print)
    string(TOUPPER ${program} macro)
    target_compile_definitions(${target} PUBLIC ${macro}_PATH="$<TARGET_FILE:${program}>")
    add_dependencies(${target} ${program})
  endforeach()
endfunction()

# kvfs_add_tool_test(name [OF_THIS_BUILD] [LIBRARIES target...] SOURCES file...)
#
# A test program that runs the built tool by means of kvfs_tool_runner. Its label is `tool`, and `any-tool` too unless it
# is about programs of this build whatever tool KVFSLABEL_COMMAND names.
function(kvfs_add_tool_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "OF_THIS_BUILD" "" "LIBRARIES;SOURCES")
  set(labels tool)
  if(NOT arg_OF_THIS_BUILD)
    list(APPEND labels any-tool)
  endif()
  kvfs_add_test(${name} LABELS ${labels} LIBRARIES kvfs_tool_runner ${arg_LIBRARIES} SOURCES ${arg_SOURCES})
endfunction()
