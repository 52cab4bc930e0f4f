# kel_add_test(NAME <name> SOURCES <src>... [LIBS <lib>...] [TIMEOUT <s>] [THREADED]
#              [LAUNCHER <command>...])
#
# One GoogleTest executable registered with CTest as a single test, so that
# its time-out covers the whole executable and a lost signal or a deadlock
# shows up as a failure instead of a hung run. THREADED marks the tests that
# start threads; the TSan preset runs only those. LAUNCHER runs the executable
# through a command that sets up its surroundings (it gets the executable's
# path as its last argument).
function(kel_add_test)
  cmake_parse_arguments(ARG "THREADED" "NAME;TIMEOUT" "SOURCES;LIBS;LAUNCHER" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 60)
  endif()
  add_executable(${ARG_NAME} ${ARG_SOURCES})
  target_link_libraries(${ARG_NAME} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main Threads::Threads)
  add_test(NAME ${ARG_NAME} COMMAND ${ARG_LAUNCHER} $<TARGET_FILE:${ARG_NAME}>)
  set(labels unit)
  if(ARG_THREADED)
    list(APPEND labels threaded)
  endif()
  set_tests_properties(${ARG_NAME} PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${labels}")
endfunction()

# Adds every immediate subdirectory of the current source directory that has a
# CMakeLists.txt, so that each area can be added without touching its parent.
function(kel_add_subdirectories)
  file(GLOB children LIST_DIRECTORIES true RELATIVE ${CMAKE_CURRENT_SOURCE_DIR}
       ${CMAKE_CURRENT_SOURCE_DIR}/*)
  list(SORT children)
  foreach(child IN LISTS children)
    if(IS_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/${child}
       AND EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${child}/CMakeLists.txt)
      add_subdirectory(${child})
    endif()
  endforeach()
endfunction()

# kel_add_fuzz_target(NAME <name> SOURCES <src>... CORPUS <dir> [LIBS <lib>...])
#
# <name>_replay, built in every preset and registered with CTest, feeds each
# file of the committed corpus <dir> to the target's LLVMFuzzerTestOneInput.
# With clang (outside ThreadSanitizer builds) <name> is also built as a
# libFuzzer binary. SOURCES holds the fuzz target and the sources under test,
# so that these carry the fuzzer's coverage instrumentation.
function(kel_add_fuzz_target)
  cmake_parse_arguments(ARG "" "NAME;CORPUS" "SOURCES;LIBS" ${ARGN})
  add_executable(${ARG_NAME}_replay ${ARG_SOURCES}
                 ${PROJECT_SOURCE_DIR}/tests/support/fuzz_replay_main.cpp)
  target_link_libraries(${ARG_NAME}_replay PRIVATE ${ARG_LIBS})
  add_test(NAME ${ARG_NAME}_replay COMMAND ${ARG_NAME}_replay ${ARG_CORPUS})
  set_tests_properties(${ARG_NAME}_replay PROPERTIES TIMEOUT 60 LABELS unit)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND NOT CMAKE_CXX_FLAGS MATCHES "sanitize=thread")
    add_executable(${ARG_NAME} ${ARG_SOURCES})
    target_compile_options(${ARG_NAME} PRIVATE -fsanitize=fuzzer)
    target_link_options(${ARG_NAME} PRIVATE -fsanitize=fuzzer)
    target_link_libraries(${ARG_NAME} PRIVATE ${ARG_LIBS})
  endif()
endfunction()
