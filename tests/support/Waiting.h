#pragma once

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string_view>

namespace brindle::test {

/// How long a test waits for something that must happen before it fails; far more than the busiest machine
/// needs.
constexpr std::chrono::seconds must_happen_deadline{90};

/// Ends the running test with a message; GoogleTest reports it as a failure of that test.
class TestFailure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Polls `condition` until it holds; fails the test, naming `what`, when it never does.
void waitUntil(const std::function<bool()>& condition, std::string_view what,
               std::chrono::milliseconds timeout = must_happen_deadline);

}  // namespace brindle::test
