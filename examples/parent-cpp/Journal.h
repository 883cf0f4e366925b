#pragma once

#include <set>
#include <string>

#include <nlohmann/json.hpp>

#include "Descriptor.h"

/// The messages that came in, one JSON document a line: this application's database.
///
/// The helper delivers a message twice rather than never, so what is here already is not taken again.
class Journal {
  public:
    /// Reads what is there. Throws std::runtime_error.
    explicit Journal(const std::string& path);

    /// Whether the message is new. It is on the disk when this returns. Throws std::runtime_error.
    bool add(const nlohmann::json& event);

  private:
    Descriptor file_;
    std::set<std::string> known_;
};
