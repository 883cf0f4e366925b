#pragma once

#include <string>
#include <string_view>

namespace brindle::console {

enum class Direction { toHelper, fromHelper };

/// A protocol line as people read it, on one line and without anything that a terminal would obey. A message
/// that came in reads "Bo Nilsson: Good morning!"; everything else begins with its direction and the name of
/// the envelope as expect takes it. Line feeds and tabs in texts are shown as send takes them: \n and \t.
std::string readableEnvelope(Direction direction, std::string_view line, bool inColor);

/// The protocol line itself behind its direction, with escapes for what a terminal would obey.
std::string rawEnvelope(Direction direction, std::string_view line, bool inColor);

}  // namespace brindle::console
