#pragma once

#include <exception>
#include <stdexcept>
#include <string>

namespace brindle {

/// The one exception family of the system. `what()` is a description for people: a single sentence without
/// line breaks.
class Failure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// A sentence for people about any exception.
std::string descriptionOf(const std::exception& error);

}  // namespace brindle
