#pragma once

#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "bridge/BridgeMessages.h"
#include "console/Expectation.h"

namespace brindle::console {

struct ConnectCommand {};

struct DisconnectCommand {};

struct ListenCommand {
    BridgeScope scope;
};

struct StopCommand {};

struct SendCommand {
    std::string conversation;
    std::string text;
    std::optional<std::string> replyTo;
    /// Paths of the files to attach.
    std::vector<std::string> files;
};

struct StatusCommand {};

struct QRCommand {
    /// Show every code that follows, too, until a phone has scanned one.
    bool untilLinked = false;
    std::chrono::milliseconds patience{};
};

struct RawCommand {
    std::string line;
};

/// How envelopes are shown from now on: as protocol lines, or as people read them.
struct RawModeCommand {
    bool isOn = false;
};

/// Begins a recording in a file, or ends it.
struct RecordCommand {
    std::optional<std::string> file;
};

struct ReplayCommand {
    std::string file;
    /// Beyond what the recorded session took.
    std::chrono::milliseconds patience{};
};

struct WatchCommand {};

struct DoctorCommand {};

/// What is done with the inbound records of the data directory.
enum class InboxAction { list, show, restore };

struct InboxCommand {
    InboxAction action = InboxAction::list;
    /// Of the file; empty for list.
    std::string name;
};

struct HelpCommand {};

struct QuitCommand {};

struct ExpectCommand {
    Expectation expectation;
    std::chrono::milliseconds patience{};
};

struct WaitStatusCommand {
    std::string field;
    std::string value;
    std::chrono::milliseconds patience{};
};

/// What a person or a script can ask of the console.
using Command =
    std::variant<ConnectCommand, DisconnectCommand, ListenCommand, StopCommand, SendCommand, StatusCommand,
                 QRCommand, RawCommand, RawModeCommand, RecordCommand, ReplayCommand, InboxCommand,
                 DoctorCommand, WatchCommand, HelpCommand, QuitCommand, ExpectCommand, WaitStatusCommand>;

/// How long qr, expect, wait-status and replay wait unless told otherwise.
inline constexpr std::chrono::milliseconds default_patience{10000};

/// The command in a line, or nothing when it is blank or a comment. Throws Failure with one sentence for
/// anything that is no command.
std::optional<Command> parseCommand(std::string_view line);

/// A command as everybody is told of it: help, completion and the manual page come from this.
struct CommandDescription {
    std::string_view name;
    /// Another name for it; empty for none.
    std::string_view alias;
    /// Words in lower case stand for themselves, those in capitals for what somebody puts there; "|"
    /// separates alternatives, "[...]" may be left out, "..." may come again.
    std::string_view usage;
    /// One sentence.
    std::string_view meaning;
    /// More sentences for the manual page; may be empty.
    std::string_view details;
};

/// Every command, in the order of the help.
std::span<const CommandDescription> commandDescriptions();

/// Every command with its meaning, a line each.
std::string commandHelp();

}  // namespace brindle::console
