/// Writes the reference of every record, or checks that what is written is current:
/// record_reference [--check] DIRECTORY
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "backend/BackendIdentity.h"
#include "bridge/BridgeMessages.h"
#include "exchange/ExchangeRecords.h"
#include "records/RecordSchema.h"
#include "records/TypeName.h"

namespace brindle {
namespace {

using Files = std::map<std::string, std::string>;

constexpr auto schema_suffix = ".schema.json";

constexpr auto page_notice =
    "<!-- Written by scripts/update-reference from the records' own lists of fields. -->\n\n";

/// The tables of records. A record comes once, followed by the records that it holds; an enumeration that it
/// holds comes at the end, case by case.
class ReferenceTables {
  public:
    template <RecordType R>
    void add() {
        const auto name = typeName<R>();
        if (!described_.insert(name).second) return;
        records_ += table<R>(name);
        forEachField<R>([this]<class Value>(const Field<R, Value>&) { this->addHeld<Value>(); });
    }

    template <EnumerationType E>
    void addPayloads() {
        E::forEachCase([this]<class EachCase>(EachCase) { this->add<typename EachCase::Payload>(); });
    }

    /// What was added since the last page, as a page.
    std::string takePage(const std::string& title) {
        return page_notice + ("# " + title + "\n") + std::exchange(records_, {}) + std::exchange(cases_, {});
    }

  private:
    template <RecordType R>
    static std::string table(const std::string& title) {
        return "\n## " + title + "\n\n" + (record::field_count<R> == 0 ? "No fields.\n" : fieldTable<R>());
    }

    template <class Value>
    void addHeld() {
        if constexpr (record::IsOptional<Value>::value || record::IsVector<Value>::value) {
            addHeld<typename Value::value_type>();
        } else if constexpr (EnumerationType<Value>) {
            addCases<Value>();
        } else if constexpr (RecordType<Value>) {
            add<Value>();
        }
    }

    template <EnumerationType E>
    void addCases() {
        if (!described_.insert(typeName<E>()).second) return;
        E::forEachCase([this]<class EachCase>(EachCase) {
            cases_ += table<typename EachCase::Payload>(typeName<E>().append(": ").append(EachCase::name));
        });
    }

    std::set<std::string> described_;
    std::string records_;
    std::string cases_;
};

/// A schema keeps its name until the protocol gets another version.
SchemaTitle schemaTitle(const std::string& title, std::string_view meaning) {
    return {.id = "urn:brindle:" + std::string(backend_version) + ":" + title,
            .title = title,
            .meaning = meaning};
}

/// The schema that says of both directions what it allows, and one for each direction.
void addBridgeSchemas(Files& files) {
    const auto add = [&](const std::string& title, std::string_view meaning,
                         std::span<const std::string_view> cases) {
        files[title + schema_suffix] = schemaOf<BridgeEnvelope>(schemaTitle(title, meaning), cases);
    };
    add("BridgeEnvelope", BridgeEnvelope::meaning, BridgeEnvelope::case_names);
    add("BridgeRequest", BridgeEnvelope::request_meaning, BridgeEnvelope::requests);
    add("BridgeEvent", BridgeEnvelope::event_meaning, BridgeEnvelope::events);
}

template <RecordType... R>
void addFileRecords(Files& files, ReferenceTables& tables, std::type_identity<std::tuple<R...>>) {
    (tables.add<R>(), ...);
    ((files[typeName<R>() + schema_suffix] = schemaOf<R>(schemaTitle(typeName<R>(), R::meaning))), ...);
}

Files reference() {
    Files files;
    ReferenceTables tables;
    tables.addPayloads<BridgeEnvelope>();
    files["bridge-records.md"] = tables.takePage("Records of the bridge protocol");
    addBridgeSchemas(files);
    addFileRecords(files, tables, std::type_identity<DataDirectoryRecords>{});
    files["exchange-records.md"] = tables.takePage("Records of the data directory");
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
