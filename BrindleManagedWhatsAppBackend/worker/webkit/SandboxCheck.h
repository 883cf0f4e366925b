#pragma once

namespace brindle {

/// Makes sure that the processes which run foreign code will be sandboxed. Throws Failure, saying what stands
/// in the way, when they cannot be.
void requireSandbox();

}  // namespace brindle
