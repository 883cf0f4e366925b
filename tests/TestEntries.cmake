# Read by ctest when the tests are run.

# add_test_entries(<room> <driver> <filter> SUITES|TABLES|ROWS <property> <value>...): an entry, with these properties, for
# every test of the driver that passes the filter: ROWS each has its own, TABLES a table has one for its rows, SUITES a suite
# without tables has one for its tests, too.
function(add_test_entries room driver filter together)
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
    if(NOT together STREQUAL ROWS)
      string(REGEX REPLACE "^(.*/.*)/[^/]*$" "\\1/*" test ${test})
    endif()
    if(together STREQUAL SUITES AND NOT test MATCHES "/")
      set(test ${suite}*)
    endif()
    list(APPEND tests ${test})
  endforeach()
  list(REMOVE_DUPLICATES tests)
  # Skipped when nothing else happened: a failure is told behind what was skipped.
  set(only_skipped "\\[  PASSED  \\] 0 tests\\.\n(\\[  SKIPPED \\][^\n]*\n)+$")
  foreach(test IN LISTS tests)
    string(REGEX REPLACE "[/.]\\*$" "" name ${test})
    add_test(${room}/${name} ${driver} --gtest_filter=${test})
    set_tests_properties(${room}/${name} PROPERTIES ${ARGN} SKIP_REGULAR_EXPRESSION "${only_skipped}")
  endforeach()
endfunction()
