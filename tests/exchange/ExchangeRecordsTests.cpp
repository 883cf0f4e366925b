#include "exchange/ExchangeRecords.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "records/DecodingFailure.h"
#include "support/Files.h"
#include "support/Json.h"
#include "support/TemporaryDirectory.h"
#include "system/FileSystemFailure.h"

namespace brindle {
namespace {

using Kind = DecodingFailure::Kind;

template <class T>
std::string fileOf(const T& record) {
    return encodedRecord(record, JsonStyle::pretty);
}

template <class T>
void expectMissing(std::string_view text, const std::string& name) {
    try {
        decodedRecord<T>(text);
        ADD_FAILURE() << "accepted: " << text;
    } catch (const DecodingFailure& failure) {
        EXPECT_EQ(failure.kind(), Kind::missingKey);
        EXPECT_EQ(failure.what(),
                  "The data cannot be used because a required value is missing (at " + name + ").");
    }
}

TEST(WorkerStatusRecordTests, IsWrittenWithEveryField) {
    const ManagedWhatsAppWorkerStatusRecord record{.state = "linked",
                                                   .displayName = "Zoë",
                                                   .detail = "Fine/ok",
                                                   .lastHeartbeatISO8601 = "2026-01-05T09:30:00Z",
                                                   .contactQRLink = "qr",
                                                   .supportsLiveCapture = true,
                                                   .supportsOutbound = false};
    EXPECT_EQ(fileOf(record), R"({
  "contactQRLink": "qr",
  "detail": "Fine\/ok",
  "displayName": "Zoë",
  "lastHeartbeatISO8601": "2026-01-05T09:30:00Z",
  "state": "linked",
  "supportsLiveCapture": true,
  "supportsOutbound": false
}
)");
}

TEST(WorkerStatusRecordTests, LeavesOutWhatIsAbsent) {
    ManagedWhatsAppWorkerStatusRecord record;
    record.state = "starting";
    EXPECT_EQ(fileOf(record), R"({
  "state": "starting",
  "supportsLiveCapture": false,
  "supportsOutbound": false
}
)");
}

TEST(WorkerStatusRecordTests, NeedsStateAndBothFlags) {
    using Record = ManagedWhatsAppWorkerStatusRecord;
    EXPECT_NO_THROW(decodedRecord<Record>(
        R"({"state":"x","supportsLiveCapture":true,"supportsOutbound":true,"more":1})"));
    expectMissing<Record>(R"({"supportsLiveCapture":true,"supportsOutbound":true})", "state");
    expectMissing<Record>(R"({"state":"x","supportsOutbound":true})", "supportsLiveCapture");
    expectMissing<Record>(R"({"state":"x","supportsLiveCapture":true})", "supportsOutbound");
}

TEST(WorkerControlRecordTests, IsWrittenWithScope) {
    const ManagedWhatsAppWorkerControlRecord record{
        .platform = "whatsapp",
        .activeScope = ManagedWhatsAppWorkerControlScope::from(BridgeConversationScope{"I", "T"}),
        .updatedAtISO8601 = "2026-01-05T09:30:00Z"};
    EXPECT_EQ(fileOf(record), R"({
  "activeScope": {
    "id": "I",
    "kind": "conversation",
    "title": "T"
  },
  "platform": "whatsapp",
  "updatedAtISO8601": "2026-01-05T09:30:00Z"
}
)");
}

TEST(WorkerControlRecordTests, NullScopeIsNoScope) {
    using Record = ManagedWhatsAppWorkerControlRecord;
    const auto withNull =
        decodedRecord<Record>(R"({"activeScope":null,"platform":"whatsapp","updatedAtISO8601":"t"})");
    EXPECT_FALSE(withNull.activeScope.has_value());
    EXPECT_EQ(fileOf(withNull),
              fileOf(decodedRecord<Record>(R"({"platform":"whatsapp","updatedAtISO8601":"t"})")));
}

TEST(WorkerControlScopeTests, EveryKindCarriesWhatItHas) {
    const auto text = [](const BridgeScope& scope) {
        return encodedRecord(ManagedWhatsAppWorkerControlScope::from(scope), JsonStyle::compact);
    };
    EXPECT_EQ(text(BridgeConversationScope{"I", "T"}), R"({"id":"I","kind":"conversation","title":"T"})");
    EXPECT_EQ(text(BridgeChannelScope{"I", "T"}), R"({"id":"I","kind":"channel","title":"T"})");
    EXPECT_EQ(text(BridgeThreadScope{"I", "T"}), R"({"id":"I","kind":"thread","title":"T"})");
    EXPECT_EQ(text(BridgeThreadScope{"I", ""}), R"({"id":"I","kind":"thread","title":""})");
    EXPECT_EQ(text(BridgeThreadScope{"I", std::nullopt}), R"({"id":"I","kind":"thread"})");
    EXPECT_EQ(text(BridgeTestOnlyScope{"T"}), R"({"kind":"testOnly","title":"T"})");
}

