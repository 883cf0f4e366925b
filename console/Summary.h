#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace brindle::console {

/// What a session did, step by step, and how long each step took.
class Summary {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// A step begins; done() or failed() ends it.
    void begin(std::string_view step, TimePoint now);
    void done(TimePoint now);
    void failed(TimePoint now);
    void countInboundEvent() { ++inboundEvents_; }

    /// A heading, then a line for each step that has ended.
    std::string text() const;

  private:
    struct Step {
        std::string name;
        std::chrono::steady_clock::duration duration{};
        bool hasFailed = false;
    };

    void end(TimePoint now, bool hasFailed);

    std::string name_;
    TimePoint begin_;
    std::vector<Step> steps_;
    std::size_t inboundEvents_ = 0;
};

}  // namespace brindle::console
