#pragma once

#include <string>

namespace brindle::test {

// The lines of the backend on standard output, byte for byte and without their line feed.

constexpr const char* hello_line =
    R"({"hello":{"_0":{"bridgeVersion":"managed-whatsapp-backend-3","platform":"whatsapp"}}})";
constexpr const char* disconnected_line = R"({"stateChanged":{"_0":{"state":{"disconnected":{}}}}})";
constexpr const char* connecting_line = R"({"stateChanged":{"_0":{"state":{"connecting":{}}}}})";
constexpr const char* connected_line =
    R"({"stateChanged":{"_0":{"state":{"connected":{"accountDisplayName":"Brindle Managed WhatsApp Backend"}}}}})";

/// The message of an `error` envelope. Fails the test unless the line is exactly such an envelope and the
/// message is text for people: not empty, without line breaks and without the decoder's detail text.
std::string errorMessageOf(const std::string& line);
/// The conversation title of the self-test event in a line; fails the test when it carries none.
std::string selfTestTitleOf(const std::string& line);

// What it writes to standard error, and other sentences of its own that tests look for.

constexpr const char* fatal_prefix = "[ManagedWhatsAppBackend] fatal: ";
constexpr const char* status_failure_prefix = "[ManagedWhatsAppBackend] failed to write runtime status: ";
constexpr const char* control_failure_prefix = "[ManagedWhatsAppBackend] failed to write worker control: ";
/// The detail of the worker where none was found.
constexpr const char* no_worker_detail =
    "No managed WhatsApp worker configured. Install the protocol worker dependencies or provide an explicit worker executable.";

/// The exit status after a fatal line (EX_SOFTWARE).
constexpr int software_failure = 70;

}  // namespace brindle::test
