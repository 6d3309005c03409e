# Build conventions shared by every component: warnings, sanitizers, and the
# helpers that declare unit tests and fuzz targets.

# Every target of the project links this to get the warning set.
add_library(tessera_warnings INTERFACE)
target_compile_options(tessera_warnings INTERFACE
  -Wall -Wextra -Wshadow -Wformat=2 -Wundef
  $<$<BOOL:${TESSERA_WERROR}>:-Werror>)

if(TESSERA_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  add_compile_definitions(TESSERA_SANITIZE=1)
endif()

if(TESSERA_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "TESSERA_FUZZ needs clang (configure with the asan preset)")
  endif()
  # Coverage feedback must come from the libraries a fuzz target drives, not
  # only from the target's own file, so every object of this build carries it.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# Seconds each fuzz target runs inside ctest; long campaigns use `make fuzz-long`.
set(TESSERA_FUZZ_SECONDS 15 CACHE STRING "Length of the short fuzz runs in ctest")

# tessera_add_gtest(<name> SOURCES <files...> [LIBS <targets...>] [LABELS <labels...>])
# Builds a GoogleTest program and lets ctest discover each test case in it.
function(tessera_add_gtest name)
  if(NOT TESSERA_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} GTest::gtest GTest::gtest_main tessera_warnings)
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    TEST_LIST ${name}_TESTS)
  # Labels are applied after discovery: a list given through
  # gtest_discover_tests(PROPERTIES) loses all but its first element.
  set(labels_file "${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake")
  file(WRITE "${labels_file}"
    "if(${name}_TESTS)\n"
    "  set_tests_properties(\${${name}_TESTS} PROPERTIES LABELS \"unit;${ARG_LABELS}\")\n"
    "endif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${labels_file}")
endfunction()

# tessera_add_fuzzer(<name> SOURCES <files...> [LIBS <targets...>] [CORPUS <dir>])
# Builds a libFuzzer target (only with TESSERA_FUZZ) and registers a short run.
function(tessera_add_fuzzer name)
  if(NOT TESSERA_FUZZ)
    return()
  endif()
  cmake_parse_arguments(ARG "" "CORPUS" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  target_link_libraries(${name} PRIVATE ${ARG_LIBS} tessera_warnings)
  set(work "${CMAKE_CURRENT_BINARY_DIR}/${name}-corpus")
  set(seeds "")
  if(ARG_CORPUS)
    set(seeds "${ARG_CORPUS}")
  endif()
  add_test(NAME fuzz.${name}
    COMMAND ${CMAKE_COMMAND} -E env
            ${CMAKE_SOURCE_DIR}/scripts/run-fuzzer.sh $<TARGET_FILE:${name}>
            ${TESSERA_FUZZ_SECONDS} ${work} ${seeds})
  set_tests_properties(fuzz.${name} PROPERTIES LABELS "fuzz" TIMEOUT 300)
endfunction()
