#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <regex>
#include <string>
#include <vector>

#include "support/BackendLines.h"
#include "support/BackendProcess.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/Replies.h"
#include "support/Requests.h"
#include "support/Waiting.h"

namespace brindle::test {
namespace {

using Lines = std::vector<std::string>;

// Every envelope with every field present, among them those that a backend only ignores.

Json completeAttachment() {
    return {{"id", "a-1"},
            {"kind", "image"},
            {"fileName", "cat.png"},
            {"mimeType", "image/png"},
            {"localPath", "/tmp/cat.png"},
            {"dataBase64", "Y2F0"},
            {"caption", "A cat"}};
}

Json completeSend() {
    return sendMessageRequest({{"conversationId", "team-room"},
                               {"text", "On my way"},
                               {"replyToMessageId", "m-17"},
                               {"attachments", Json::array({completeAttachment()})}});
}

Json completeInboundEvent() {
    return {{"inboundEvent", {{"_0", {{"event", inboundRecord("m-1", "hello")}}}}}};
}

Json stateChanged(const Json& state) {
    return {{"stateChanged", {{"_0", {{"state", state}}}}}};
}

Json completeHello() {
    return {{"hello", {{"_0", {{"platform", "whatsapp"}, {"bridgeVersion", "any"}}}}}};
}

Json errorEnvelope() {
    return {{"error", {{"_0", {{"message", "example failure text"}}}}}};
}

/// The outbound record that the backend writes for a message.
Json outboundRecordFor(const Json& message) {
    BackendProcess process;
    process.greet();
    process.send(sendMessageRequest(message));
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
    return process.readJson("outbound/" + process.waitForEntries("outbound", 1).front());
}

/// The line that delivers an inbound record to the parent.
std::string lineFor(const Json& record) {
    BackendProcess process;
    process.connectAndListen();
    process.writeInbound("record.json", record);
    return process.nextLine();
}

std::string nameOf(const std::string& place) {
    std::string name;
    for (const char character : place) {
        name += std::isalnum(static_cast<unsigned char>(character)) != 0 ? character : '_';
    }
    return name;
}

// What the backend writes.

TEST(BridgeOutput, HelloIsOneCompactLineWithSortedMembers) {
    BackendProcess process;
    EXPECT_EQ(process.nextLine(),
              R"({"hello":{"_0":{"bridgeVersion":"managed-whatsapp-backend-3","platform":"whatsapp"}}})");
}

TEST(BridgeOutput, CaseWithoutValuesIsAnEmptyObject) {
    BackendProcess process;
    process.nextLine();
    EXPECT_EQ(process.nextLine(), R"({"stateChanged":{"_0":{"state":{"disconnected":{}}}}})");
}

TEST(BridgeOutput, ConnectingIsAnEmptyObject) {
    BackendProcess process;
    process.greet();
    process.send(connectRequest());
    EXPECT_EQ(process.nextLine(), R"({"stateChanged":{"_0":{"state":{"connecting":{}}}}})");
}

TEST(BridgeOutput, ConnectedCarriesTheDisplayName) {
    BackendProcess process;
    process.greet();
    process.send(connectRequest());
    process.nextLine();
    EXPECT_EQ(
        process.nextLine(),
        R"({"stateChanged":{"_0":{"state":{"connected":{"accountDisplayName":"Brindle Managed WhatsApp Backend"}}}}})");
}

TEST(BridgeOutput, ErrorIsOneCompactLine) {
    BackendProcess process;
    process.greet();
    process.send("{");
    const auto line = process.nextLine();
    const auto message = errorMessageOf(line);
    EXPECT_EQ(line, R"({"error":{"_0":{"message":)" + Json(message).dump() + "}}}");
}

TEST(BridgeOutput, SelfTestEventIsOneCompactLineWithSortedMembers) {
    BackendProcess process;
    process.greet();
    process.send(startListeningRequest(testOnlyScope("Smoke test")));
    const auto line = process.nextLine();
    const auto event = Json::parse(line)["inboundEvent"]["_0"]["event"];
    EXPECT_EQ(
        line,
        R"({"inboundEvent":{"_0":{"event":{"conversationId":"managed-whatsapp-backend-self-test",)"
        R"("conversationTitle":"Smoke test","isDirectMessage":true,"messageId":")" +
            event["messageId"].get<std::string>() +
            R"(","rawReference":"managed-whatsapp-backend-self-test",)"
            R"("senderDisplayName":"Brindle Managed WhatsApp Backend","senderId":"managed-whatsapp-backend",)"
            R"("text":"\/skiff help","timestampISO8601":")" +
            event["timestampISO8601"].get<std::string>() + R"("}}}})");
}

