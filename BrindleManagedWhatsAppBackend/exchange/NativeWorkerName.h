#pragma once

#include <string_view>

namespace brindle {

/// File name of the native protocol worker, a program that is not part of this system.
inline constexpr std::string_view native_worker_name = "BrindleManagedWhatsAppNativeWorker";

}  // namespace brindle
