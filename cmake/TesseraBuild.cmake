# Build conventions shared by every component: warnings, sanitizers, the
# product/test split, and the helpers that declare tests, test-support
# libraries and fuzz targets.
#
# The default target builds the product only (what an operator runs). Every
# test program, test-support library and fuzz target is left out of it and
# hangs under the `tests` target instead, so `cmake --build` of a fresh tree
# compiles no test code, and `--target tests` builds everything ctest runs.

# Every target of the project links this to get the warning set. -Werror is
# a CI setting (TESSERA_WERROR, on in the presets), not forced on consumers.
add_library(tessera_warnings INTERFACE)
target_compile_options(tessera_warnings INTERFACE
  -Wall -Wextra -Wshadow -Wformat=2 -Wundef
  $<$<BOOL:${TESSERA_WERROR}>:-Werror>)

# File sizes, offsets and inode numbers are 64-bit on 32-bit targets too
# (armhf): without it readdir() and stat() fail with EOVERFLOW on entries
# whose inode number or directory offset needs more than 32 bits, and a loop
# over readdir() silently ends early. (A no-op on 64-bit targets.)
add_compile_definitions(_FILE_OFFSET_BITS=64)

if(TESSERA_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  add_compile_definitions(TESSERA_SANITIZE=1)
endif()

# ThreadSanitizer: the concurrency tests run in this build (label
# `concurrency`); it cannot share a process with ASan.
if(TESSERA_TSAN)
  if(TESSERA_SANITIZE)
    message(FATAL_ERROR "TESSERA_TSAN and TESSERA_SANITIZE exclude each other")
  endif()
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()

if(TESSERA_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "TESSERA_FUZZ needs clang (configure with the asan preset)")
  endif()
  # Coverage feedback must come from the libraries a fuzz target drives, not
  # only from the target's own file, so every object of this build carries it.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# Seconds each fuzz target runs inside ctest; long campaigns call
# scripts/run-fuzzer.sh with a longer time.
set(TESSERA_FUZZ_SECONDS 15 CACHE STRING "Length of the short fuzz runs in ctest")

# A cross build's programs run under CMAKE_CROSSCOMPILING_EMULATOR (qemu-user,
# see cmake/toolchains): ctest puts it before every test program by itself,
# and TESSERA_EMULATOR, the same command as one string, goes to the tests
# that start the build's programs themselves (TEESIM_EMULATOR for C++ tests,
# --emulator for the Python harnesses).
if(CMAKE_CROSSCOMPILING_EMULATOR)
  list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " TESSERA_EMULATOR)
else()
  set(TESSERA_EMULATOR "")
endif()

# Everything ctest needs beyond the product.
add_custom_target(tests)
set_property(GLOBAL APPEND PROPERTY TESSERA_TEST_ONLY_TARGETS tests)

# tessera_mark_test_only(<targets...>)
# Records targets that exist for tests only. The layering check
# (scripts/check_layers.py) fails when a product target links one.
function(tessera_mark_test_only)
  set_property(GLOBAL APPEND PROPERTY TESSERA_TEST_ONLY_TARGETS ${ARGN})
endfunction()

# tessera_add_test_library(<name> <STATIC|OBJECT|INTERFACE> [sources...])
# A library that only tests link (fakes, doubles, fixtures): left out of the
# default build, built by `tests`, and known to the layering check.
function(tessera_add_test_library name kind)
  if(kind STREQUAL "INTERFACE")
    add_library(${name} INTERFACE)
  else()
    add_library(${name} ${kind} EXCLUDE_FROM_ALL ${ARGN})
    target_link_libraries(${name} PRIVATE tessera_warnings)
    add_dependencies(tests ${name})
  endif()
  tessera_mark_test_only(${name})
endfunction()

# tessera_add_test_program(<name> <sources...>)
# An executable that only tests run (a test tool, a dump of compiled-in data).
function(tessera_add_test_program name)
  add_executable(${name} EXCLUDE_FROM_ALL ${ARGN})
  target_link_libraries(${name} PRIVATE tessera_warnings)
  add_dependencies(tests ${name})
  tessera_mark_test_only(${name})
endfunction()

# tessera_add_gtest(<name> SOURCES <files...> [LIBS <targets...>] [LABELS <labels...>])
# Builds a GoogleTest program and lets ctest discover each test case in it.
function(tessera_add_gtest name)
  if(NOT TESSERA_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  tessera_add_test_program(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gtest_main)
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    DISCOVERY_TIMEOUT 60
    TEST_LIST ${name}_TESTS)
  # Labels are applied after discovery: a list given through
  # gtest_discover_tests(PROPERTIES) loses all but its first element.
  set_property(GLOBAL PROPERTY TESSERA_GTEST_LABELS_${name} "unit;${ARG_LABELS}")
  set(labels_file "${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake")
  file(WRITE "${labels_file}"
    "if(${name}_TESTS)\n"
    "  set_tests_properties(\${${name}_TESTS} PROPERTIES LABELS \"unit;${ARG_LABELS}\")\n"
    "endif()\n")
  if(TESSERA_EMULATOR)
    file(APPEND "${labels_file}"
      "if(${name}_TESTS)\n"
      "  set_tests_properties(\${${name}_TESTS} PROPERTIES\n"
      "    ENVIRONMENT \"TEESIM_EMULATOR=${TESSERA_EMULATOR}\")\n"
      "endif()\n")
  endif()
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${labels_file}")
endfunction()

# tessera_label_gtests(<name> <label> <regex>)
# Adds <label> to the test cases of GoogleTest program <name> (declared with
# tessera_add_gtest) whose full names match <regex>, e.g. to pick the
# concurrency tests that the ThreadSanitizer build runs.
function(tessera_label_gtests name label regex)
  if(NOT TESSERA_TESTS)
    return()
  endif()
  # ctest scripts can only set a test's labels as a whole: the program's
  # labels are repeated with the new one.
  get_property(labels GLOBAL PROPERTY TESSERA_GTEST_LABELS_${name})
  set(file "${CMAKE_CURRENT_BINARY_DIR}/${name}_${label}_labels.cmake")
  file(WRITE "${file}"
    "foreach(t IN LISTS ${name}_TESTS)\n"
    "  if(t MATCHES [=[${regex}]=])\n"
    "    set_tests_properties(\"\${t}\" PROPERTIES LABELS \"${labels};${label}\")\n"
    "  endif()\n"
    "endforeach()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${file}")
endfunction()

# tessera_add_fuzzer(<name> SOURCES <files...> [LIBS <targets...>] [CORPUS <dir>])
# Builds a libFuzzer target (only with TESSERA_FUZZ) and registers a short
# run. By convention the source is fuzz/<name>.cpp of its component and the
# seeds live in fuzz/corpus/ beside it.
function(tessera_add_fuzzer name)
  if(NOT TESSERA_FUZZ)
    return()
  endif()
  cmake_parse_arguments(ARG "" "CORPUS" "SOURCES;LIBS" ${ARGN})
  tessera_add_test_program(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_libraries(${name} PRIVATE ${ARG_LIBS})
  set(work "${CMAKE_CURRENT_BINARY_DIR}/${name}-corpus")
  set(seeds "")
  if(ARG_CORPUS)
    set(seeds "${ARG_CORPUS}")
  endif()
  add_test(NAME fuzz.${name}
    COMMAND ${CMAKE_SOURCE_DIR}/scripts/run-fuzzer.sh $<TARGET_FILE:${name}>
            ${TESSERA_FUZZ_SECONDS} ${work} ${seeds})
  set_tests_properties(fuzz.${name} PROPERTIES LABELS "fuzz" TIMEOUT 300)
endfunction()

# tessera_product_programs(<out-var> <dir>)
# Lists the product's executables defined in <dir> and below (test-only ones
# left out), for checks that every program must pass.
function(tessera_product_programs out dir)
  get_property(test_only GLOBAL PROPERTY TESSERA_TEST_ONLY_TARGETS)
  get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
  set(found "")
  foreach(t IN LISTS targets)
    get_target_property(type ${t} TYPE)
    if(type STREQUAL "EXECUTABLE" AND NOT t IN_LIST test_only)
      list(APPEND found ${t})
    endif()
  endforeach()
  get_property(subdirs DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
  foreach(sub IN LISTS subdirs)
    tessera_product_programs(below ${sub})
    list(APPEND found ${below})
  endforeach()
  set(${out} ${found} PARENT_SCOPE)
endfunction()

# tessera_write_layer_map()
# Called once at the end of the top-level CMakeLists: writes the list of
# test-only targets for the layering check, and asks CMake's file API for the
# code model (targets, their folders, links and include folders), which
# CMake writes at generation time.
function(tessera_write_layer_map)
  get_property(test_only GLOBAL PROPERTY TESSERA_TEST_ONLY_TARGETS)
  list(REMOVE_DUPLICATES test_only)
  list(JOIN test_only "\n" lines)
  file(WRITE "${CMAKE_BINARY_DIR}/tessera-test-only-targets.txt" "${lines}\n")
  file(WRITE "${CMAKE_BINARY_DIR}/.cmake/api/v1/query/client-tessera/codemodel-v2" "")
endfunction()

# tessera_list_e2e(<script> <out-var>)
# Lists the tests that a Python end-to-end script offers (`<script> --list`,
# one name per line) into <out-var>, so that ctest runs each on its own.
function(tessera_list_e2e script out)
  execute_process(
    COMMAND ${TESSERA_PYTHON3} ${script} --list
    OUTPUT_VARIABLE listed
    RESULT_VARIABLE status
    OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT status EQUAL 0 OR listed STREQUAL "")
    message(FATAL_ERROR "could not list the end-to-end tests of ${script} (${status})")
  endif()
  string(REPLACE "\n" ";" listed "${listed}")
  set(${out} ${listed} PARENT_SCOPE)
endfunction()
