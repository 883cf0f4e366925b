#pragma once

#include <chrono>

#include "console/Display.h"
#include "console/HelperProcess.h"

namespace brindle::console {

/// How long the helper may take to end once its input has ended, and once it was asked to.
inline constexpr std::chrono::milliseconds end_of_input_grace{10000};
inline constexpr std::chrono::milliseconds termination_grace{2000};

/// Makes the helper end: by the end of its input, else by SIGTERM, else by killing it together with what it
/// started. What it still says is shown. False when it did not end by itself, which is reported.
bool endHelper(HelperProcess& helper, Display& display);

}  // namespace brindle::console
