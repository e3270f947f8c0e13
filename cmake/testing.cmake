# nv_gtest(<name> SOURCES <files...> [LIBS <libs...>] [LOCK <resources...>] [TIMEOUT <s>])
#
# A GoogleTest executable and its ctest entry. Windows builds run it under Wine in the
# prefix that the wine_prefix fixture prepares; LOCK serialises tests that share named
# objects or the service control manager.
function(nv_gtest name)
  cmake_parse_arguments(T "" "TIMEOUT" "SOURCES;LIBS;LOCK" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  if(WIN32)
    target_link_libraries(${name} PRIVATE nv_windows nv_test_main gmock ${T_LIBS})
  else()
    target_link_libraries(${name} PRIVATE nv_portable nv_test_main gmock ${T_LIBS})
  endif()
  nv_warnings(${name})
  add_test(NAME ${name} COMMAND ${name})
  nv_test_properties(${name} LOCK "${T_LOCK}" TIMEOUT "${T_TIMEOUT}")
  if(T_TIMEOUT)
    # The watchdog of each case ends a hung one while ctest still takes its output.
    math(EXPR case_seconds "${T_TIMEOUT} * 3 / 4")
    set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT "NV_TEST_CASE_SECONDS=${case_seconds}")
  endif()
endfunction()

# nv_script_test(<name> <script> [ARGS <args...>] [LOCK <resources...>] [TIMEOUT <s>]): a shell
# test that drives the Windows binaries.
function(nv_script_test name script)
  cmake_parse_arguments(T "" "TIMEOUT" "ARGS;LOCK" ${ARGN})
  add_test(NAME ${name} COMMAND bash ${PROJECT_SOURCE_DIR}/tests/wine/script.sh ${script} ${T_ARGS})
  nv_test_properties(${name} LOCK "${T_LOCK}" TIMEOUT "${T_TIMEOUT}")
  if(T_TIMEOUT)
    # The runner names the commands a hung script waits in while ctest still takes its output.
    math(EXPR script_seconds "${T_TIMEOUT} * 3 / 4")
    set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT "NV_SCRIPT_SECONDS=${script_seconds}")
  endif()
endfunction()

function(nv_test_properties name)
  cmake_parse_arguments(T "" "TIMEOUT" "LOCK" ${ARGN})
  if(WIN32)
    set_tests_properties(${name} PROPERTIES
      FIXTURES_REQUIRED wine_prefix
      ENVIRONMENT "${NV_WINE_ENV}")
  endif()
  if(T_LOCK)
    set_tests_properties(${name} PROPERTIES RESOURCE_LOCK "${T_LOCK}")
  endif()
  if(T_TIMEOUT)
    set_tests_properties(${name} PROPERTIES TIMEOUT ${T_TIMEOUT})
  endif()
endfunction()
