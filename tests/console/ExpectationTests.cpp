#include "console/Expectation.h"

#include <gtest/gtest.h>

#include "bridge/BridgeMessages.h"

namespace brindle::console {
namespace {

ReceivedEnvelope received(const BridgeEnvelope& envelope) {
    return ReceivedEnvelope::from(encodedLine(envelope));
}

ReceivedEnvelope connected(const std::string& name) {
    return received(BridgeStateChangedEvent{.state = BridgeConnectedState{.accountDisplayName = name}});
}

ReceivedEnvelope disconnected() {
    return received(BridgeStateChangedEvent{.state = BridgeDisconnectedState{}});
}

ReceivedEnvelope error(const std::string& message) {
    return received(BridgeErrorEvent{.message = message});
}

Expectation expectation(std::string_view name, std::optional<std::string> containing = std::nullopt) {
    auto result = Expectation::forName(name);
    result.containing = std::move(containing);
    return result;
}

TEST(Expectation, MatchesByName) {
    EXPECT_TRUE(expectation("error").matches(error("x")));
    EXPECT_FALSE(expectation("hello").matches(error("x")));
}

TEST(Expectation, MatchesByInnerNameWhenItHasOne) {
    EXPECT_TRUE(expectation("stateChanged").matches(disconnected()));
    EXPECT_TRUE(expectation("stateChanged.disconnected").matches(disconnected()));
    EXPECT_FALSE(expectation("stateChanged.connected").matches(disconnected()));
}

TEST(Expectation, FindsPartsOfAnyText) {
    EXPECT_TRUE(expectation("stateChanged", "ccount A").matches(connected("Account A")));
    EXPECT_FALSE(expectation("stateChanged", "Account B").matches(connected("Account A")));
}

TEST(Expectation, LooksAtTextsAsTheyAreNotAsTheyAreWritten) {
    EXPECT_TRUE(expectation("error", "a/b\n\"c\"").matches(error("a/b\n\"c\"")));
}

TEST(Expectation, DoesNotLookAtNames) {
    EXPECT_FALSE(expectation("error", "message").matches(error("x")));
}

TEST(Expectation, NeverMatchesALineThatIsNoEnvelope) {
    const auto garbage = ReceivedEnvelope::from("{\"error\":");
    EXPECT_TRUE(garbage.name.empty());
    EXPECT_FALSE(expectation("error").matches(garbage));
}

TEST(Expectation, DescribesItself) {
    EXPECT_EQ(expectation("hello").description(), "hello");
    EXPECT_EQ(expectation("stateChanged.connected", "Ann").description(),
              "stateChanged.connected containing \"Ann\"");
}

TEST(ReceivedEnvelopes, AreConsumedUpToTheMatch) {
    ReceivedEnvelopes envelopes;
    envelopes.add(error("first"));
    envelopes.add(disconnected());
    envelopes.add(error("second"));
    EXPECT_TRUE(envelopes.consume(expectation("stateChanged")));
    EXPECT_FALSE(envelopes.consume(expectation("error", "first")));
    EXPECT_TRUE(envelopes.consume(expectation("error", "second")));
    EXPECT_FALSE(envelopes.consume(expectation("error")));
}

TEST(ReceivedEnvelopes, StayWhenNothingMatches) {
    ReceivedEnvelopes envelopes;
    envelopes.add(error("first"));
    EXPECT_FALSE(envelopes.consume(expectation("hello")));
    EXPECT_TRUE(envelopes.consume(expectation("error", "first")));
}

TEST(ReceivedEnvelopes, AreConsumedOneAtATime) {
    ReceivedEnvelopes envelopes;
    envelopes.add(error("same"));
    envelopes.add(error("same"));
    EXPECT_TRUE(envelopes.consume(expectation("error", "same")));
    EXPECT_TRUE(envelopes.consume(expectation("error", "same")));
    EXPECT_FALSE(envelopes.consume(expectation("error", "same")));
}

TEST(ReceivedEnvelopes, LoseTheOldestWhenThereAreTooMany) {
    ReceivedEnvelopes envelopes;
    envelopes.add(error("oldest"));
    envelopes.add(error("second"));
    for (std::size_t i = 1; i < ReceivedEnvelopes::kept_envelopes; ++i) envelopes.add({});
    EXPECT_FALSE(envelopes.consume(expectation("error", "oldest")));
    EXPECT_TRUE(envelopes.consume(expectation("error", "second")));
}

}  // namespace
}  // namespace brindle::console
