# Test programs are compiled without optimisation and share one precompiled header: most of a test's compile time is
# GoogleTest's headers and what its macros expand to, and it runs on the optimised code of the product all the same.
add_library(voltaria_test_options INTERFACE)
target_link_libraries(voltaria_test_options INTERFACE voltaria_options GTest::gtest GTest::gmock)
target_compile_options(voltaria_test_options INTERFACE -O0 -g1)
if(VOLTARIA_SANITIZE MATCHES undefined)
  # What is under test is watched, not the test: a quarter of its compile time.
  target_compile_options(voltaria_test_options INTERFACE -fno-sanitize=undefined)
endif()
file(WRITE ${CMAKE_BINARY_DIR}/tests/precompiled.cpp.in "// Carries the precompiled header.\n")
configure_file(${CMAKE_BINARY_DIR}/tests/precompiled.cpp.in ${CMAKE_BINARY_DIR}/tests/precompiled.cpp COPYONLY)
if(VOLTARIA_UNIT_TESTS)
  add_library(voltaria_test_headers OBJECT ${CMAKE_BINARY_DIR}/tests/precompiled.cpp)
  target_link_libraries(voltaria_test_headers PRIVATE voltaria_test_options)
  target_precompile_headers(voltaria_test_headers PRIVATE <gmock/gmock.h> <gtest/gtest.h>)
endif()

