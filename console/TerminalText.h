#pragma once

#include <string>
#include <string_view>

/// What helpers, workers and pages say, made fit for a terminal: nothing in it is obeyed.
///
/// Terminals obey the control characters C0 and C1 (ECMA-48); the marks, embeddings, overrides and isolates
/// that Unicode gives directions with (UAX #9) let a line show another order than it has.
namespace brindle::console {

/// One line of valid UTF-8 that shows "?" for each such character.
std::string terminalSafe(std::string_view text);

/// The same JSON document with such characters escaped ("\u009b").
std::string terminalSafeJson(std::string_view json);

}  // namespace brindle::console