TEST(BridgeOutput, InboundEventIsOneCompactLineWithSortedMembers) {
    EXPECT_EQ(
        lineFor(inboundRecord("m-1", "hello")),
        R"({"inboundEvent":{"_0":{"event":{"conversationId":"team-room","conversationTitle":"Team Room",)"
        R"("isDirectMessage":false,"messageId":"m-1","rawReference":"page-ref-m-1",)"
        R"("senderDisplayName":"Ada","senderId":"ada","text":"hello",)"
        R"("timestampISO8601":"2026-01-05T09:30:00Z"}}}})");
}

TEST(BridgeOutput, SlashIsEscaped) {
    EXPECT_NE(lineFor(inboundRecord("m-1", "a/b//")).find(R"("text":"a\/b\/\/")"), std::string::npos);
}

TEST(BridgeOutput, QuoteAndBackslashAreEscaped) {
    EXPECT_NE(lineFor(inboundRecord("m-1", R"(say "x\y")")).find(R"("text":"say \"x\\y\"")"),
              std::string::npos);
}

TEST(BridgeOutput, LineBreaksAndTabsAreEscaped) {
    EXPECT_NE(lineFor(inboundRecord("m-1", "a\nb\rc\td")).find(R"("text":"a\nb\rc\td")"), std::string::npos);
}

TEST(BridgeOutput, EveryControlCharacterIsEscapedAndKept) {
    std::string text;
    for (char character = 1; character < 0x20; ++character) text += character;
    const auto line = lineFor(inboundRecord("m-1", text));
    EXPECT_TRUE(
        std::none_of(line.begin(), line.end(), [](unsigned char character) { return character < 0x20; }));
    EXPECT_EQ(Json::parse(line)["inboundEvent"]["_0"]["event"]["text"], text);
}

TEST(BridgeOutput, NonAsciiCharactersAreRawUtf8) {
    const std::string text = "\u00e9\u4e2d\U0001f600\u2028\u0085\u007f\uffff";
    EXPECT_NE(lineFor(inboundRecord("m-1", text)).find("\"text\":\"" + text + "\""), std::string::npos);
}

TEST(BridgeOutput, CanonicallyEquivalentTextsStayAsTheyAre) {
    const std::string text = "e\u0301 \u00e9 \u212b";
    EXPECT_NE(lineFor(inboundRecord("m-1", text)).find("\"text\":\"" + text + "\""), std::string::npos);
}

TEST(BridgeOutput, EmptyStringsAreWritten) {
    EXPECT_NE(lineFor(inboundRecord("m-1", "")).find(R"("text":"")"), std::string::npos);
}

TEST(BridgeOutput, EveryLineEndsWithOneLineFeed) {
    BackendProcess process;
    process.greet();
    process.send(connectRequest());
    process.send("{");
    process.finish();
    const auto output = process.rawOutput();
    EXPECT_TRUE(output.ends_with("}\n"));
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 5);
    EXPECT_EQ(output.find("\n\n"), std::string::npos);
    EXPECT_EQ(output.find('\r'), std::string::npos);
}

// What the backend reads: the envelope.

