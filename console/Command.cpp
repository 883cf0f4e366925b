#include "console/Command.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "console/CommandWords.h"
#include "exchange/ExchangeRecords.h"
#include "exchange/ExchangeWords.h"
#include "text/Failure.h"
#include "text/Text.h"

namespace brindle::console {
namespace {

constexpr double longest_patience_seconds = 86400;

/// The words after a command's name, taken one by one.
class Arguments {
  public:
    Arguments(std::vector<std::string> words, std::string_view usage)
        : words_(std::move(words)), usage_(usage) {}

    bool isEmpty() const { return next_ == words_.size(); }
    std::string take() {
        if (isEmpty()) fail();
        return std::move(words_[next_++]);
    }
    /// Takes the next word when it is `word`.
    bool skip(std::string_view word) {
        if (isEmpty() || words_[next_] != word) return false;
        ++next_;
        return true;
    }
    void requireEnd() const {
        if (!isEmpty()) fail();
    }
    [[noreturn]] void fail() const { throw Failure("Usage: " + std::string(usage_)); }

  private:
    std::vector<std::string> words_;
    std::string_view usage_;
    std::size_t next_ = 0;
};

template <class Plain>
Command parsePlain(Arguments& arguments) {
    arguments.requireEnd();
    return Plain{};
}

Command parseListen(Arguments& arguments) {
    const auto kind = arguments.take();
    ListenCommand command;
    if (kind == scope_kind::conversation) {
        command.scope = BridgeConversationScope{.id = arguments.take(), .title = arguments.take()};
    } else if (kind == scope_kind::channel) {
        command.scope = BridgeChannelScope{.id = arguments.take(), .title = arguments.take()};
    } else if (kind == scope_kind::thread) {
        BridgeThreadScope thread{.id = arguments.take(), .title = std::nullopt};
        if (!arguments.isEmpty()) thread.title = arguments.take();
        command.scope = std::move(thread);
    } else if (kind == "test") {
        command.scope = BridgeTestOnlyScope{.title = arguments.take()};
    } else {
        arguments.fail();
    }
    arguments.requireEnd();
    return command;
}

Command parseSend(Arguments& arguments) {
    SendCommand command;
    std::vector<std::string> texts;
    bool optionsEnded = false;
    while (!arguments.isEmpty()) {
        if (!optionsEnded && arguments.skip("--")) {
            optionsEnded = true;
        } else if (!optionsEnded && arguments.skip("--reply")) {
            command.replyTo = arguments.take();
        } else if (!optionsEnded && arguments.skip("--attach")) {
            command.files.push_back(arguments.take());
        } else {
            texts.push_back(arguments.take());
            if (!optionsEnded && texts.back().starts_with("--")) arguments.fail();
        }
    }
    if (texts.size() > 2) throw Failure("The text to send is one word; put it in quotes.");
    if (texts.size() < 2) arguments.fail();
    command.conversation = std::move(texts[0]);
    command.text = std::move(texts[1]);
    return command;
}

std::chrono::milliseconds parseSeconds(const std::string& text) {
    double seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    if (!isNumber || !(seconds > 0) || seconds > longest_patience_seconds) {
        throw Failure("\"" + singleLine(text) + "\" is not a number of seconds between 0 and 86400.");
    }
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

Command parseQR(Arguments& arguments) {
    QRCommand command{.patience = default_patience};
    while (!arguments.isEmpty()) {
        if (arguments.skip("within")) {
            command.patience = parseSeconds(arguments.take());
        } else if (arguments.skip("until") && arguments.skip("linked")) {
            command.untilLinked = true;
        } else {
            arguments.fail();
        }
    }
    return command;
}

Command parseExpect(Arguments& arguments) {
    ExpectCommand command{.expectation = Expectation::forName(arguments.take()),
                          .patience = default_patience};
    while (!arguments.isEmpty()) {
        if (arguments.skip("containing")) {
            command.expectation.containing = arguments.take();
        } else if (arguments.skip("within")) {
            command.patience = parseSeconds(arguments.take());
        } else {
            arguments.fail();
        }
    }
    return command;
}

Command parseWaitStatus(Arguments& arguments) {
    WaitStatusCommand command{
        .field = arguments.take(), .value = arguments.take(), .patience = default_patience};
    const auto fields = record::fieldNames<ManagedWhatsAppRuntimeStatusRecord>();
    if (std::find(fields.begin(), fields.end(), command.field) == fields.end()) {
        throw Failure("The runtime status has no field \"" + singleLine(command.field) +
                      "\"; \"status\" shows its fields.");
    }
    if (arguments.skip("within")) command.patience = parseSeconds(arguments.take());
    arguments.requireEnd();
    return command;
}

/// The words of the line after the name of the command.
using CommandParser = Command (*)(Arguments&);

Command parseRawMode(Arguments& arguments) {
    const bool isOn = arguments.skip("on");
    if (!isOn && !arguments.skip("off")) arguments.fail();
    arguments.requireEnd();
    return RawModeCommand{.isOn = isOn};
}

Command parseInbox(Arguments& arguments) {
    InboxCommand command;
    if (arguments.isEmpty()) return command;
    if (arguments.skip("show")) {
        command.action = InboxAction::show;
    } else if (arguments.skip("restore")) {
        command.action = InboxAction::restore;
    } else {
        arguments.fail();
    }
    command.name = arguments.take();
    arguments.requireEnd();
    return command;
}

Command parseRecord(Arguments& arguments) {
    RecordCommand command;
    if (!arguments.skip("off")) command.file = arguments.take();
    arguments.requireEnd();
    return command;
}

Command parseReplay(Arguments& arguments) {
    ReplayCommand command{.file = arguments.take(), .patience = default_patience};
    if (arguments.skip("within")) command.patience = parseSeconds(arguments.take());
    arguments.requireEnd();
    return command;
}

struct Syntax {
    CommandDescription description;
    CommandParser parse;
};

constexpr std::array syntaxes{
    Syntax{{"connect", "", "connect", "Ask the helper to connect.", ""}, parsePlain<ConnectCommand>},
    Syntax{{"disconnect", "", "disconnect", "Ask the helper to disconnect.", ""},
           parsePlain<DisconnectCommand>},
    Syntax{{"listen", "", "listen conversation|channel ID TITLE | thread ID [TITLE] | test TITLE",
            "Listen to a chat, or let the helper send a test event.", ""},
           parseListen},
    Syntax{{"stop", "", "stop", "Stop listening.", ""}, parsePlain<StopCommand>},
    Syntax{
        {"send", "", "send CONVERSATION TEXT [--reply ID] [--attach FILE]...",
         "Send a message; text with spaces goes in quotes.",
         "Kind and MIME type of an attachment follow from the content of the file. A text that begins with "
         "-- comes after a word of just --. When the worker says that it does not send, so does the console: "
         "the message is stored and waits."},
        parseSend},
    Syntax{{"status", "", "status", "Show the helper's runtime-status.json.", ""}, parsePlain<StatusCommand>},
    Syntax{{"qr", "", "qr [until linked] [within SECONDS]",
            "Show the login QR code, or every new one until a phone has scanned it (10 s).",
            "Waits for a code, and says at once when none can come because no worker runs. Black on white in "
            "colours; without colours the light modules are drawn, which is right on a dark ground."},
           parseQR},
    Syntax{{"raw", "", "raw on|off|LINE",
            "Show protocol lines from now on, or messages again; send the rest of the line as it is.", ""},
           parseRawMode},
    Syntax{
        {"expect", "", "expect CASE[.STATE] [containing TEXT] [within SECONDS]",
         "Wait for an envelope from the helper (10 s).",
         "It and all envelopes before it are consumed; a later expect looks only at what comes after. TEXT "
         "is a part of any text in the envelope."},
        parseExpect},
    Syntax{{"wait-status", "", "wait-status FIELD VALUE [within SECONDS]",
            "Wait until a field of the runtime status has a value (10 s).",
            "Says at once when the value cannot come because the worker has ended for good."},
           parseWaitStatus},
    Syntax{{"record", "", "record off|FILE",
            "Record what is exchanged from now on, with times, in a new file; or end that.",
            "The file is this user's alone and never holds the launch token, but all texts and attachments."},
           parseRecord},
    Syntax{
        {"replay", "", "replay FILE [within SECONDS]",
         "Send the requests of a recording again, and show how the answers differ.",
         "Each request is sent once as many answers have come as had come then. Times and identifiers that are new "
         "each time do not count. A difference ends a script."},
        parseReplay},
    Syntax{
        {"inbox", "", "inbox [show NAME | restore NAME]",
         "List the inbound records that wait, were processed or were rejected, with the reason; show one, or put a "
         "rejected one back.",
         "The reason is found by decoding the record again. A record is put back without replacing another one, "
         "and only once it can be decoded."},
        parseInbox},
    Syntax{{"doctor", "", "doctor", "Examine the installation and the data directory.",
            "Each finding says what it is, what it means and what to do. A problem ends a script."},
           parsePlain<DoctorCommand>},
    Syntax{{"watch", "", "watch", "Show a live view of helper, worker and records, until q is pressed.",
            "Needs a terminal. What comes meanwhile is shown afterwards."},
           parsePlain<WatchCommand>},
    Syntax{{"help", "?", "help", "Show this list.", ""}, parsePlain<HelpCommand>},
    Syntax{{"quit", "exit", "quit", "End the helper and the console.", ""}, parsePlain<QuitCommand>},
};

std::string rawRemainder(std::string_view line) {
    constexpr std::string_view name = "raw";
    const auto rest = line.substr(line.find(name) + name.size());
    return std::string(rest.substr(rest.empty() ? 0 : 1));
}

}  // namespace

std::optional<Command> parseCommand(std::string_view line) {
    const auto text = trimmed(line);
    if (text.empty() || text.starts_with('#')) return std::nullopt;
    const bool isMode = text == "raw on" || text == "raw off";
    if (!isMode && (text == "raw" || text.starts_with("raw ") || text.starts_with("raw\t"))) {
        return RawCommand{.line = rawRemainder(line)};
    }
    auto words = splitWords(text);
    const auto name = words.front();
    const auto found = std::find_if(syntaxes.begin(), syntaxes.end(), [&](const Syntax& each) {
        const auto& [ownName, alias, usage, meaning, details] = each.description;
        return ownName == name || (!alias.empty() && alias == name);
    });
    if (found == syntaxes.end()) {
        throw Failure("Unknown command \"" + singleLine(name) + "\"; \"help\" lists the commands.");
    }
    words.erase(words.begin());
    Arguments arguments(std::move(words), found->description.usage);
    return found->parse(arguments);
}

std::span<const CommandDescription> commandDescriptions() {
    static constexpr auto descriptions = [] {
        std::array<CommandDescription, syntaxes.size()> all;
        std::transform(syntaxes.begin(), syntaxes.end(), all.begin(),
                       [](const Syntax& each) { return each.description; });
        return all;
    }();
    return descriptions;
}

std::string commandHelp() {
    std::string help;
    for (const auto& each : commandDescriptions()) {
        help.append(each.usage);
        if (!each.alias.empty()) help.append(" (or ").append(each.alias).append(")");
        help.append("\n    ").append(each.meaning).append("\n");
    }
    return help;
}

}  // namespace brindle::console
