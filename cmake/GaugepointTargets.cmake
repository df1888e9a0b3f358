# Shared target conventions: warnings, sanitizers, one library per module.

add_library(gaugepoint_build_flags INTERFACE)
if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  target_compile_options(gaugepoint_build_flags INTERFACE -Wall -Wextra -Wpedantic)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # GCC 12 reports std::string concatenation at -O2/-O3 as overlapping memcpy (GCC bug 105651).
    target_compile_options(gaugepoint_build_flags INTERFACE -Wno-restrict)
  endif()
  if(GAUGEPOINT_WERROR)
    target_compile_options(gaugepoint_build_flags INTERFACE -Werror)
  endif()
endif()

if(GAUGEPOINT_SANITIZE)
  set(_san -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_compile_options(${_san})
  add_link_options(${_san})
endif()

if(GAUGEPOINT_TSAN)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()

if(GAUGEPOINT_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "GAUGEPOINT_FUZZ needs clang (libFuzzer)")
  endif()
  # Coverage instrumentation for every object, so the fuzz targets see into the libraries.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# gaugepoint_library(<name> SOURCES ... [DEPENDS ...])
# Defines gaugepoint_<name> with alias gaugepoint::<name>; headers are included as
# <gaugepoint/<module>/Header.hpp> from src/.
function(gaugepoint_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS;PRIVATE_DEPENDS" ${ARGN})
  add_library(gaugepoint_${name} STATIC ${ARG_SOURCES})
  add_library(gaugepoint::${name} ALIAS gaugepoint_${name})
  target_include_directories(gaugepoint_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_BINARY_DIR}/generated)
  target_link_libraries(gaugepoint_${name} PUBLIC ${ARG_DEPENDS} PRIVATE gaugepoint_build_flags ${ARG_PRIVATE_DEPENDS})
endfunction()

# gaugepoint_test(<name> SOURCES ... DEPENDS ...): one GoogleTest executable, registered with CTest.
function(gaugepoint_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPENDS} GTest::gtest GTest::gmock GTest::gtest_main gaugepoint_build_flags)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support)
  target_compile_definitions(${name} PRIVATE GAUGEPOINT_TEST_DATA_DIR="${PROJECT_SOURCE_DIR}/tests/data")
  include(GoogleTest)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
    PROPERTIES ENVIRONMENT
      "TZ=UTC;LC_ALL=C.UTF-8;GAUGEPOINT_APP_GROUP_DIR=${PROJECT_BINARY_DIR}/test-home/group;XDG_CONFIG_HOME=${PROJECT_BINARY_DIR}/test-home/config;XDG_DATA_HOME=${PROJECT_BINARY_DIR}/test-home/data")
endfunction()

# gaugepoint_bench(<name> SOURCES ... DEPENDS ...): one Google Benchmark program.
function(gaugepoint_bench name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPENDS} benchmark::benchmark gaugepoint_build_flags)
  target_compile_definitions(${name} PRIVATE GAUGEPOINT_TEST_DATA_DIR="${PROJECT_SOURCE_DIR}/tests/data")
endfunction()

# gaugepoint_fuzz(<name> SOURCES ... DEPENDS ... CORPUS <dir>): one libFuzzer target; the seed
# corpus directory is recorded for scripts/run-fuzzers. Without GAUGEPOINT_FUZZ (any compiler)
# the same entry point is built with a small main that replays the seed corpus, registered as a
# test, so every build runs the seeds.
function(gaugepoint_fuzz name)
  cmake_parse_arguments(ARG "" "CORPUS" "SOURCES;DEPENDS" ${ARGN})
  if(GAUGEPOINT_FUZZ)
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE ${ARG_DEPENDS} gaugepoint_build_flags)
    target_link_options(${name} PRIVATE -fsanitize=fuzzer)
    set_property(GLOBAL APPEND PROPERTY GAUGEPOINT_FUZZ_TARGETS "$<TARGET_FILE:${name}>|${ARG_CORPUS}")
  elseif(GAUGEPOINT_TESTS)
    add_executable(${name}_replay ${ARG_SOURCES} ${PROJECT_SOURCE_DIR}/fuzz/ReplayCorpus.cpp)
    target_link_libraries(${name}_replay PRIVATE ${ARG_DEPENDS} gaugepoint_build_flags)
    add_test(NAME FuzzSeeds.${name} COMMAND ${name}_replay ${ARG_CORPUS})
  endif()
endfunction()
