#pragma once

#include <string>

namespace brindle {

/// The system log: the systemd journal, or standard error where there is no journal.
class SystemLog {
  public:
    /// Subsystem and category become the fields SUBSYSTEM and CATEGORY of every entry.
    SystemLog(std::string subsystem, std::string category)
        : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

    /// Writes one entry at error level (syslog priority 3, RFC 5424).
    void error(const std::string& message) const;

  private:
    std::string subsystem_;
    std::string category_;
};

}  // namespace brindle