# System tests have nothing that is under test in themselves: they never carry sanitizers.
add_library(voltaria_system_test_options INTERFACE)
target_link_libraries(voltaria_system_test_options INTERFACE voltaria_support_options GTest::gtest GTest::gmock)
target_include_directories(voltaria_system_test_options INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_compile_definitions(voltaria_system_test_options INTERFACE VOLTARIA_PROGRAMS="${CMAKE_BINARY_DIR}/bin")
target_compile_options(voltaria_system_test_options INTERFACE -O0 -g1)
if(VOLTARIA_SYSTEM_TESTS)
  add_library(voltaria_system_test_headers OBJECT ${CMAKE_BINARY_DIR}/tests/precompiled.cpp)
  target_link_libraries(voltaria_system_test_headers PRIVATE voltaria_system_test_options)
  target_precompile_headers(voltaria_system_test_headers PRIVATE <gmock/gmock.h> <gtest/gtest.h>)
endif()

# Sanitized programs leave their reports in files, because a daemon that closes its descriptors could not print them;
# the sandbox looks for the files at the end. It always does, because system tests can be run on the programs of another
# build.
set(voltaria_sandbox_command ${CMAKE_BINARY_DIR}/bin/sandbox --sanitizer-logs)

# Makes CTest run an executable in a sandbox of its own, with more options for the sandbox if wanted.
function(voltaria_sandboxed target)
  set(emulator ${voltaria_sandbox_command} ${ARGN} --)
  set_target_properties(${target} PROPERTIES CROSSCOMPILING_EMULATOR "${emulator}")
  add_dependencies(${target} sandbox standin)
endfunction()

# What several programs share is compiled once: voltaria_share_sources(LIST KIND LIBS...) puts the objects of these
# sources in their place in the list of a program's sources. KIND is test or system_test.
set(voltaria_shared_sources engine_fixture.cpp ups_unit.cpp bed.cpp vt_stage.cpp schedule_stage.cpp)
macro(voltaria_share_sources list kind)
  set(kept)
  foreach(source IN LISTS ${list})
    cmake_path(GET source FILENAME file)
    if(file IN_LIST voltaria_shared_sources)
      cmake_path(GET source STEM stem)
      if(NOT TARGET shared_${stem})
        add_library(shared_${stem} OBJECT ${source})
        target_include_directories(shared_${stem} PRIVATE ${PROJECT_SOURCE_DIR})
        target_link_libraries(shared_${stem} PRIVATE voltaria_${kind}_options ${ARGN})
        target_precompile_headers(shared_${stem} REUSE_FROM voltaria_${kind}_headers)
      endif()
      set(source $<TARGET_OBJECTS:shared_${stem}>)
    endif()
    list(APPEND kept ${source})
  endforeach()
  set(${list} ${kept})
endmacro()

# voltaria_unit_test(NAME [SANDBOX] SOURCES... LIBS... [SANDBOX_OPTIONS ...])
#   A GoogleTest program of unit tests; every test of it is one CTest test. With SANDBOX every test runs in a sandbox:
#   as root, in a private network, with the fixed directories empty: messages are in English.
function(voltaria_unit_test name)
  cmake_parse_arguments(arg "SANDBOX" "" "SOURCES;LIBS;SANDBOX_OPTIONS" ${ARGN})
  list(TRANSFORM arg_SOURCES PREPEND ${PROJECT_SOURCE_DIR}/tests/unit/)
  voltaria_share_sources(arg_SOURCES test ${arg_LIBS})
  add_executable(${name} ${arg_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE voltaria_test_options ${arg_LIBS} GTest::gtest_main)
  target_precompile_headers(${name} REUSE_FROM voltaria_test_headers)
  if(arg_SANDBOX)
    voltaria_sandboxed(${name} --no-catalogue ${arg_SANDBOX_OPTIONS})
  endif()
  gtest_discover_tests(${name} TEST_PREFIX "unit." DISCOVERY_TIMEOUT 60 PROPERTIES LABELS unit TIMEOUT 300)
endfunction()

# voltaria_system_test(NAME SOURCES... LIBS... [SANDBOX_OPTIONS ...])
#   A GoogleTest program, tests/system/SOURCES, that starts the real programs: every test runs in a sandbox of its own
#   and has the test bed (support/testbed.h). Libraries of the product are linked by $<LINK_ONLY:...>, without what they
#   are compiled with. VOLTARIA_PROGRAMS is the directory of the programs; one in the environment is taken before the
#   build's own.
function(voltaria_system_test name)
  cmake_parse_arguments(arg "" "" "SOURCES;LIBS;SANDBOX_OPTIONS" ${ARGN})
  list(TRANSFORM arg_SOURCES PREPEND ${PROJECT_SOURCE_DIR}/tests/system/)
  voltaria_share_sources(arg_SOURCES system_test testbed)
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE voltaria_system_test_options testbed ${arg_LIBS} GTest::gtest_main)
  target_precompile_headers(${name} REUSE_FROM voltaria_system_test_headers)
  voltaria_sandboxed(${name} ${arg_SANDBOX_OPTIONS})
  foreach(program voltariad upssim voltaria voltariactl)
    if(TARGET ${program})
      add_dependencies(${name} ${program})
    endif()
  endforeach()
  gtest_discover_tests(${name} TEST_PREFIX "system." DISCOVERY_TIMEOUT 60 PROPERTIES LABELS system TIMEOUT 300)
endfunction()

# voltaria_fuzz_target(NAME [SANDBOX] SOURCES... LIBS... [SANDBOX_OPTIONS ...])
#   A parser's fuzz target, tests/fuzz/SOURCES, with its corpus in tests/fuzz/corpus/NAME. Built with libFuzzer when
#   VOLTARIA_FUZZ is on; otherwise, with sanitizers, with a main of our own that replays the corpus, which CTest runs.
function(voltaria_fuzz_target name)
  if(NOT VOLTARIA_SANITIZE)
    return()
  endif()
  cmake_parse_arguments(arg "SANDBOX" "" "SOURCES;LIBS;SANDBOX_OPTIONS" ${ARGN})
  list(TRANSFORM arg_SOURCES PREPEND ${PROJECT_SOURCE_DIR}/tests/fuzz/)
  add_executable(${name} ${arg_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE voltaria_options ${arg_LIBS})
  if(arg_SANDBOX)
    voltaria_sandboxed(${name} ${arg_SANDBOX_OPTIONS})
  endif()
  if(VOLTARIA_FUZZ)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  else()
    if(NOT TARGET fuzz_replay)
      add_library(fuzz_replay OBJECT ${PROJECT_SOURCE_DIR}/tests/fuzz/replay_main.cpp)
      target_link_libraries(fuzz_replay PRIVATE voltaria_options)
    endif()
    target_sources(${name} PRIVATE $<TARGET_OBJECTS:fuzz_replay>)
    add_test(NAME fuzz.${name} COMMAND ${name} ${PROJECT_SOURCE_DIR}/tests/fuzz/corpus/${name})
    set_tests_properties(fuzz.${name} PROPERTIES LABELS fuzz TIMEOUT 300)
  endif()
endfunction()
