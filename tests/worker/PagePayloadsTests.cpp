#include "worker/PagePayloads.h"

#include <gtest/gtest.h>

#include "records/DecodingFailure.h"

namespace brindle {
namespace {

TEST(PagePayloadsTests, LinkedStateNeedsItsFlag) {
    EXPECT_THROW(decodedRecord<ManagedWhatsAppLinkedStatePayload>(R"({"account":"A"})"), DecodingFailure);
    EXPECT_THROW(decodedRecord<ManagedWhatsAppLinkedStatePayload>(R"({"linked":1})"), DecodingFailure);
}

TEST(PagePayloadsTests, AccountMayBeNullOrAbsent) {
    for (const auto text : {R"({"linked":true})", R"({"linked":true,"account":null})"}) {
        EXPECT_EQ(decodedRecord<ManagedWhatsAppLinkedStatePayload>(text).account, std::nullopt);
    }
    EXPECT_EQ(decodedRecord<ManagedWhatsAppLinkedStatePayload>(R"({"linked":true,"account":"A"})").account,
              "A");
}

TEST(PagePayloadsTests, ActivationNeedsOnlyItsState) {
    const auto payload = decodedRecord<ManagedWhatsAppChatActivationPayload>(
        R"({"state":"searching","activeChatTitle":null,"pageTitle":"P","new":[1]})");
    EXPECT_EQ(payload.state, "searching");
    EXPECT_EQ(payload.activeChatTitle, std::nullopt);
    EXPECT_EQ(payload.matchedTitle, std::nullopt);
    EXPECT_EQ(payload.pageTitle, "P");
    EXPECT_THROW(decodedRecord<ManagedWhatsAppChatActivationPayload>("{}"), DecodingFailure);
}

TEST(PagePayloadsTests, DrainNeedsOnlyItsState) {
    const auto payload = decodedRecord<ManagedWhatsAppObservedInboundDrainPayload>(R"({"state":"ok"})");
    EXPECT_EQ(payload.messages, std::nullopt);
    EXPECT_EQ(payload.visibleInboundCount, std::nullopt);
    EXPECT_THROW(decodedRecord<ManagedWhatsAppObservedInboundDrainPayload>("{}"), DecodingFailure);
}

TEST(PagePayloadsTests, DrainCarriesCountsAndMessages) {
    const auto payload = decodedRecord<ManagedWhatsAppObservedInboundDrainPayload>(
        R"({"state":"ok","activeChatTitle":"A","watchedTitle":"W","pageTitle":"P","visibleInboundCount":3,)"
        R"("queuedCount":0,"messages":[{},{"activeChatTitle":"A","senderDisplayName":null,"text":"t",)"
        R"("fingerprint":"f","rawReference":"r"}]})");
    EXPECT_EQ(payload.activeChatTitle, "A");
    EXPECT_EQ(payload.watchedTitle, "W");
    EXPECT_EQ(payload.pageTitle, "P");
    EXPECT_EQ(payload.visibleInboundCount, 3);
    EXPECT_EQ(payload.queuedCount, 0);
    ASSERT_EQ(payload.messages->size(), 2U);
    EXPECT_EQ(payload.messages->at(0).text, std::nullopt);
    EXPECT_EQ(payload.messages->at(1).activeChatTitle, "A");
    EXPECT_EQ(payload.messages->at(1).senderDisplayName, std::nullopt);
    EXPECT_EQ(payload.messages->at(1).text, "t");
    EXPECT_EQ(payload.messages->at(1).fingerprint, "f");
    EXPECT_EQ(payload.messages->at(1).rawReference, "r");
}

TEST(PagePayloadsTests, RequiredMemberMustBeThereAndOfItsType) {
    for (const auto text : {R"({"linked":null})", R"({"linked":"true"})", R"({"Linked":true})", "null",
                            "true", "[]", "", "{\"linked\":true", "{\"linked\":true}}"}) {
        EXPECT_THROW(decodedRecord<ManagedWhatsAppLinkedStatePayload>(text), DecodingFailure) << text;
    }
    for (const auto text : {R"({"state":null})", R"({"state":1})", R"({"state":["ok"]})"}) {
        EXPECT_THROW(decodedRecord<ManagedWhatsAppChatActivationPayload>(text), DecodingFailure) << text;
        EXPECT_THROW(decodedRecord<ManagedWhatsAppObservedInboundDrainPayload>(text), DecodingFailure)
            << text;
    }
}

TEST(PagePayloadsTests, MistypedOptionSpoilsLinkStateAndActivation) {
    EXPECT_THROW(decodedRecord<ManagedWhatsAppLinkedStatePayload>(R"({"linked":true,"account":false})"),
                 DecodingFailure);
    for (const auto text :
         {R"({"state":"active","activeChatTitle":1})", R"({"state":"active","matchedTitle":{}})",
          R"({"state":"active","pageTitle":[]})"}) {
        EXPECT_THROW(decodedRecord<ManagedWhatsAppChatActivationPayload>(text), DecodingFailure) << text;
    }
}

TEST(PagePayloadsTests, EveryOptionOfADrainMayBeNull) {
    const auto payload = decodedRecord<ManagedWhatsAppObservedInboundDrainPayload>(
        R"({"state":"ok","activeChatTitle":null,"watchedTitle":null,"pageTitle":null,)"
        R"("visibleInboundCount":null,"queuedCount":null,"messages":null})");
    EXPECT_EQ(payload.activeChatTitle, std::nullopt);
    EXPECT_EQ(payload.watchedTitle, std::nullopt);
    EXPECT_EQ(payload.pageTitle, std::nullopt);
    EXPECT_EQ(payload.visibleInboundCount, std::nullopt);
    EXPECT_EQ(payload.queuedCount, std::nullopt);
    EXPECT_EQ(payload.messages, std::nullopt);
}

TEST(PagePayloadsTests, CountIsAnIntegerHoweverItIsWritten) {
    const auto countIn = [](const std::string& number) {
        return decodedRecord<ManagedWhatsAppObservedInboundDrainPayload>(
                   R"({"state":"ok","visibleInboundCount":)" + number + "}")
            .visibleInboundCount;
    };
    EXPECT_EQ(countIn("3.0"), 3);
    EXPECT_EQ(countIn("1e2"), 100);
    EXPECT_EQ(countIn("-1"), -1);
    for (const auto number : {"9223372036854775808", "1e21", "true"}) {
        EXPECT_THROW(countIn(number), DecodingFailure) << number;
    }
}

TEST(PagePayloadsTests, MistypedMemberSpoilsTheWholePayload) {
    for (const auto text :
         {R"({"state":"ok","visibleInboundCount":"3"})", R"({"state":"ok","visibleInboundCount":3.5})",
          R"({"state":"ok","queuedCount":1e999})", R"({"state":"ok","messages":{}})",
          R"({"state":"ok","messages":[null]})", R"({"state":"ok","messages":[{"text":1}]})"}) {
        EXPECT_THROW(decodedRecord<ManagedWhatsAppObservedInboundDrainPayload>(text), DecodingFailure)
            << text;
    }
}

}  // namespace
}  // namespace brindle
