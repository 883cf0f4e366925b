#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace brindle {

/// The words by which the worker publishes how it is doing.
namespace worker_state {

/// The page is being loaded or has not shown yet whether an account is linked.
inline constexpr std::string_view starting = "starting";
/// The page shows a code to scan.
inline constexpr std::string_view waiting_for_qr = "waiting_for_qr";
/// An account is linked.
inline constexpr std::string_view linked = "linked";
/// The watched chat is being opened.
inline constexpr std::string_view activating_chat = "activating_chat";
/// The watched chat is open and its messages are captured.
inline constexpr std::string_view watching_chat = "watching_chat";
/// Another chat is open than the watched one.
inline constexpr std::string_view wrong_chat = "wrong_chat";
/// No chat is open.
inline constexpr std::string_view no_active_chat = "no_active_chat";
/// A load, a script or a write failed.
inline constexpr std::string_view error = "error";
/// The worker ends because its backend is gone.
inline constexpr std::string_view stopped = "stopped";

}  // namespace worker_state

/// What the worker knows. Only its one thread touches it, but whatever a task read here before it waited may
/// have changed when it goes on.
struct WorkerState {
    /// Published: one of the words above, a sentence for people, the linked account's name.
    std::string workerState{worker_state::starting};
    std::string workerDetail = "Launching managed WhatsApp Web worker.";
    std::optional<std::string> displayName;
    bool isLinked = false;

    /// What the backend last asked for.
    bool hasReceivedControlSnapshot = false;
    std::optional<std::string> currentScopeKind;
    std::optional<std::string> currentWatchedTitle;
    std::optional<std::string> currentConversationID;

    /// The message that was last made a record, while the watched chat stays the same.
    std::optional<std::string> lastSeenMessageFingerprint;

    /// When the current page load was issued, and the reloads since then.
    std::chrono::system_clock::time_point pageLoadIssuedAt;
    int launchRecoveryAttemptCount = 0;
    std::optional<std::chrono::system_clock::time_point> lastRecoveryAttemptAt;
};

}  // namespace brindle