TEST(OutboundRecordTests, IsWrittenWithAttachments) {
    ManagedWhatsAppOutboundRecord record{.messageId = "M",
                                         .conversationId = "C",
                                         .text = "line\nfeed",
                                         .replyToMessageId = "R",
                                         .createdAtISO8601 = "2026-01-05T09:30:00Z",
                                         .attachments = {}};
    record.attachments.push_back({.id = "A",
                                  .kind = "image",
                                  .fileName = "cat.png",
                                  .mimeType = "image/png",
                                  .localPath = {},
                                  .dataBase64 = "aGk=",
                                  .caption = {}});
    EXPECT_EQ(fileOf(record), R"({
  "attachments": [
    {
      "dataBase64": "aGk=",
      "fileName": "cat.png",
      "id": "A",
      "kind": "image",
      "mimeType": "image\/png"
    }
  ],
  "conversationId": "C",
  "createdAtISO8601": "2026-01-05T09:30:00Z",
  "messageId": "M",
  "replyToMessageId": "R",
  "text": "line\nfeed"
}
)");
}

TEST(OutboundRecordTests, AlwaysHasAttachments) {
    ManagedWhatsAppOutboundRecord record;
    record.messageId = "M";
    EXPECT_EQ(fileOf(record), R"({
  "attachments": [],
  "conversationId": "",
  "createdAtISO8601": "",
  "messageId": "M",
  "text": ""
}
)");
    expectMissing<ManagedWhatsAppOutboundRecord>(
        R"({"messageId":"M","conversationId":"C","text":"T","createdAtISO8601":"t"})", "attachments");
}

const std::string full_inbound = R"({
  "conversationId": "C",
  "conversationTitle": "T",
  "isDirectMessage": true,
  "messageId": "M",
  "rawReference": "R",
  "senderDisplayName": "N",
  "senderId": "S",
  "text": "X",
  "timestampISO8601": "2026-01-05T09:30:00Z"
}
)";

TEST(WorkerInboundRecordTests, IsWrittenWithEveryField) {
    const ManagedWhatsAppWorkerInboundRecord record{.messageId = "M",
                                                    .conversationId = "C",
                                                    .conversationTitle = "T",
                                                    .senderId = "S",
                                                    .senderDisplayName = "N",
                                                    .text = "X",
                                                    .timestampISO8601 = "2026-01-05T09:30:00Z",
                                                    .isDirectMessage = true,
                                                    .rawReference = "R"};
    EXPECT_EQ(fileOf(record), full_inbound);
}

TEST(WorkerInboundRecordTests, IsUnderstoodByTheBackendsReader) {
    ManagedWhatsAppWorkerInboundRecord record;
    record.messageId = "M";
    EXPECT_EQ(decodedRecord<ManagedWhatsAppInboundRecord>(fileOf(record)).messageId, "M");
}

TEST(WorkerInboundRecordTests, WriterMustKnowIdentifierAndTime) {
    using Record = ManagedWhatsAppWorkerInboundRecord;
    const std::string rest =
        R"("conversationId":"C","conversationTitle":"T","isDirectMessage":true,"senderDisplayName":"N","senderId":"S","text":"X"})";
    expectMissing<Record>(R"({"timestampISO8601":"t",)" + rest, "messageId");
    expectMissing<Record>(R"({"messageId":"M",)" + rest, "timestampISO8601");
}

TEST(InboundRecordTests, ReadsEveryField) {
    EXPECT_EQ(fileOf(decodedRecord<ManagedWhatsAppInboundRecord>(full_inbound)), full_inbound);
}

class InboundFieldTests : public testing::TestWithParam<std::pair<const char*, bool>> {};