TEST(BridgeInput, UnknownMemberBesideTheCaseIsIgnored) {
    EXPECT_EQ(repliesTo(Lines{R"({"connect":{"_0":{"platform":"whatsapp"}},"note":1})"}),
              (Lines{connecting_line, connected_line}));
}

TEST(BridgeInput, UnknownMemberBeforeTheCaseIsIgnored) {
    EXPECT_EQ(repliesTo(Lines{R"({"":{},"Connect":null,"connect":{"_0":{"platform":"whatsapp"}}})"}),
              (Lines{connecting_line, connected_line}));
}

TEST(BridgeInput, NamesOfScopesAndStatesAreNoCasesOfTheEnvelope) {
    EXPECT_EQ(
        repliesTo(Lines{
            R"({"connect":{"_0":{"platform":"whatsapp"}},"conversation":{},"testOnly":{},"connected":{}})"}),
        (Lines{connecting_line, connected_line}));
}

TEST(BridgeInput, EmptyObjectIsAnError) {
    expectOneError("{}");
}

TEST(BridgeInput, OnlyUnknownMembersIsAnError) {
    expectOneError(R"({"note":1,"ping":{"_0":{}}})");
}

TEST(BridgeInput, TwoCasesInOneObjectIsAnError) {
    expectOneError(R"({"connect":{"_0":{"platform":"x"}},"disconnect":{"_0":{"platform":"x"}}})");
}

TEST(BridgeInput, SecondCaseCountsWhateverItsValueIs) {
    expectOneErrorEach({R"({"connect":{"_0":{"platform":"whatsapp"}},"hello":null})",
                        R"({"connect":{"_0":{"platform":"whatsapp"}},"error":1})",
                        R"({"stateChanged":[],"connect":{"_0":{"platform":"whatsapp"}}})"});
}

TEST(BridgeInput, CaseNamesAreCaseSensitive) {
    expectOneErrorEach({R"({"Connect":{"_0":{"platform":"whatsapp"}}})",
                        R"({"CONNECT":{"_0":{"platform":"whatsapp"}}})",
                        R"({"startlistening":{"_0":{"platform":"whatsapp"}}})"});
}

TEST(BridgeInput, TopLevelMustBeAnObject) {
    expectOneErrorEach({"[]", "null", "true", "false", "0", "1.5", R"("connect")",
                        R"([{"connect":{"_0":{"platform":"whatsapp"}}}])"});
}

TEST(BridgeInput, PayloadMustBeUnderItsMember) {
    expectOneError(R"({"connect":{"platform":"whatsapp"}})");
}

TEST(BridgeInput, ValueOfTheCaseMustBeAnObject) {
    expectOneErrorEach({R"({"connect":null})", R"({"connect":[]})", R"({"connect":"whatsapp"})",
                        R"({"connect":1})", R"({"connect":true})", R"({"connect":{}})",
                        R"({"connect":[{"_0":{"platform":"whatsapp"}}]})"});
}

TEST(BridgeInput, PayloadMustBeAnObject) {
    expectOneErrorEach({R"({"connect":{"_0":null}})", R"({"connect":{"_0":[]}})",
                        R"({"connect":{"_0":"whatsapp"}})", R"({"connect":{"_0":1}})",
                        R"({"connect":{"_0":[{"platform":"whatsapp"}]}})"});
}

TEST(BridgeInput, MembersBesideThePayloadAreIgnored) {
    EXPECT_EQ(
        repliesTo(Lines{R"({"connect":{"_1":null,"platform":7,"_0":{"platform":"whatsapp"},"note":[]}})"}),
        (Lines{connecting_line, connected_line}));
}

TEST(BridgeInput, OrderOfMembersDoesNotMatter) {
    BackendProcess process;
    process.greet();
    process.send(
        R"({"startListening":{"_0":{"scope":{"conversation":{"title":"T","id":"i"}},"platform":"whatsapp"}}})");
    process.send(
        R"({"startListening":{"_0":{"platform":"whatsapp","scope":{"conversation":{"id":"i","title":"T"}}}}})");
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
    EXPECT_EQ(process.readJson("runtime/worker-control.json")["activeScope"],
              (Json{{"kind", "conversation"}, {"id", "i"}, {"title", "T"}}));
}

