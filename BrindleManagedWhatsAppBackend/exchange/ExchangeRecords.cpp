#include "exchange/ExchangeRecords.h"

namespace brindle {
namespace {

struct ScopeParts {
    std::optional<std::string> id;
    std::optional<std::string> title;
};

ScopeParts partsOf(const BridgeTestOnlyScope& scope) {
    return {.id = std::nullopt, .title = scope.title};
}
template <class Scope>
ScopeParts partsOf(const Scope& scope) {
    return {.id = scope.id, .title = scope.title};
}

}  // namespace

ManagedWhatsAppWorkerControlScope ManagedWhatsAppWorkerControlScope::from(const BridgeScope& scope) {
    auto parts = std::visit([](const auto& each) { return partsOf(each); }, scope);
    return {.kind = std::string(BridgeScope::case_names[scope.index()]),
            .id = std::move(parts.id),
            .title = std::move(parts.title)};
}

}  // namespace brindle
