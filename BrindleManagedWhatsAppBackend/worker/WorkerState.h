#pragma once

#include <optional>
#include <string>

#include "exchange/ExchangeWords.h"

namespace brindle {

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
};

}  // namespace brindle