TEST(BridgeInput, WhiteSpaceBetweenTokensDoesNotMatter) {
    EXPECT_EQ(repliesTo(Lines{"{ \t\"connect\"\r :\t{ \"_0\" : {\r\"platform\"\t:  \"whatsapp\" } \t} \r}"}),
              (Lines{connecting_line, connected_line}));
}

TEST(BridgeInput, EscapedNamesAndTextsAreTheSameNamesAndTexts) {
    EXPECT_EQ(repliesTo(Lines{R"({"\u0063onnect":{"\u005f0":{"plat\u0066orm":"\u0077hats\u0061pp"}}})"}),
              (Lines{connecting_line, connected_line}));
}

TEST(BridgeInput, CasesOfTheOtherDirectionAreIgnored) {
    EXPECT_EQ(repliesTo(Lines{completeHello().dump(), completeInboundEvent().dump(),
                              stateChanged({{"disconnected", Json::object()}}).dump(),
                              stateChanged({{"connecting", Json::object()}}).dump(),
                              stateChanged({{"connected", {{"accountDisplayName", "x"}}}}).dump(),
                              stateChanged({{"error", {{"message", "worker stopped"}}}}).dump(),
                              errorEnvelope().dump()}),
              Lines{});
}

// What the backend reads: enumerations inside records.

TEST(BridgeInput, ScopeNeedsExactlyOneCase) {
    expectOneErrorEach(
        {startListeningRequest(Json::object()).dump(),
         startListeningRequest({{"group", {{"id", "i"}}}}).dump(),
         startListeningRequest({{"thread", {{"id", "i"}}}, {"testOnly", {{"title", "t"}}}}).dump(),
         startListeningRequest({{"testOnly", {{"title", "t"}}}, {"channel", nullptr}}).dump()});
}

TEST(BridgeInput, StateNeedsExactlyOneCase) {
    expectOneErrorEach(
        {stateChanged(Json::object()).dump(), stateChanged({{"online", Json::object()}}).dump(),
         stateChanged({{"connecting", Json::object()}, {"disconnected", Json::object()}}).dump()});
}

TEST(BridgeInput, ScopeValuesMustBeAnObject) {
    expectOneErrorEach({startListeningRequest({{"conversation", nullptr}}).dump(),
                        startListeningRequest({{"conversation", "team-room"}}).dump(),
                        startListeningRequest({{"thread", Json::array()}}).dump(),
                        startListeningRequest({{"testOnly", 1}}).dump()});
}

TEST(BridgeInput, StateValuesMustBeAnObject) {
    expectOneErrorEach(
        {stateChanged({{"connected", nullptr}}).dump(), stateChanged({{"connecting", nullptr}}).dump(),
         stateChanged({{"disconnected", "now"}}).dump(), stateChanged({{"error", "worker stopped"}}).dump()});
}

TEST(BridgeInput, ScopeValuesAreNotUnderAPayloadMember) {
    expectOneError(startListeningRequest({{"conversation", {{"_0", {{"id", "i"}, {"title", "t"}}}}}}).dump());
}

TEST(BridgeInput, ScopeIgnoresUnknownMembersOutsideAndInside) {
    BackendProcess process;
    process.greet();
    process.send(startListeningRequest(
        {{"channel", {{"id", "i"}, {"title", "t"}, {"note", 1}}}, {"note", nullptr}, {"connect", 1}}));
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
    EXPECT_EQ(process.readJson("runtime/worker-control.json")["activeScope"],
              (Json{{"kind", "channel"}, {"id", "i"}, {"title", "t"}}));
}

