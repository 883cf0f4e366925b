# Read by ctest when the tests are run.

# add_test_entries(<room> <driver> <filter> WHOLE|ROW_BY_ROW <property> <value>...): an entry, with these properties, for
# every test of the driver that passes the filter. The rows of a table are one entry, or each one of its own.
function(add_test_entries room driver filter tables)
  execute_process(
    COMMAND ${driver} --gtest_list_tests --gtest_filter=${filter}
    OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
  # What a row holds is told behind its name, in any characters.
  string(REGEX REPLACE " +#[^\n]*" "" listing "${listing}")
  string(REGEX REPLACE "\n$" "" listing "${listing}")
  string(REPLACE "\n" ";" lines "${listing}")
  foreach(line IN LISTS lines)
    if(NOT line MATCHES "^  (.*)")
      set(suite ${line})
      continue()
    endif()
    set(test ${suite}${CMAKE_MATCH_1})
    if(tables STREQUAL WHOLE)
      string(REGEX REPLACE "^(.*/.*)/[^/]*$" "\\1/*" test ${test})
    endif()
    list(APPEND tests ${test})
  endforeach()
  list(REMOVE_DUPLICATES tests)
  # Skipped when nothing else happened: a failure is told behind what was skipped.
  set(only_skipped "\\[  PASSED  \\] 0 tests\\.\n(\\[  SKIPPED \\][^\n]*\n)+$")
  foreach(test IN LISTS tests)
    string(REGEX REPLACE "/\\*$" "" name ${test})
    add_test(${room}/${name} ${driver} --gtest_filter=${test})
    set_tests_properties(${room}/${name} PROPERTIES ${ARGN} SKIP_REGULAR_EXPRESSION "${only_skipped}")
  endforeach()
endfunction()
