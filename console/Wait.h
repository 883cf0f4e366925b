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
        /// Why it can never come true, as part of a sentence; empty while it still can. May be missing.
        std::function<std::string()> obstacle;
        /// Not told by an envelope, so it has to be looked at again and again.
        bool needsPolling = false;
    };

    /// The time begins now.
    Wait(Condition condition, std::chrono::milliseconds patience);

    bool isFulfilled() const { return condition_.isFulfilled(); }
    bool isOver() const;
    /// Why it can never come true; empty while it still can.
    std::string obstacle() const { return condition_.obstacle ? condition_.obstacle() : std::string(); }
    const std::string& subject() const { return condition_.subject; }
    /// For poll(): when to look again at the latest, in milliseconds.
    int pollTimeout() const;
    /// The sentence for a wait that is over in vain.
    std::string failure() const;
    /// The sentence for a wait that is given up because of that obstacle.
    std::string failure(const std::string& obstacle) const;
    /// What a person is told who sees nothing happen.
    std::string announcement() const;

  private:
    Condition condition_;
    std::chrono::milliseconds patience_;
    std::chrono::steady_clock::time_point deadline_;
};

}  // namespace brindle::console
