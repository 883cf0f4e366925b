#pragma once

namespace brindle {

/// Connects to the display. Throws Failure, saying how to provide one, when there is none.
void requireDisplay();

/// Makes sure that the processes which run foreign code will be sandboxed. Throws Failure, saying what stands
/// in the way, when they cannot be.
void requireSandbox();

}  // namespace brindle