TEST(BridgeInput, NullThreadTitleIsAnAbsentOne) {
    BackendProcess process;
    process.greet();
    process.send(
        R"({"startListening":{"_0":{"platform":"whatsapp","scope":{"thread":{"id":"t","title":null}}}}})");
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
    EXPECT_EQ(process.readJson("runtime/worker-control.json")["activeScope"],
              (Json{{"kind", "thread"}, {"id", "t"}}));
}

TEST(BridgeInput, EmptyThreadTitleIsPresent) {
    BackendProcess process;
    process.greet();
    process.send(startListeningRequest(threadScope("t", "")));
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
    EXPECT_EQ(process.readJson("runtime/worker-control.json")["activeScope"],
              (Json{{"kind", "thread"}, {"id", "t"}, {"title", ""}}));
}

// What the backend reads: every field of every record.

struct FieldCase {
    Json envelope;      ///< Holds the field.
    std::string place;  ///< JSON pointer to the field.
};

std::ostream& operator<<(std::ostream& stream, const FieldCase& field) {
    return stream << field.place;
}

std::string nameOfField(const testing::TestParamInfo<FieldCase>& tested) {
    return nameOf(tested.param.place.substr(1));
}

Json fullScope(const std::string& name) {
    return name == "testOnly" ? Json{{name, {{"title", "T"}}}} : Json{{name, {{"id", "i"}, {"title", "T"}}}};
}

std::vector<FieldCase> requiredFields() {
    std::vector<FieldCase> fields;
    const auto add = [&](const Json& envelope, std::initializer_list<const char*> places) {
        const auto prefix = "/" + envelope.firstName() + "/_0";
        for (const char* place : places) fields.push_back({envelope, prefix + place});
    };
    add(completeHello(), {"/platform", "/bridgeVersion"});
    add(connectRequest(), {"/platform"});
    add(disconnectRequest(), {"/platform"});
    add(stopListeningRequest(), {"/platform"});
    add(startListeningRequest(fullScope("conversation")),
        {"/platform", "/scope", "/scope/conversation/id", "/scope/conversation/title"});
    add(startListeningRequest(fullScope("channel")), {"/scope/channel/id", "/scope/channel/title"});
    add(startListeningRequest(fullScope("thread")), {"/scope/thread/id"});
    add(startListeningRequest(fullScope("testOnly")), {"/scope/testOnly/title"});
    add(completeSend(),
        {"/platform", "/message", "/message/conversationId", "/message/text", "/message/attachments/0/kind",
         "/message/attachments/0/fileName", "/message/attachments/0/mimeType"});
    add(completeInboundEvent(),
        {"/event", "/event/messageId", "/event/conversationId", "/event/conversationTitle", "/event/senderId",
         "/event/senderDisplayName", "/event/text", "/event/timestampISO8601", "/event/isDirectMessage"});
    add(stateChanged({{"error", {{"message", "x"}}}}), {"/state", "/state/error/message"});
    add(errorEnvelope(), {"/message"});
    return fields;
}

std::vector<FieldCase> optionalFields() {
    const std::string message = "/sendMessage/_0/message";
    return {{startListeningRequest(fullScope("thread")), "/startListening/_0/scope/thread/title"},
            {completeSend(), message + "/replyToMessageId"},
            {completeSend(), message + "/attachments"},
            {completeSend(), message + "/attachments/0/id"},
            {completeSend(), message + "/attachments/0/localPath"},
            {completeSend(), message + "/attachments/0/dataBase64"},
            {completeSend(), message + "/attachments/0/caption"},
            {completeInboundEvent(), "/inboundEvent/_0/event/rawReference"},
            {stateChanged({{"connected", {{"accountDisplayName", "x"}}}}),
             "/stateChanged/_0/state/connected/accountDisplayName"}};
}

Json without(const FieldCase& field) {
    Json changed = field.envelope;
    const auto slash = field.place.rfind('/');
    changed.atPointer(field.place.substr(0, slash)).erase(field.place.substr(slash + 1));
    return changed;
}

