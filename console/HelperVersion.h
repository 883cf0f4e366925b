#pragma once

#include <string>

#include "console/Options.h"
#include "system/Environment.h"
#include "system/Processes.h"

namespace brindle::console {

/// The protocol version that the helper of the options announces. It is started for that, without a worker
/// and on data of its own, and ended again. Throws Failure when it announces none, or one of the signals
/// comes.
std::string helperVersion(const Options& options, const Environment& inherited,
                          const TerminationSignals& signals);

}  // namespace brindle::console
