# Wires the collector's tests (globbed into executables by tests/CMakeLists.txt)
# to its code and binary, and registers the browser test of the debug view.
foreach(test_target collector_shape_check_test collector_server_test collector_hardening_test)
  if(TARGET ${test_target})
    target_link_libraries(${test_target} PRIVATE tavrin_collector_core)
  endif()
endforeach()

foreach(test_target collector_server_test collector_hardening_test)
  if(TARGET tavrin-collector AND TARGET ${test_target})
    target_compile_definitions(${test_target} PRIVATE TAVRIN_COLLECTOR_BIN="$<TARGET_FILE:tavrin-collector>")
    add_dependencies(${test_target} tavrin-collector)
  endif()
endforeach()

if(TARGET tavrin-collector AND TAVRIN_BUILD_EXAMPLES)
  # Debian's python3-selenium lives with the system interpreter, not a user's.
  find_program(TAVRIN_SYSTEM_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH)
  if(NOT TAVRIN_SYSTEM_PYTHON)
    find_program(TAVRIN_SYSTEM_PYTHON python3)
  endif()
  if(TAVRIN_SYSTEM_PYTHON)
    add_test(NAME collector.browser
             COMMAND ${TAVRIN_SYSTEM_PYTHON} ${CMAKE_CURRENT_LIST_DIR}/browser_test.py
                     --collector $<TARGET_FILE:tavrin-collector>
                     --example $<TARGET_FILE:tavrin-shop-example>
                     --screenshot ${PROJECT_BINARY_DIR}/collector-ui.png)
    set_tests_properties(collector.browser PROPERTIES LABELS browser SKIP_RETURN_CODE 77 TIMEOUT 240)
  endif()
endif()