Json with(const FieldCase& field, const Json& value) {
    Json changed = field.envelope;
    changed.atPointer(field.place) = value;
    return changed;
}

/// The envelope with each value of another type than the field's in its place.
Lines mistyped(const FieldCase& field) {
    const auto& right = field.envelope.atPointer(field.place);
    Lines lines;
    for (const Json& wrong : {Json("text"), Json(7), Json(1.5), Json(true), Json::array({1}),
                              Json(Json::object()), Json::array({Json::object()}), Json::array({"text"})}) {
        const bool isRightType = wrong.hasTypeOf(right) && !right.isStructured();
        if (!isRightType) lines.push_back(with(field, wrong).dump());
    }
    return lines;
}

class BridgeRequiredField : public testing::TestWithParam<FieldCase> {};

TEST_P(BridgeRequiredField, PresentInTheRightTypeIsAccepted) {
    for (const auto& reply : repliesToEnvelope(GetParam().envelope)) {
        EXPECT_THROW(errorMessageOf(reply), TestFailure) << reply;
    }
}

TEST_P(BridgeRequiredField, AbsentIsAnError) {
    expectOneError(without(GetParam()).dump());
}

TEST_P(BridgeRequiredField, NullIsAnError) {
    expectOneError(with(GetParam(), nullptr).dump());
}

