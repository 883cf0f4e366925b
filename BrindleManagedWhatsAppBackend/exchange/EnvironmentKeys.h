#pragma once

#include <string_view>

/// The environment variables by which the parent, the backend and the worker configure one another.
namespace brindle::environment_key {

inline constexpr std::string_view launch_token = "BRINDLE_HELPER_LAUNCH_TOKEN";
inline constexpr std::string_view launch_token_file = "BRINDLE_HELPER_LAUNCH_TOKEN_FILE";
inline constexpr std::string_view data_directory = "BRINDLE_MANAGED_BRIDGE_DATA_DIR";
inline constexpr std::string_view retention_days = "BRINDLE_MANAGED_BRIDGE_RETENTION_DAYS";
inline constexpr std::string_view platform = "BRINDLE_MANAGED_BRIDGE_PLATFORM";
inline constexpr std::string_view parent_process = "BRINDLE_MANAGED_BRIDGE_PARENT_PID";
inline constexpr std::string_view worker_role = "BRINDLE_MANAGED_BRIDGE_WORKER_ROLE";
inline constexpr std::string_view worker_implementation = "BRINDLE_MANAGED_BRIDGE_WORKER_IMPLEMENTATION";
inline constexpr std::string_view disable_worker = "BRINDLE_MANAGED_BRIDGE_DISABLE_WORKER";
inline constexpr std::string_view worker_path = "BRINDLE_MANAGED_BRIDGE_WORKER_PATH";
inline constexpr std::string_view enable_native_worker = "BRINDLE_MANAGED_BRIDGE_ENABLE_NATIVE_WORKER";
inline constexpr std::string_view disable_native_worker = "BRINDLE_MANAGED_BRIDGE_DISABLE_NATIVE_WORKER";
inline constexpr std::string_view native_worker_path = "BRINDLE_MANAGED_BRIDGE_NATIVE_WORKER_PATH";
inline constexpr std::string_view enable_builtin_worker = "BRINDLE_MANAGED_BRIDGE_ENABLE_BUILTIN_WORKER";
inline constexpr std::string_view worker_test_html_path = "BRINDLE_MANAGED_BRIDGE_WORKER_TEST_HTML_PATH";
inline constexpr std::string_view worker_test_url = "BRINDLE_MANAGED_BRIDGE_WORKER_TEST_URL";
inline constexpr std::string_view runtime_directory = "XDG_RUNTIME_DIR";
inline constexpr std::string_view temporary_directory = "TMPDIR";

/// The value of workerRole that selects the worker role.
inline constexpr std::string_view runtime_worker_role = "runtime-worker";
/// The value of workerImplementation for a native worker.
inline constexpr std::string_view native_worker_implementation = "protocol-native";

}  // namespace brindle::environment_key
