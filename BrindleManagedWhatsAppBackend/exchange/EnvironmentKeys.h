#pragma once

#include <string_view>

/// The environment variables by which the parent, the backend and the worker configure one another.
namespace brindle::environment_key {

inline constexpr std::string_view launchToken = "BRINDLE_HELPER_LAUNCH_TOKEN";
inline constexpr std::string_view launchTokenFile = "BRINDLE_HELPER_LAUNCH_TOKEN_FILE";
inline constexpr std::string_view dataDirectory = "BRINDLE_MANAGED_BRIDGE_DATA_DIR";
inline constexpr std::string_view platform = "BRINDLE_MANAGED_BRIDGE_PLATFORM";
inline constexpr std::string_view parentProcess = "BRINDLE_MANAGED_BRIDGE_PARENT_PID";
inline constexpr std::string_view workerRole = "BRINDLE_MANAGED_BRIDGE_WORKER_ROLE";
inline constexpr std::string_view workerImplementation = "BRINDLE_MANAGED_BRIDGE_WORKER_IMPLEMENTATION";
inline constexpr std::string_view disableWorker = "BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER";
inline constexpr std::string_view workerPath = "BRINDLE_MANAGED_BRIDGE_WORKER_PATH";
inline constexpr std::string_view enableNativeWorker = "BRINDLE_MANAGED_BRIDGE_ENABLE_NATIVE_WORKER";
inline constexpr std::string_view disableNativeWorker = "BRINDLE_MANAGED_BRIDGE_DISABLE_NATIVE_WORKER";
inline constexpr std::string_view nativeWorkerPath = "BRINDLE_MANAGED_BRIDGE_NATIVE_WORKER_PATH";
inline constexpr std::string_view enableBuiltinWorker = "BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER";
inline constexpr std::string_view workerTestHTMLPath = "BRINDLE_MANAGED_BRIDGE_WORKER_TEST_HTML_PATH";
inline constexpr std::string_view workerTestURL = "BRINDLE_MANAGED_BRIDGE_WORKER_TEST_URL";
inline constexpr std::string_view runtimeDirectory = "XDG_RUNTIME_DIR";
inline constexpr std::string_view temporaryDirectory = "TMPDIR";

/// The value of workerRole that selects the worker role.
inline constexpr std::string_view runtimeWorkerRole = "runtime-worker";

}  // namespace brindle::environment_key