TEST_P(BridgeRequiredField, OtherTypeIsAnError) {
    expectOneErrorEach(mistyped(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Field, BridgeRequiredField, testing::ValuesIn(requiredFields()), nameOfField);

class BridgeOptionalField : public testing::TestWithParam<FieldCase> {};

TEST_P(BridgeOptionalField, PresentIsAccepted) {
    EXPECT_EQ(repliesToEnvelope(GetParam().envelope), Lines{});
}

TEST_P(BridgeOptionalField, AbsentIsAccepted) {
    EXPECT_EQ(repliesToEnvelope(without(GetParam())), Lines{});
}

TEST_P(BridgeOptionalField, NullIsAccepted) {
    EXPECT_EQ(repliesToEnvelope(with(GetParam(), nullptr)), Lines{});
}

TEST_P(BridgeOptionalField, OtherTypeIsAnError) {
    expectOneErrorEach(mistyped(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Field, BridgeOptionalField, testing::ValuesIn(optionalFields()), nameOfField);

/// Adds an unknown member to every object of a document.
void addUnknownMembers(Json& value) {
    for (Json* inner : value.children()) addUnknownMembers(*inner);
    if (value.isObject()) value["unknownMember"] = {{"nested", {1, "two", nullptr}}};
}

class BridgeEnvelopeCase : public testing::TestWithParam<Json> {};

TEST_P(BridgeEnvelopeCase, UnknownMembersAnywhereChangeNothing) {
    Json widened = GetParam();
    addUnknownMembers(widened);
    EXPECT_EQ(repliesToEnvelope(widened).size(), repliesToEnvelope(GetParam()).size());
    for (const auto& reply : repliesToEnvelope(widened)) {
        EXPECT_THROW(errorMessageOf(reply), TestFailure) << reply;
    }
}

INSTANTIATE_TEST_SUITE_P(Case, BridgeEnvelopeCase,
                         testing::Values(completeHello(), connectRequest(), disconnectRequest(),
                                         startListeningRequest(fullScope("conversation")),
                                         startListeningRequest(fullScope("channel")),
                                         startListeningRequest(fullScope("thread")),
                                         startListeningRequest(fullScope("testOnly")), stopListeningRequest(),
                                         completeSend(), completeInboundEvent(),
                                         stateChanged({{"connected", {{"accountDisplayName", "x"}}}}),
                                         stateChanged({{"error", {{"message", "x"}}}}), errorEnvelope()),
                         [](const testing::TestParamInfo<Json>& tested) {
                             return "Number" + std::to_string(tested.index) + "_" + tested.param.firstName();
                         });

// Messages on their way to the worker.

TEST(BridgeMessage, FieldsAreCarriedAsTheyAre) {
    const auto record = outboundRecordFor(completeSend()["sendMessage"]["_0"]["message"]);
    EXPECT_EQ(record["conversationId"], "team-room");
    EXPECT_EQ(record["text"], "On my way");
    EXPECT_EQ(record["replyToMessageId"], "m-17");
    EXPECT_EQ(record["attachments"], Json::array({completeAttachment()}));
}

TEST(BridgeMessage, AbsentReplyStaysAbsent) {
    EXPECT_FALSE(outboundRecordFor({{"conversationId", "c"}, {"text", "t"}}).contains("replyToMessageId"));
}

TEST(BridgeMessage, NullReplyIsAbsent) {
    EXPECT_FALSE(outboundRecordFor({{"conversationId", "c"}, {"text", "t"}, {"replyToMessageId", nullptr}})
                     .contains("replyToMessageId"));
}

TEST(BridgeMessage, EmptyReplyIsPresent) {
    const auto record = outboundRecordFor({{"conversationId", "c"}, {"text", "t"}, {"replyToMessageId", ""}});
    EXPECT_EQ(record["replyToMessageId"], "");
}

TEST(BridgeMessage, EmptyConversationAndTextArePresent) {
    const auto record = outboundRecordFor({{"conversationId", ""}, {"text", ""}});
    EXPECT_EQ(record["conversationId"], "");
    EXPECT_EQ(record["text"], "");
}

TEST(BridgeMessage, WithoutAttachmentsTheListIsEmpty) {
    EXPECT_EQ(outboundRecordFor({{"conversationId", "c"}, {"text", "t"}})["attachments"], Json::array());
}

TEST(BridgeMessage, NullAttachmentsAreAnEmptyList) {
    EXPECT_EQ(
        outboundRecordFor({{"conversationId", "c"}, {"text", "t"}, {"attachments", nullptr}})["attachments"],
        Json::array());
}

Json attachmentsOf(const Json& attachments) {
    return outboundRecordFor(
        {{"conversationId", "c"}, {"text", "t"}, {"attachments", attachments}})["attachments"];
}

TEST(BridgeMessage, AttachmentsKeepTheirOrder) {
    Json attachments = Json::array();
    for (int number = 0; number < 20; ++number) {
        attachments.push_back({{"kind", "file"},
                               {"fileName", "file-" + std::to_string(20 - number)},
                               {"mimeType", "text/plain"}});
    }
    EXPECT_EQ(attachmentsOf(attachments), attachments);
}

TEST(BridgeMessage, UnknownMembersOfAttachmentsAreDropped) {
    Json widened = completeAttachment();
    widened["size"] = 7;
    widened["thumbnail"] = {{"width", 1}};
    EXPECT_EQ(attachmentsOf(Json::array({widened})), Json::array({completeAttachment()}));
}

TEST(BridgeMessage, NullMembersOfAttachmentsAreAbsent) {
    const Json attachment = {{"kind", "k"},       {"fileName", "f"},      {"mimeType", "m"},
                             {"id", nullptr},     {"localPath", nullptr}, {"dataBase64", nullptr},
                             {"caption", nullptr}};
    EXPECT_EQ(attachmentsOf(Json::array({attachment})),
              Json::array({{{"kind", "k"}, {"fileName", "f"}, {"mimeType", "m"}}}));
}

TEST(BridgeMessage, EmptyMembersOfAttachmentsArePresent) {
    const Json attachment = {{"kind", ""},      {"fileName", ""},   {"mimeType", ""}, {"id", ""},
                             {"localPath", ""}, {"dataBase64", ""}, {"caption", ""}};
    EXPECT_EQ(attachmentsOf(Json::array({attachment})), Json::array({attachment}));
}

TEST(BridgeMessage, AttachmentDataIsNotInspected) {
    Json attachment = completeAttachment();
    attachment["dataBase64"] = "this is / no Base64 \u00e9 !!! =A=";
    EXPECT_EQ(attachmentsOf(Json::array({attachment})), Json::array({attachment}));
}

TEST(BridgeMessage, AttachmentPathIsNotInspected) {
    Json attachment = completeAttachment();
    attachment["localPath"] = "no/such/../file\n";
    EXPECT_EQ(attachmentsOf(Json::array({attachment})), Json::array({attachment}));
}

TEST(BridgeMessage, AttachmentsMustBeObjects) {
    for (const Json& wrong : {Json(nullptr), Json("x"), Json(1), Json(Json::array())}) {
        expectOneError(sendMessageRequest({{"conversationId", "c"},
                                           {"text", "t"},
                                           {"attachments", Json::array({completeAttachment(), wrong})}})
                           .dump());
    }
}

TEST(BridgeMessage, RefusedMessageIsNotWritten) {
    BackendProcess process;
    process.greet();
    auto refused = completeSend();
    refused.atPointer("/sendMessage/_0/message/attachments/0").erase("kind");
    process.send(refused);
    errorMessageOf(process.nextLine());
    process.finish();
    EXPECT_EQ(namesIn(process.path("outbound")), Lines{});
}

TEST(BridgeMessage, EscapesAreResolvedAndCharactersKept) {
    BackendProcess process;
    process.greet();
    process.send(
        R"({"sendMessage":{"_0":{"platform":"whatsapp","message":{"conversationId":"c","text":"\/\u00e9\uD83D\uDE00\b\f\n\r\t\"\\ \u0000 \u2028)"
        "\u4e2d\U0001f680"
        R"("}}}})");
    EXPECT_EQ(process.finishAndTakeRest(), Lines{});
    const auto record = process.readJson("outbound/" + process.waitForEntries("outbound", 1).front());
    const std::string beforeZero = "/\u00e9\U0001f600\b\f\n\r\t\"\\ ";
    const std::string afterZero = " \u2028\u4e2d\U0001f680";
    EXPECT_EQ(record["text"], beforeZero + '\0' + afterZero);
}

