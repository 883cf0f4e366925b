#pragma once

namespace brindle {

/// Leaves out of the environment what harms the engine or switches its sandbox off, and keeps it from asking
/// for desktop services that a hidden page does not need. Comes before anything else.
void prepareEngineEnvironment();

/// Connects to the display. Throws Failure, saying how to provide one, when there is none.
void requireDisplay();

}  // namespace brindle
