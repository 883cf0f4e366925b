#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "bridge/BridgeMessages.h"
#include "exchange/ExchangeRecords.h"
#include "records/TypeName.h"
#include "support/GeneratedRecords.h"

// What our reader makes of documents, in a form that does not depend on how a document is written:
//
//   document_reader --generate SEED COUNT   writes COUNT documents of generated records
//   document_reader --read                  reads documents from standard input; writes a line for each:
//                                           what it holds, or "refused"
//   document_reader --decode                reads documents from standard input, the name of a type and a
//                                           space before each; writes a line for each: "accepted" or
//                                           "refused"
//
// Documents that are exchanged with another program each follow their length in bytes and a line feed,
// because mutated ones hold any bytes. What a document holds is written with the kind of each value beside
// it: ["s", text], ["n", digits] for an integer of 64 bits, ["n", "?"] for any other number, ["b", "true"],
// ["z"], ["a", ...], ["o", [name, value], ...] with all members in their order.

namespace brindle::test {
namespace {

void describe(JsonWriter& writer, JsonValue value);

void describeMembers(JsonWriter& writer, JsonValue object) {
    object.forEachMember([&](std::string_view name, JsonValue member) {
        writer.beginArray();
        writer.string(name);
        describe(writer, member);
        writer.endArray();
    });
}

void describe(JsonWriter& writer, JsonValue value) {
    writer.beginArray();
    switch (value.kind()) {
        case JsonValue::Kind::string:
            writer.string("s");
            writer.string(value.string());
            break;
        case JsonValue::Kind::number: {
            const auto integer = value.integer();
            writer.string("n");
            writer.string(integer ? std::to_string(*integer) : "?");
            break;
        }
        case JsonValue::Kind::boolean:
            writer.string("b");
            writer.string(value.boolean() ? "true" : "false");
            break;
        case JsonValue::Kind::null:
            writer.string("z");
            break;
        case JsonValue::Kind::array:
            writer.string("a");
            value.forEachElement([&](JsonValue element) { describe(writer, element); });
            break;
        case JsonValue::Kind::object:
            writer.string("o");
            describeMembers(writer, value);
            break;
    }
    writer.endArray();
}

std::string description(JsonParser& parser, const std::string& document) {
    try {
        JsonWriter writer(JsonStyle::compact);
        describe(writer, parser.parse(document));
        return writer.finish();
    } catch (const DecodingFailure&) {
        return "refused";
    }
}

int read() {
    JsonParser parser;
    std::size_t length = 0;
    while (std::cin >> length && std::cin.get() == '\n') {
        std::string document(length, '\0');
        if (!std::cin.read(document.data(), static_cast<std::streamsize>(length))) return EXIT_FAILURE;
        std::cout << description(parser, document) << '\n';
    }
    return EXIT_SUCCESS;
}

template <class Record>
bool isAccepted(const std::string& document) {
    try {
        decodedRecord<Record>(document);
        return true;
    } catch (const DecodingFailure&) {
        return false;
    }
}

template <class... Record>
std::map<std::string, bool (*)(const std::string&)> decoders(std::type_identity<std::tuple<Record...>>) {
    return {{typeName<Record>(), isAccepted<Record>}...};
}

int decode() {
    auto known = decoders(std::type_identity<DataDirectoryRecords>{});
    known.emplace(typeName<BridgeEnvelope>(), isAccepted<BridgeEnvelope>);
    std::string type;
    std::size_t length = 0;
    while (std::cin >> type >> length && std::cin.get() == '\n') {
        std::string document(length, '\0');
        if (!std::cin.read(document.data(), static_cast<std::streamsize>(length))) return EXIT_FAILURE;
        std::cout << (known.at(type)(document) ? "accepted" : "refused") << '\n';
    }
    return EXIT_SUCCESS;
}

template <class Record>
std::string generatedDocument(Seed& seed) {
    return encodedRecord(generated<Record>(seed),
                         below(seed, 2) == 0 ? JsonStyle::compact : JsonStyle::pretty);
}

int generate(std::uint64_t first, std::size_t count) {
    Seed seed(first);
    constexpr std::array makers{
        generatedDocument<BridgeEnvelope>,
        generatedDocument<ManagedWhatsAppWorkerStatusRecord>,
        generatedDocument<ManagedWhatsAppWorkerControlRecord>,
        generatedDocument<ManagedWhatsAppOutboundRecord>,
        generatedDocument<ManagedWhatsAppWorkerInboundRecord>,
        generatedDocument<ManagedWhatsAppRuntimeStatusRecord>,
    };
    for (std::size_t i = 0; i < count; ++i) {
        const auto document = makers[i % makers.size()](seed);
        std::cout << document.size() << '\n' << document;
    }
    return EXIT_SUCCESS;
}

}  // namespace
}  // namespace brindle::test

int main(int argumentCount, char** arguments) {
    std::ios::sync_with_stdio(false);
    const std::vector<std::string> words(arguments + 1, arguments + argumentCount);
    if (words.size() == 1 && words[0] == "--read") return brindle::test::read();
    if (words.size() == 1 && words[0] == "--decode") return brindle::test::decode();
    if (words.size() == 3 && words[0] == "--generate")
        return brindle::test::generate(std::stoull(words[1]), std::stoull(words[2]));
    std::cerr << "Usage: document_reader --generate SEED COUNT | --read | --decode\n";
    return EXIT_FAILURE;
}