// Errors.

TEST(BridgeError, MissingDataAndMistypedDataAreDescribedDifferently) {
    const auto replies = repliesTo(Lines{R"({"connect":{"_0":{}}})", R"({"connect":{"_0":{"platform":7}}})"});
    ASSERT_EQ(replies.size(), 2U);
    EXPECT_NE(errorMessageOf(replies[0]), errorMessageOf(replies[1]));
}

class BridgeErrorText : public testing::TestWithParam<const char*> {};

TEST_P(BridgeErrorText, IsOneSentenceForPeople) {
    const auto replies = repliesTo(Lines{GetParam()});
    ASSERT_EQ(replies.size(), 1U);
    const auto message = errorMessageOf(replies.front());
    EXPECT_TRUE(message.ends_with(".")) << message;
    // What is quoted is the parent's own.
    const auto ours = std::regex_replace(message, std::regex("\"[^\"]*\""), "a name");
    EXPECT_EQ(ours.find(". "), std::string::npos) << message;
    EXPECT_TRUE(std::isupper(static_cast<unsigned char>(message.front())) != 0) << message;
    EXPECT_LT(message.size(), 300U);
}

INSTANTIATE_TEST_SUITE_P(Lines, BridgeErrorText,
                         testing::Values("{", "{}", "[]", "garbage", "\xff", "{}{}", R"({"connect":{}})",
                                         R"({"connect":{"_0":{}}})", R"({"connect":{"_0":{"platform":7}}})",
                                         R"({"connect":{"_0":{"platform":null}}})",
                                         R"({"connect":{"_0":null}})", R"({"connect":1,"hello":2})",
                                         R"({"startListening":{"_0":{"platform":"whatsapp","scope":{}}}})",
                                         R"({"x. y":{"connect":1}})"));

}  // namespace
}  // namespace brindle::test
