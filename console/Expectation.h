#pragma once

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace brindle::console {

/// What is known of a line from the helper: the names of its cases and every text in it.
struct ReceivedEnvelope {
    /// "inboundEvent", "stateChanged" ...; empty for a line that is no envelope.
    std::string name;
    /// "connected" ... for stateChanged, else empty.
    std::string innerName;
    std::vector<std::string> texts;
    /// Of inboundEvent; else empty.
    std::string conversation;
    std::string conversationTitle;

    /// What `line` is; a line that is no envelope has no name and no texts.
    static ReceivedEnvelope from(std::string_view line);
};

/// An envelope that the helper is expected to send.
struct Expectation {
    std::string name;
    /// Empty: any.
    std::string innerName;
    /// A part of one of the envelope's texts.
    std::optional<std::string> containing;

    bool matches(const ReceivedEnvelope& envelope) const;
    /// "stateChanged.connected containing "Echo"".
    std::string description() const;
    /// The expectation named by "stateChanged" or "stateChanged.connected". Throws Failure for a name that no
    /// envelope has.
    static Expectation forName(std::string_view dottedName);
};

/// The helper's envelopes that no expectation has consumed yet, oldest first.
class ReceivedEnvelopes {
  public:
    /// How many are kept at most, so that a session can last for weeks; the oldest go first.
    static constexpr std::size_t kept_envelopes = 100000;

    void add(ReceivedEnvelope envelope);
    /// True when one of them matches; it and all before it are gone then.
    bool consume(const Expectation& expectation);

  private:
    std::deque<ReceivedEnvelope> waiting_;
};

}  // namespace brindle::console
