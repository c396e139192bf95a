# libFuzzer targets of the decoders (TAVRIN_BUILD_FUZZERS, clang only). Each
# tests/fuzz/<name>_fuzz.cpp becomes the executable fuzz_<name> and the ctest
# test fuzz.<name> (label "fuzz"), which fuzzes a scratch copy of
# tests/fuzz/corpus/<name>/ for $TAVRIN_FUZZ_SECONDS (default 60).
set(TAVRIN_FUZZ_DIR ${PROJECT_SOURCE_DIR}/tests/fuzz)
file(GLOB TAVRIN_FUZZ_FILES CONFIGURE_DEPENDS ${TAVRIN_FUZZ_DIR}/*_fuzz.cpp)
set(TAVRIN_FUZZ_TARGETS)
foreach(fuzz_file IN LISTS TAVRIN_FUZZ_FILES)
  get_filename_component(name ${fuzz_file} NAME_WE)
  string(REGEX REPLACE "_fuzz$" "" name ${name})
  add_executable(fuzz_${name} ${fuzz_file})
  target_compile_options(fuzz_${name} PRIVATE ${TAVRIN_WARNINGS})
  target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  target_include_directories(fuzz_${name} PRIVATE ${PROJECT_SOURCE_DIR})
  if(name STREQUAL "classify")
    target_link_libraries(fuzz_${name} PRIVATE tavrin_collector_core)
  else()
    target_link_libraries(fuzz_${name} PRIVATE tavrin nlohmann_json::nlohmann_json)
  endif()
  list(APPEND TAVRIN_FUZZ_TARGETS fuzz_${name})
  add_test(NAME fuzz.${name}
           COMMAND bash ${TAVRIN_FUZZ_DIR}/run_fuzzer.sh $<TARGET_FILE:fuzz_${name}> ${name}
                   ${TAVRIN_FUZZ_DIR} ${PROJECT_BINARY_DIR}/fuzz-runs)
  # libFuzzer's -max_total_time bounds the run; this only catches a runner that hangs.
  set_tests_properties(fuzz.${name} PROPERTIES LABELS fuzz TIMEOUT 7200)
endforeach()
add_custom_target(tavrin_fuzzers DEPENDS ${TAVRIN_FUZZ_TARGETS})
