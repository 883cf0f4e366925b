/// Writes the reference of every record, or checks that what is written is current:
/// record_reference [--check] DIRECTORY
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>

#include "bridge/BridgeMessages.h"
#include "exchange/ExchangeRecords.h"
#include "records/RecordSchema.h"

namespace brindle {
namespace {

using Files = std::map<std::string, std::string>;

constexpr auto bridge_page = "bridge-records.md";
constexpr auto exchange_page = "exchange-records.md";
constexpr auto page_notice =
    "<!-- Written by scripts/update-reference from the records' own lists of fields. -->\n\n";

template <RecordType R>
void addTable(Files& files, const std::string& page, const std::string& name) {
    files[page] += "\n## " + name + "\n\n";
    files[page] += std::tuple_size_v<decltype(R::fields())> == 0 ? "No fields.\n" : fieldTable<R>();
}

template <RecordType R>
void addExchangeRecord(Files& files, const std::string& name) {
    addTable<R>(files, exchange_page, name);
    files[name + ".schema.json"] = schemaOf<R>();
}

Files reference() {
    Files files;
    files[bridge_page] = std::string(page_notice) + "# Records of the bridge protocol\n";
    addTable<BridgeHello>(files, bridge_page, "BridgeHello");
    addTable<BridgeConnectRequest>(files, bridge_page, "BridgeConnectRequest");
    addTable<BridgeDisconnectRequest>(files, bridge_page, "BridgeDisconnectRequest");
    addTable<BridgeStartListeningRequest>(files, bridge_page, "BridgeStartListeningRequest");
    addTable<BridgeStopListeningRequest>(files, bridge_page, "BridgeStopListeningRequest");
    addTable<BridgeSendMessageRequest>(files, bridge_page, "BridgeSendMessageRequest");
    addTable<BridgeOutboundMessage>(files, bridge_page, "BridgeOutboundMessage");
    addTable<BridgeAttachment>(files, bridge_page, "BridgeAttachment");
    addTable<BridgeInboundEvent>(files, bridge_page, "BridgeInboundEvent");
    addTable<BridgeInboundMessageEvent>(files, bridge_page, "BridgeInboundMessageEvent");
    addTable<BridgeStateChangedEvent>(files, bridge_page, "BridgeStateChangedEvent");
    addTable<BridgeErrorEvent>(files, bridge_page, "BridgeErrorEvent");
    addTable<BridgeConversationScope>(files, bridge_page, "BridgeScope: conversation");
    addTable<BridgeChannelScope>(files, bridge_page, "BridgeScope: channel");
    addTable<BridgeThreadScope>(files, bridge_page, "BridgeScope: thread");
    addTable<BridgeTestOnlyScope>(files, bridge_page, "BridgeScope: testOnly");
    addTable<BridgeDisconnectedState>(files, bridge_page, "BridgeConnectionState: disconnected");
    addTable<BridgeConnectingState>(files, bridge_page, "BridgeConnectionState: connecting");
    addTable<BridgeConnectedState>(files, bridge_page, "BridgeConnectionState: connected");
    addTable<BridgeErrorState>(files, bridge_page, "BridgeConnectionState: error");
    files["BridgeEnvelope.schema.json"] = schemaOf<BridgeEnvelope>();

    files[exchange_page] = std::string(page_notice) + "# Records of the data directory\n";
    addExchangeRecord<ManagedWhatsAppWorkerStatusRecord>(files, "ManagedWhatsAppWorkerStatusRecord");
    addExchangeRecord<ManagedWhatsAppWorkerControlRecord>(files, "ManagedWhatsAppWorkerControlRecord");
    addTable<ManagedWhatsAppWorkerControlScope>(files, exchange_page, "ManagedWhatsAppWorkerControlScope");
    addExchangeRecord<ManagedWhatsAppOutboundRecord>(files, "ManagedWhatsAppOutboundRecord");
    addExchangeRecord<ManagedWhatsAppWorkerInboundRecord>(files, "ManagedWhatsAppWorkerInboundRecord");
    addExchangeRecord<ManagedWhatsAppInboundRecord>(files, "ManagedWhatsAppInboundRecord");
    addExchangeRecord<ManagedWhatsAppRuntimeStatusRecord>(files, "ManagedWhatsAppRuntimeStatusRecord");
    return files;
}

std::string contentOf(const std::filesystem::path& path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

int check(const std::filesystem::path& directory) {
    for (const auto& [name, content] : reference()) {
        if (contentOf(directory / name) == content) continue;
        std::cerr << (directory / name).string() << " is not current; run scripts/update-reference.\n";
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

int write(const std::filesystem::path& directory) {
    for (const auto& [name, content] : reference()) {
        std::ofstream file(directory / name);
        file << content;
        if (file.flush()) continue;
        std::cerr << "Cannot write " << (directory / name).string() << ".\n";
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

}  // namespace
}  // namespace brindle

int main(int argumentCount, char** arguments) {
    const std::string last = argumentCount > 1 ? arguments[argumentCount - 1] : "";
    if (argumentCount == 2) return brindle::write(last);
    if (argumentCount == 3 && std::string(arguments[1]) == "--check") return brindle::check(last);
    std::cerr << "Usage: record_reference [--check] DIRECTORY\n";
    return EXIT_FAILURE;
}
