#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace brindle::console {

/// Something that must come true within a time, before the next command runs.
class Wait {
  public:
    /// How often a condition that no envelope tells of is looked at.
    static constexpr std::chrono::milliseconds status_interval{50};

    struct Condition {
        /// May throw Failure when it can never come true.
        std::function<bool()> isFulfilled;
        /// What is being waited for; for messages.
        std::string subject;
        /// What is there instead, to follow the sentence of the failure; may be missing.
        std::function<std::string()> remark;
        /// Not told by an envelope, so it has to be looked at again and again.
        bool needsPolling = false;
    };

    /// The time begins now.
    Wait(Condition condition, std::chrono::milliseconds patience);

    bool isFulfilled() const { return condition_.isFulfilled(); }
    bool isOver() const;
    const std::string& subject() const { return condition_.subject; }
    /// For poll(): when to look again at the latest, in milliseconds.
    int pollTimeout() const;
    /// The sentence for a wait that is over in vain.
    std::string failure() const;

  private:
    Condition condition_;
    std::chrono::milliseconds patience_;
    std::chrono::steady_clock::time_point deadline_;
};

}  // namespace brindle::console
