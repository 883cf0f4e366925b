# Composes the page scripts and writes the header that embeds them:
#   cmake -DSOURCE_DIRECTORY=<scripts> -DHEADER=<file> -P ComposePageScripts.cmake
# Each script becomes one expression, a function that is called where it stands, so that an evaluation yields its
# result and leaves no name behind in the page. boundedAnswer.js stands around it.

set(placeholder "__WATCHED_TITLE__")
# Closes a raw string literal only together with a parenthesis and a quote.
set(delimiter "script")

# Lines that hold nothing but a comment are for the people who read the sources, not for the page.
function(read_script name result)
  file(READ "${SOURCE_DIRECTORY}/${name}" text)
  string(REGEX REPLACE "\n[ \t]*//[^\n]*" "" text "\n${text}")
  string(REGEX REPLACE "\n[\n]+" "\n" text "${text}")
  string(REGEX REPLACE "^\n" "" text "${text}")
  set(${result} "${text}" PARENT_SCOPE)
endfunction()

function(check_placeholder name text expected)
  string(REGEX MATCHALL "${placeholder}" occurrences "${text}")
  list(LENGTH occurrences count)
  if(NOT count EQUAL expected)
    message(FATAL_ERROR "${name} must hold ${placeholder} ${expected} time(s), it holds it ${count} time(s).")
  endif()
endfunction()

# compose(<constant> <occurrences of the placeholder> <file>...)
function(compose constant placeholders)
  set(body "")
  foreach(file IN LISTS ARGN)
    read_script(${file} text)
    string(APPEND body "${text}")
  endforeach()
  check_placeholder("The script ${constant}" "${body}" ${placeholders})
  string(FIND "${body}" ")${delimiter}\"" end)
  if(NOT end EQUAL -1)
    message(FATAL_ERROR "The script ${constant} holds the end of a raw string literal.")
  endif()
  set(script "(() => {\n\"use strict\";\n${bounds}return runBounded(() => {\n${body}});\n})()")
  string(APPEND header "\ninline constexpr std::string_view ${constant} = R\"${delimiter}(${script})${delimiter}\";\n")
  set(header "${header}" PARENT_SCOPE)
endfunction()

read_script(boundedAnswer.js bounds)

set(header "// Composed at build time from the page scripts.
#pragma once

#include <string_view>

namespace brindle::page_script {

/// Stands for the watched title, as a JSON string literal, in the scripts that need one.
inline constexpr std::string_view watched_title_placeholder = \"${placeholder}\";
")
compose(link_state 0 linkState.js)
compose(qr_code 0 qrCode.js)
compose(chat_activation 1 shared.js chatActivation.js)
compose(inbound_capture 1 shared.js messageReading.js readingMemory.js inboundCapture.js)
string(APPEND header "\n}  // namespace brindle::page_script\n")
file(WRITE "${HEADER}" "${header}")