TEST_P(InboundFieldTests, OnlyWhatTheBackendCanSupplyMayBeLeftOut) {
    const auto& [name, optional] = GetParam();
    auto document = test::Json::parse(full_inbound);
    document.erase(name);
    if (optional) {
        EXPECT_EQ(fileOf(decodedRecord<ManagedWhatsAppInboundRecord>(document.dump())).find(name),
                  std::string::npos);
        document[name] = nullptr;
        EXPECT_NO_THROW(decodedRecord<ManagedWhatsAppInboundRecord>(document.dump()));
    } else {
        expectMissing<ManagedWhatsAppInboundRecord>(document.dump(), name);
        document[name] = nullptr;
        EXPECT_THROW(decodedRecord<ManagedWhatsAppInboundRecord>(document.dump()), DecodingFailure);
    }
    document[name] = 1;
    EXPECT_THROW(decodedRecord<ManagedWhatsAppInboundRecord>(document.dump()), DecodingFailure);
}

INSTANTIATE_TEST_SUITE_P(Fields, InboundFieldTests,
                         testing::Values(std::pair("messageId", true), std::pair("timestampISO8601", true),
                                         std::pair("rawReference", true), std::pair("conversationId", false),
                                         std::pair("conversationTitle", false), std::pair("senderId", false),
                                         std::pair("senderDisplayName", false), std::pair("text", false),
                                         std::pair("isDirectMessage", false)),
                         [](const auto& each) { return std::string(each.param.first); });

TEST(RuntimeStatusRecordTests, IsWrittenWithEveryField) {
    const ManagedWhatsAppRuntimeStatusRecord record{.platform = "whatsapp",
                                                    .backendVersion = "v",
                                                    .dataDirectoryPath = "/d",
                                                    .connectionState = "connected",
                                                    .activeScopeDescription = "Self-test X",
                                                    .workerConfiguredExecutablePath = "/w",
                                                    .workerProcessRunning = true,
                                                    .workerState = "linked",
                                                    .workerDisplayName = "N",
                                                    .workerDetail = "D",
                                                    .workerLastHeartbeatISO8601 = "h",
                                                    .workerContactQRLink = "q",
                                                    .workerSupportsLiveCapture = true,
                                                    .workerSupportsOutbound = true,
                                                    .updatedAtISO8601 = "u"};
    EXPECT_EQ(fileOf(record), R"({
  "activeScopeDescription": "Self-test X",
  "backendVersion": "v",
  "connectionState": "connected",
  "dataDirectoryPath": "\/d",
  "platform": "whatsapp",
  "updatedAtISO8601": "u",
  "workerConfiguredExecutablePath": "\/w",
  "workerContactQRLink": "q",
  "workerDetail": "D",
  "workerDisplayName": "N",
  "workerLastHeartbeatISO8601": "h",
  "workerProcessRunning": true,
  "workerState": "linked",
  "workerSupportsLiveCapture": true,
  "workerSupportsOutbound": true
}
)");
}

TEST(RuntimeStatusRecordTests, LeavesOutWhatIsAbsent) {
    EXPECT_EQ(fileOf(ManagedWhatsAppRuntimeStatusRecord{}), R"({
  "backendVersion": "",
  "connectionState": "",
  "dataDirectoryPath": "",
  "platform": "",
  "updatedAtISO8601": "",
  "workerProcessRunning": false,
  "workerState": "",
  "workerSupportsLiveCapture": false,
  "workerSupportsOutbound": false
}
)");
}

TEST(RecordFileTests, WrittenRecordIsReadBack) {
    const test::TemporaryDirectory directory;
    const auto path = (directory.path() / "record.json").string();
    PosixFileManager files;
    const auto record = decodedRecord<ManagedWhatsAppInboundRecord>(full_inbound);
    writeRecord(files, path, record, Durability::disk);
    EXPECT_EQ(test::readFile(path), full_inbound);
    EXPECT_EQ(fileOf(readRecord<ManagedWhatsAppInboundRecord>(files, path)), full_inbound);
}

TEST(RecordFileTests, MissingUnreadableAndUndecodableFilesAreTellableApart) {
    const test::TemporaryDirectory directory;
    const auto path = (directory.path() / "record.json").string();
    PosixFileManager files;
    const auto codeOf = [&](const std::string& file) {
        try {
            readRecord<ManagedWhatsAppInboundRecord>(files, file);
        } catch (const FileSystemFailure& failure) {
            return failure.code();
        } catch (const DecodingFailure&) {
            return -1;
        }
        return 0;
    };
    EXPECT_EQ(codeOf(path), ENOENT);
    EXPECT_EQ(codeOf(directory.path()), EINVAL);
    test::writeFileAtomically(path, "{");
    EXPECT_EQ(codeOf(path), -1);
}

}  // namespace
}  // namespace brindle
