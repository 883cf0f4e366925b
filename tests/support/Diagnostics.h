#pragma once

namespace brindle::test {

// What the backend writes to standard error, and other sentences of its own that tests look for.

constexpr const char* fatal_prefix = "[ManagedWhatsAppBackend] fatal: ";
constexpr const char* status_failure_prefix = "[ManagedWhatsAppBackend] failed to write runtime status: ";
constexpr const char* control_failure_prefix = "[ManagedWhatsAppBackend] failed to write worker control: ";
/// The detail of the worker where none was found.
constexpr const char* no_worker_detail =
    "No managed WhatsApp worker configured. Install the protocol worker dependencies or provide an explicit worker executable.";

/// The exit status after a fatal line (EX_SOFTWARE).
constexpr int software_failure = 70;

}  // namespace brindle::test
