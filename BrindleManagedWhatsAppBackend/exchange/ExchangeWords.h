#pragma once

#include <algorithm>
#include <array>
#include <string_view>

#include "bridge/BridgeMessages.h"

/// The words that stand in the records of the data directory.
namespace brindle {

/// How the worker is doing: its own words in "worker-status.json", and in "runtime-status.json" either those
/// or, while no worker reports, the backend's.
namespace worker_state {

/// No worker is to be run.
inline constexpr std::string_view not_configured = "not_configured";
/// The configured worker is no program that can be run.
inline constexpr std::string_view misconfigured = "misconfigured";
/// The worker is being started or has not reported yet.
inline constexpr std::string_view launching = "launching";
/// The worker could not be started.
inline constexpr std::string_view launch_failed = "launch_failed";
/// The worker ended without having been asked to.
inline constexpr std::string_view exited = "exited";

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

/// The worker was asked to end, or ends because its backend is gone.
inline constexpr std::string_view stopped = "stopped";

/// What the backend says of a worker that does not speak for itself.
inline constexpr std::array backend_words{not_configured, misconfigured, launching, launch_failed, exited};
/// What a worker says of itself.
inline constexpr std::array worker_words{starting,   waiting_for_qr, linked, activating_chat, watching_chat,
                                         wrong_chat, no_active_chat, error,  stopped};
/// All of them.
inline constexpr auto every_word = [] {
    std::array<std::string_view, backend_words.size() + worker_words.size()> words;
    std::copy(worker_words.begin(), worker_words.end(),
              std::copy(backend_words.begin(), backend_words.end(), words.begin()));
    return words;
}();

/// Whether no worker runs in that state, nor ever will as long as the backend lives.
constexpr bool isFinal(std::string_view word) {
    return word == not_configured || word == misconfigured || word == launch_failed || word == exited ||
           word == stopped;
}

}  // namespace worker_state

/// Whether the parent is connected, by the words of the bridge.
namespace connection_word {

inline constexpr std::string_view connected = BridgeConnectionState::caseName<BridgeConnectedState>();
inline constexpr std::string_view disconnected = BridgeConnectionState::caseName<BridgeDisconnectedState>();
inline constexpr std::array all{connected, disconnected};

}  // namespace connection_word

/// The kinds of what can be listened to, by the words of the bridge.
namespace scope_kind {

inline constexpr std::string_view conversation = BridgeScope::caseName<BridgeConversationScope>();
inline constexpr std::string_view channel = BridgeScope::caseName<BridgeChannelScope>();
inline constexpr std::string_view thread = BridgeScope::caseName<BridgeThreadScope>();
inline constexpr std::string_view test_only = BridgeScope::caseName<BridgeTestOnlyScope>();

/// Whether such a scope is a chat that a worker can watch. The backend answers a self-test by itself, and a
/// later version may know more kinds.
constexpr bool isChat(std::string_view kind) {
    return kind == conversation || kind == channel || kind == thread;
}

}  // namespace scope_kind
}  // namespace brindle
